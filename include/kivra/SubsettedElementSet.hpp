#pragma once
/// \file
/// A live, filtered view of a keyed element collection.

#include <kivra/ElementMap.hpp>

#include <functional>
#include <utility>
#include <vector>

namespace kivra {

/// The untyped body of every `SubsettedElementSet`: the entries of a map (its superset)
/// whose class is the view's entry class or derives from it and, with a predicate, that
/// the predicate accepts. It stores nothing: the entries and their change records belong
/// to the superset, and every change through the view is a change of the superset.
class SubsettedElementSetBase : public ReferenceCollection {
public:
    /// Says whether an element of the right class belongs to the view.
    using Predicate = std::function<bool(ModelElement const &)>;

    ~SubsettedElementSetBase() override;

    meta::Type getCollectionType() const override;
    /// True when no entry of the superset passes.
    bool empty() const override;
    /// The number of passing entries; counts them.
    std::size_t size() const;
    bool contains(ModelElement const &element) const;
    /// The passing entries, in the superset's order.
    std::vector<ModelElement> getAllValues() const override;

    void replaceProxy(ModelElement const &element, std::size_t index) override;
    void resolveAll() override;

protected:
    using EntryClass = meta::Class const &(*)();

    SubsettedElementSetBase(ElementMapBody &superset, EntryClass entryClass, Predicate predicate);

    bool passes(ModelElement const &element) const;

    void resolveLocal() override;
    // The entries are the superset's, which keeps their record: nothing to do here.
    void basicAdd(ModelElement const &) override {}
    void basicRemove(ModelElement const &) override {}
    void basicReplaceProxy(ModelElement const &, std::size_t) override {}
    void basicAssign(std::vector<ModelElement> const &) override {}
    void basicClear() override {}
    void basicCopyValues(ReferenceCollection const &) override {}
    bool basicContainsProxyTo(ModelElement const &) override { return false; }
    void assignFrom(ReferenceCollection const &) override {}

private:
    /// The generic view: the class test, then the predicate, then the superset.
    class WrapperInterface final : public GenericCollectionInterface {
    public:
        explicit WrapperInterface(SubsettedElementSetBase &view) noexcept : view_(view) {}
        std::size_t genericSize() const override;
        bool genericEmpty() const override;
        /// Raises `CannotAddIncompatibleTypes` for another class and
        /// `CannotAddIncompatibleObjectSubset` for an element the predicate refuses; else
        /// inserts into the superset, failing on a key held by another element.
        void genericAdd(ModelElement const &element) override;
        /// An element the predicate refuses is left alone.
        void genericRemove(ModelElement const &element) override;
        void genericClear() override;
        void genericBasicClear() override {}
        bool genericContains(ModelElement const &element) const override;

    private:
        SubsettedElementSetBase &view_;
    };

    ElementMapBody *superset_;
    EntryClass entryClass_;
    Predicate predicate_;
    WrapperInterface wrapper_{*this};
};

/// The entries of the map `Base` that are `T`s (and pass the predicate, when given): the
/// classes among the types of a package, for instance. The view is live: what the superset
/// gains or loses shows at once.
template <class T, class Base> class SubsettedElementSet final : public SubsettedElementSetBase {
public:
    explicit SubsettedElementSet(Base &superset, Predicate predicate = {})
        : SubsettedElementSetBase(superset, &T::metaClass, std::move(predicate)) {}
};

} // namespace kivra
