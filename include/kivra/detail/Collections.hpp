#pragma once
/// \file
/// Not API: what the generated accessors of multi-valued properties share, so that each
/// accessor is a line or two.

#include <kivra/ModelElement.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Handles.hpp>

#include <memory>
#include <vector>

namespace kivra {
class AbstractPrimitiveCollection;
} // namespace kivra

namespace kivra::detail {

[[noreturn]] void raiseCollectionOfProxy();
/// Raises `CannotModifyProxy` for a proxy: a proxy has no collections.
inline void checkCollectionOwner(ModelElement::Impl const &owner) {
    if (owner.isProxy()) [[unlikely]]
        raiseCollectionOfProxy();
}

/// The other end of `property`, raw; null when none.
meta::Property::Impl *oppositeOf(meta::Property const &property);

/// Every access resolves what the collection holds, except while a document is parsed.
void resolveCollectionOnAccess(ModelElement::Impl const &owner, ReferenceCollection &collection);

/// Replaces the contents of `collection` by the entries of `value`, with association.
void assignCollection(ReferenceCollection &collection, Value const &value);

/// Destroys the children that a composite collection holds, then empties it at once.
void destroyChildren(ModelElement::Impl &owner, ReferenceCollection &collection, std::uint64_t index,
                     bool modelDestroying, bool multiModel);

/// A free-standing copy of `source`, for a change record; null for a collection never made.
template <class C> std::unique_ptr<C> cloneCollection(C const *source) {
    if (!source)
        return nullptr;
    std::unique_ptr<C> copy(new (nullptr) C());
    ModelElement::Impl::_basicCopyValues(*copy, *source);
    return copy;
}

/// Puts back the contents a change record kept; a collection that did not exist then was empty.
template <class C> void restoreCollection(C &target, C const *stored) {
    if (stored)
        ModelElement::Impl::_basicCopyValues(target, *stored);
    else
        ModelElement::Impl::_basicCopyValues(target, C());
}

/// The old value of a collection as a reflective read forms it: a view of the kept copy.
template <class C> Value oldCollectionValue(std::unique_ptr<C> &stored, meta::Property const &property) {
    if (!stored)
        stored.reset(new (nullptr) C());
    return Value(static_cast<ReferenceCollection &>(*stored), property);
}

/// Replaces the entries of a collection of values by those `value` carries (one for a
/// single value), as one change; a value that views the collection itself changes nothing.
void assignValues(AbstractPrimitiveCollection &collection, Value const &value);

/// Appends the entries `value` carries to a builder's staged entries, each read as the
/// collections read a written value; made for the entry types the collections have.
template <class V> void stageValues(std::vector<V> &staged, Value const &value);

} // namespace kivra::detail
