#pragma once
/// \file
/// The base of every collection that an element owns for one of its multi-valued
/// properties.

#include <kivra/ModelElement.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/meta/Handles.hpp>

#include <boost/core/noncopyable.hpp>

#include <cstddef>
#include <cstdint>
#include <new>

namespace kivra {

/// What a keyed insertion does when another element holds the key.
enum class CollisionResolution : std::uint32_t {
    Fail = 0,         ///< raise `UniquenessConstraint`
    KeepExisting = 1, ///< leave the entry as it is
    Replace = 2,      ///< the new element takes the entry's place
};

/// A collection that belongs to an element and serves one of its properties: every
/// change made through it is a change of that property, announced to the owner's model
/// before it happens. A collection built without owner (such as the copy a change record
/// keeps) is free-standing: it takes part in no transaction and no change tracking.
///
/// The owner is not counted: the element owns the collection and outlives it.
class AbstractOwnedCollection : private boost::noncopyable {
public:
    class Operation;

    virtual ~AbstractOwnedCollection();

    /// A collection made with `new` names its owner there, the same as to its constructor:
    /// one that belongs to an element lives in the memory of the element's model, beside
    /// the elements, and a free-standing one (`owner` null) on the heap.
    static void *operator new(std::size_t size, ModelElement::Impl *owner);
    static void *operator new(std::size_t size) = delete;
    static void operator delete(void *block, ModelElement::Impl *owner) noexcept;
    static void operator delete(AbstractOwnedCollection *collection, std::destroying_delete_t,
                                std::size_t size) noexcept;

    /// The declared type of an entry.
    virtual meta::Type getCollectionType() const = 0;
    virtual bool empty() const = 0;

    /// The owning element; empty for a free-standing collection.
    ModelElement getOwner() const;
    ModelElement::Impl *getOwnerImpl() const noexcept { return owner_; }
    /// The property served; may be empty.
    meta::Property const &getCollectionProperty() const noexcept { return property_; }

protected:
    // Keeps and puts back the contents of the collections of extensions.
    friend class ModelElement::Impl;
    AbstractOwnedCollection(ModelElement::Impl *owner, meta::Property::Impl *property);

    /// Takes over the contents of `other`, a collection of the same class, with no
    /// transaction, record or far end.
    virtual void copyContents(AbstractOwnedCollection const &other) = 0;
    /// Announces to the owner that the property is about to change, so that the
    /// transaction can copy the old contents once. Nothing for a free-standing collection.
    void modifying();

    ModelElement::Impl *owner_;
    meta::Property property_;
};

/// The transaction of one mutation of a collection: none when one is in progress on the
/// owner's model (or the collection has no owner), else a transaction of its own, so that
/// a mutation outside any transaction commits alone. Dropped without `commit`, its own
/// transaction rolls back.
class AbstractOwnedCollection::Operation {
public:
    explicit Operation(AbstractOwnedCollection const &collection);
    Operation(Operation const &) = delete;
    Operation &operator=(Operation const &) = delete;

    void commit() {
        if (transaction_)
            transaction_.commit();
    }

private:
    Transaction transaction_;
};

} // namespace kivra
