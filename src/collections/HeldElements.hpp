#pragma once
// Not API: the elements a property's value holds, read as they are stored.

#include <kivra/ElementSequence.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/ReferenceCollection.hpp>
#include <kivra/Value.hpp>

namespace kivra::detail {

/// The collection of elements that an element owns behind `value`, or null for any other
/// value.
ReferenceCollection const *managedReferenceCollection(Value const &value);

/// `collection` as a sequence, whose entries can be read in place; null for any other kind.
ElementSequenceBase const *asElementSequence(ReferenceCollection const &collection) noexcept;

/// Calls `visit` with each element that `value` holds: the one reference of a `single`
/// valued property, or every entry of a collection, proxies included and unresolved, until
/// `visit` gives true. Raises `CannotCastIncompatibleTypes` for entries that are not elements.
template <class Visit> bool anyHeldElement(Value const &value, bool single, Visit &&visit) {
    if (single)
        return visit(value.getElement());
    if (!value.hasPayload())
        return false;
    if (ReferenceCollection const *const collection = managedReferenceCollection(value)) {
        // A sequence, the common collection of references, is read without a copy.
        if (ElementSequenceBase const *const sequence = asElementSequence(*collection)) {
            for (std::size_t i = 0; i < sequence->size(); ++i)
                if (visit(sequence->rawAt(i)))
                    return true;
            return false;
        }
        for (ModelElement const &entry : collection->getAllValuesAndProxies())
            if (visit(entry))
                return true;
        return false;
    }
    for (Value const &entry : value.extractEntryValues())
        if (visit(entry.getElement()))
            return true;
    return false;
}

} // namespace kivra::detail
