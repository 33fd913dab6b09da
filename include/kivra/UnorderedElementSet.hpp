#pragma once
/// \file
/// Element collections that keep proxies aside, and the hashed set of an unordered
/// element-typed property.

#include <kivra/ReferenceCollection.hpp>
#include <kivra/detail/ElementHashSet.hpp>

#include <cstddef>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace kivra {

namespace detail {
class ProxyTable;
} // namespace detail

/// The base of every collection that cannot hold a proxy in place (a proxy has no key,
/// and its hash is not that of the element it stands for): unresolved proxies wait in a
/// side table under their `ProxyId`, made when the first one arrives, invisible to the
/// size and to iteration. Resolving moves them into the container, but not while the
/// element is new in a transaction that may yet roll back.
class ReferenceCollectionWithProxies : public ReferenceCollection {
public:
    ~ReferenceCollectionWithProxies() override;

    /// Puts a proxy into the side table; an equal `ProxyId` keeps the first. Raises
    /// `CannotCreateCrossModelAssociation` for a proxy of another model in a composite.
    void addProxy(ModelElement const &proxy);
    /// Takes the proxy with `proxy`'s `ProxyId` out of the side table.
    void removeProxy(ModelElement const &proxy);
    /// Empties the side table without recording: for operations that have recorded.
    void clearUnresolved() noexcept;
    std::size_t unresolvedSize() const noexcept;
    /// The proxies of the side table in the order they arrived; none when it was never made.
    std::vector<ModelElement> unresolvedProxies() const;

    void resolveAll() override;
    /// `element` takes the place of its proxy in the side table, and is associated.
    void replaceProxy(ModelElement const &element, std::size_t index) override;

protected:
    ReferenceCollectionWithProxies(ModelElement::Impl *owner, meta::Property::Impl *property,
                                   meta::Property::Impl *opposite, GenericCollectionInterface *genericInterface);

    /// Puts `element` into the container with no guard, record or association; false when
    /// it did not go in.
    virtual bool resolveAdd(ModelElement const &element) = 0;

    void resolveLocal() override;
    void basicAddWithProxy(ModelElement const &element) override;
    void basicReplaceProxy(ModelElement const &element, std::size_t index) override;
    bool basicContainsProxyTo(ModelElement const &element) override;
    /// The side table becomes a copy of `other`'s.
    void copyUnresolvedFrom(ReferenceCollectionWithProxies const &other);
    bool hasUnresolved() const noexcept;

private:
    std::unique_ptr<detail::ProxyTable> unresolved_;
};

/// The untyped body of every `UnorderedElementSet<V>`: a hashed set of element handles,
/// always unique.
class ElementSetBase : public ReferenceCollectionWithProxies {
public:
    using Container = detail::ElementHashSet;
    using const_iterator = Container::const_iterator;

    ~ElementSetBase() override;

    /// Entries held, proxies in the side table not counted.
    std::size_t size() const noexcept { return entries_.size(); }
    /// True only when both the container and the side table are empty.
    bool empty() const override { return entries_.empty() && !hasUnresolved(); }
    meta::Type getCollectionType() const override;

    /// Adds with association. An empty handle gives (end, false); a proxy goes to the side
    /// table and gives (end, false); a present element gives its position and false.
    std::pair<const_iterator, bool> insert(ModelElement const &element);
    /// Removes with association; gives the position of the entry to walk next, so that a
    /// loop that erases as it goes meets every entry.
    const_iterator erase(const_iterator position);
    void erase(const_iterator first, const_iterator last);
    /// Removes with association; a proxy leaves the side table; an absent element is no error.
    void erase(ModelElement const &element);
    /// Removes every entry with association and empties the side table.
    void clear();
    const_iterator find(ModelElement const &element) const { return entries_.find(element); }
    bool contains(ModelElement const &element) const { return entries_.contains(element); }
    const_iterator begin() const noexcept { return entries_.begin(); }
    const_iterator end() const noexcept { return entries_.end(); }
    Container const &toSTLCollection() const noexcept { return entries_; }

    std::vector<ModelElement> getAllValues() const override;
    std::vector<ModelElement> getAllValuesAndProxies() const override;

protected:
    using EntryClass = meta::Class const &(*)();

    ElementSetBase(ModelElement::Impl *owner, meta::Property::Impl *property, meta::Property::Impl *opposite,
                   EntryClass entryClass);

    void basicAdd(ModelElement const &element) override;
    void basicAddQuietly(ModelElement const &element) override;
    void basicRemove(ModelElement const &element) override;
    void basicAssign(std::vector<ModelElement> const &elements) override;
    void basicClear() override;
    void basicCopyValues(ReferenceCollection const &other) override;
    void assignFrom(ReferenceCollection const &other) override;
    bool resolveAdd(ModelElement const &element) override;

private:
    /// The generic view, which forwards to the public operations after the class test.
    class WrapperInterface final : public GenericCollectionInterface {
    public:
        explicit WrapperInterface(ElementSetBase &set) noexcept : set_(set) {}
        std::size_t genericSize() const override;
        bool genericEmpty() const override;
        void genericAdd(ModelElement const &element) override;
        void genericRemove(ModelElement const &element) override;
        void genericClear() override;
        void genericBasicClear() override;
        bool genericContains(ModelElement const &element) const override;

    private:
        ElementSetBase &set_;
    };

    Container entries_;
    EntryClass entryClass_;
    WrapperInterface view_{*this};
};

namespace internal {

/// An iterator over a set of handles that gives them as `V`.
template <class V> class SetIterator {
public:
    using Base = ElementSetBase::const_iterator;
    using iterator_category = std::forward_iterator_tag;
    using value_type = V;
    using difference_type = std::ptrdiff_t;
    using reference = V;
    using pointer = void;

    SetIterator() = default;
    explicit SetIterator(Base base) : base_(base) {}
    V operator*() const {
        if constexpr (std::is_same_v<V, ModelElement>)
            return *base_;
        else
            return V::fromImpl(static_cast<typename V::Impl *>(base_->get()));
    }
    typename V::Impl *operator->() const { return (**this).get(); }
    SetIterator &operator++() { return ++base_, *this; }
    SetIterator operator++(int) { return SetIterator(base_++); }
    friend bool operator==(SetIterator const &a, SetIterator const &b) { return a.base_ == b.base_; }
    Base base() const { return base_; }

private:
    Base base_;
};

} // namespace internal

/// The collection of an unordered element-typed property, entries `V`. A set is always
/// unique; proxies wait in the side table until they resolve.
template <class V> class UnorderedElementSet final : public ElementSetBase {
public:
    using iterator = internal::SetIterator<V>;
    using const_iterator = iterator;
    using value_type = V;

    /// The collection of `owner`'s `property`; made by the owner on first use.
    UnorderedElementSet(ModelElement::CollectionPrivateTag const &, ModelElement::Impl *owner,
                        meta::Property::Impl *property, meta::Property::Impl *opposite)
        : ElementSetBase(owner, property, opposite, &V::metaClass) {}
    /// A free-standing set.
    UnorderedElementSet() : ElementSetBase(nullptr, nullptr, nullptr, &V::metaClass) {}

    iterator begin() const { return iterator(ElementSetBase::begin()); }
    iterator end() const { return iterator(ElementSetBase::end()); }
    iterator find(V const &element) const { return iterator(ElementSetBase::find(element)); }

    using ElementSetBase::erase;
    using ElementSetBase::insert;
    iterator erase(iterator position) { return iterator(ElementSetBase::erase(position.base())); }
    void erase(iterator first, iterator last) { ElementSetBase::erase(first.base(), last.base()); }
};

} // namespace kivra
