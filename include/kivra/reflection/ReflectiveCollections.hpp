#pragma once
/// \file
/// Element collections of reflective elements: the collections of the library, plus a
/// test of each entry's class, which is known only at run time.

#include <kivra/ElementMap.hpp>
#include <kivra/ElementSequence.hpp>
#include <kivra/UnorderedElementSet.hpp>
#include <kivra/meta/Handles.hpp>

#include <cstddef>
#include <map>
#include <unordered_map>

namespace kivra::reflection {

/// The class known only at run time that every entry of a reflective element collection
/// is of, or derives from.
class ReflectiveEntryClass {
public:
    meta::Class const &getEntryClass() const noexcept { return entryClass_; }

protected:
    explicit ReflectiveEntryClass(meta::Class const &cls);
    ~ReflectiveEntryClass();
    /// Raises `CannotAddIncompatibleTypes` unless `element` is of the entry class; an
    /// empty handle and a proxy, whose class is known once it resolves, pass.
    void checkEntry(ModelElement const &element) const;

private:
    meta::Class entryClass_;
};

/// The ordered collection of a reflective element's to-many property.
class ReflectiveElementSequence final : public ElementSequenceBase, public ReflectiveEntryClass {
public:
    /// The collection of `owner`'s `property` (none for a free-standing copy) that takes
    /// elements of `cls`, each once when `unique`, and keeps `opposite` at the far ends.
    ReflectiveElementSequence(ModelElement::Impl *owner, meta::Class const &cls, bool unique,
                              meta::Property::Impl *property, meta::Property::Impl *opposite);
    ~ReflectiveElementSequence() override;
    void replaceElement(std::size_t index, ModelElement const &element) override;

protected:
    void basicAdd(ModelElement const &element) override;

private:
    class CheckingView;
    std::unique_ptr<CheckingView> checking_;
};

/// The unordered collection of a reflective element's to-many property.
class ReflectiveUnorderedElementSet final : public ElementSetBase, public ReflectiveEntryClass {
public:
    /// The collection of `owner`'s `property` (none for a free-standing copy) that takes
    /// elements of `cls` and keeps `opposite` at the far ends.
    ReflectiveUnorderedElementSet(ModelElement::Impl *owner, meta::Class const &cls, meta::Property::Impl *property,
                                  meta::Property::Impl *opposite);
    ~ReflectiveUnorderedElementSet() override;

protected:
    void basicAdd(ModelElement const &element) override;

private:
    class CheckingView;
    std::unique_ptr<CheckingView> checking_;
};

/// A keyed collection of a reflective element, `Base` one of the four keyed forms of
/// `ModelElement` entries. Every way in places the entry under its key, where the class
/// test sits.
template <class Base> class ReflectiveKeyed final : public Base, public ReflectiveEntryClass {
public:
    /// The collection of `owner`'s `property` (none for a free-standing copy) that holds
    /// elements of `cls` under what `key` reads from each, and keeps `opposite` at the far
    /// ends.
    ReflectiveKeyed(typename Base::KeyFunction key, ModelElement::Impl *owner, meta::Class const &cls,
                    meta::Property::Impl *property, meta::Property::Impl *opposite)
        : Base(std::move(key), owner, property, opposite), ReflectiveEntryClass(cls) {}

protected:
    // Asked first on every way in, before the key function reads the entry.
    ModelElement::Impl *holderOfKeyOf(ModelElement::Impl const *element) const override {
        checkEntry(ModelElement::fromImpl(const_cast<ModelElement::Impl *>(element)));
        return Base::holderOfKeyOf(element);
    }
    bool place(ModelElement const &element) override {
        checkEntry(element);
        return Base::place(element);
    }
};

template <class K>
using ReflectiveElementMap = ReflectiveKeyed<ElementMapBase<K, ModelElement, std::map<K, ModelElement>>>;
template <class K>
using ReflectiveElementMultimap = ReflectiveKeyed<ElementMultimapBase<K, ModelElement, std::multimap<K, ModelElement>>>;
template <class K>
using ReflectiveUnorderedElementMap = ReflectiveKeyed<
    ElementMapBase<K, ModelElement, std::unordered_map<K, ModelElement, services::hashers::KeyHasher<K>>>>;
template <class K>
using ReflectiveUnorderedElementMultimap = ReflectiveKeyed<
    ElementMultimapBase<K, ModelElement, std::unordered_multimap<K, ModelElement, services::hashers::KeyHasher<K>>>>;

} // namespace kivra::reflection
