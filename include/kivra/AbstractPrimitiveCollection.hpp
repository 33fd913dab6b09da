#pragma once
/// \file
/// The base of the collections that hold plain values (numbers, texts, times, UUIDs, data
/// type objects) for a multi-valued property, and their untyped views.

#include <kivra/AbstractOwnedCollection.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kivra {

class Value;

/// The untyped view of a primitive collection beyond its adds and removes; ask the
/// collection's `getGenericInterface()` and cast to the derived view its kind offers.
class GenericPrimitiveInterface {
public:
    virtual ~GenericPrimitiveInterface();
};

/// The untyped view of an ordered primitive collection. Indices are checked: one outside
/// the sequence (for an insert: past its end) raises `InvalidValue`. A value of the wrong
/// type or shape raises `CannotCastIncompatibleTypes` with the name of the value's type.
class GenericPrimitiveSequenceInterface : public GenericPrimitiveInterface {
public:
    /// The entry at `index` as a single value.
    virtual Value genericAt(std::size_t index) const = 0;
    /// Inserts before `index`; a unique sequence ignores an entry it holds already.
    virtual void genericInsert(Value const &value, std::size_t index) = 0;
    /// Replaces the entry at `index`; a unique sequence ignores an entry it holds anywhere.
    virtual void genericReplace(Value const &value, std::size_t index) = 0;
    virtual void genericRemoveAt(std::size_t index) = 0;
    /// The index of the first equal entry, or -1.
    virtual std::int64_t genericIndexOf(Value const &value) const = 0;
};

/// The untyped view of a primitive collection whose entries are keyed by a text read from
/// each entry.
class GenericPrimitiveAssociativeInterface : public GenericPrimitiveInterface {
public:
    /// The entries under `key`, a `String` value, in order.
    virtual std::vector<Value> genericFind(Value const &key) const = 0;
    /// One `String` value per entry, in key order.
    virtual std::vector<Value> genericKeys() const = 0;
    /// The primitive type `String`.
    virtual meta::Type genericKeyType() const = 0;
};

/// A collection of plain values that an element owns for one multi-valued property. It has
/// no association, no proxies and no children: every mutation runs in the frame of one
/// change of the property (a transaction of its own when none is open) and is recorded
/// once per transaction, as a copy of the old contents. Reads take no frame.
///
/// Everything that reaches it untyped goes through `Value`: a written value must be a
/// single value of the entry type (for integer entries an enum value also does, its number
/// cut to the entry's width), else `CannotCastIncompatibleTypes` names the value's type.
///
/// Example:
/// \code
///   AbstractPrimitiveCollection &tags = ...; // from an element's reflective read
///   tags.genericAdd(Value(basalt::ustring(u"draft")));
///   for (Value const &tag : tags.getAllValues())
///       print(tag.get<basalt::ustring>());
/// \endcode
class AbstractPrimitiveCollection : public AbstractOwnedCollection {
public:
    /// What the collection is, which tells the view `getGenericInterface` gives.
    enum class Kind : std::uint32_t { Set = 0, Sequence = 1, Associative = 2 };

    ~AbstractPrimitiveCollection() override;

    virtual void clear() = 0;
    virtual std::uint64_t size() const = 0;
    /// A new vector with one single value per entry, in the container's order.
    virtual std::vector<Value> getAllValues() const = 0;
    /// Adds as the collection's kind adds: a unique sequence or a set keeps one of each
    /// entry, the map keeps the first entry of a key.
    virtual void genericAdd(Value const &value) = 0;
    /// Removes one equal entry; an absent one is no error.
    virtual void genericRemove(Value const &value) = 0;
    /// The view for indexed or keyed access; null for a set.
    virtual GenericPrimitiveInterface *getGenericInterface() const { return nullptr; }

    /// Replaces the contents by `values`, added in order, as one change: a failing value
    /// leaves the old contents when the change had a transaction of its own.
    void genericAssign(std::vector<Value> const &values);
    /// Puts back the contents a change record kept, `stored`, a collection of the same
    /// class; null stands for an empty one.
    void restoreFrom(AbstractPrimitiveCollection const *stored);

protected:
    AbstractPrimitiveCollection(ModelElement::Impl *owner, meta::Property::Impl *property)
        : AbstractOwnedCollection(owner, property) {}

    virtual Kind getKind() const = 0;
};

} // namespace kivra
