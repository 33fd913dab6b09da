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

namespace detail {
/// Raises `CannotAddIncompatibleTypes` unless `element`'s class is `entryClass` or
/// derives from it; an empty handle passes.
void checkReflectiveEntry(ModelElement const &element, meta::Class const &entryClass);
} // namespace detail

/// The ordered collection of a reflective element's to-many property.
class ReflectiveElementSequence final : public ElementSequenceBase {
public:
    ReflectiveElementSequence(ModelElement::Impl *owner, meta::Class const &cls, bool unique,
                              meta::Property::Impl *property, meta::Property::Impl *opposite);
    ~ReflectiveElementSequence() override;
    meta::Class const &getEntryClass() const noexcept { return entryClass_; }
    void replaceElement(std::size_t index, ModelElement const &element) override;

protected:
    void basicAdd(ModelElement const &element) override;

private:
    class CheckingView;
    meta::Class entryClass_;
    std::unique_ptr<CheckingView> checking_;
};

/// The unordered collection of a reflective element's to-many property.
class ReflectiveUnorderedElementSet final : public ElementSetBase {
public:
    ReflectiveUnorderedElementSet(ModelElement::Impl *owner, meta::Class const &cls, meta::Property::Impl *property,
                                  meta::Property::Impl *opposite);
    ~ReflectiveUnorderedElementSet() override;
    meta::Class const &getEntryClass() const noexcept { return entryClass_; }

protected:
    void basicAdd(ModelElement const &element) override;

private:
    class CheckingView;
    meta::Class entryClass_;
    std::unique_ptr<CheckingView> checking_;
};

/// A keyed collection of a reflective element, `Base` one of the four keyed forms of
/// `ModelElement` entries. Every way in places the entry under its key, where the class
/// test sits.
template <class Base> class ReflectiveKeyed final : public Base {
public:
    ReflectiveKeyed(typename Base::KeyFunction key, ModelElement::Impl *owner, meta::Class const &cls,
                    meta::Property::Impl *property, meta::Property::Impl *opposite)
        : Base(std::move(key), owner, property, opposite), entryClass_(cls) {}
    meta::Class const &getEntryClass() const noexcept { return entryClass_; }

protected:
    // Asked first on every way in, before the key function reads the entry.
    ModelElement::Impl *holderOfKeyOf(ModelElement::Impl const *element) const override {
        detail::checkReflectiveEntry(ModelElement::fromImpl(const_cast<ModelElement::Impl *>(element)), entryClass_);
        return Base::holderOfKeyOf(element);
    }
    bool place(ModelElement const &element) override {
        detail::checkReflectiveEntry(element, entryClass_);
        return Base::place(element);
    }

private:
    meta::Class entryClass_;
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
