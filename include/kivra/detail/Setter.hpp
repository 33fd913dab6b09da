#pragma once
/// \file
/// Not API: the frame of generated typed setters, shared by all of them.

#include <kivra/ModelElement.hpp>

#include <cstdint>

namespace kivra::detail {

/// Sets one plain member of an element with the setter frame: proxy test, compare and
/// return when equal (no transaction, no record), open a transaction, announce, store,
/// commit. An exception leaves through the transaction, which then votes to roll back.
template <class T, class U>
void setMember(ModelElement::Impl &element, T &member, U const &value, std::uint64_t index) {
    element.checkModifiable();
    if (member == value)
        return;
    Transaction transaction = element.beginModification(index);
    member = value;
    transaction.commit();
}

} // namespace kivra::detail
