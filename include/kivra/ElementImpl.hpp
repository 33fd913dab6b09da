#pragma once
/// \file
/// Identity and lifetime shared by elements, models and constellations.

#include <kivra/Fwd.hpp>
#include <kivra/meta/Fwd.hpp>

#include <boost/core/noncopyable.hpp>
#include <boost/uuid/uuid.hpp>

#include <atomic>
#include <cstdint>

namespace kivra {

/// The identity (a UUID), the intrusive reference count and the validity of everything
/// that lives in a model. Reached only through handles, which hold one counted reference
/// each; a destroyed object stays in memory as a tombstone while a handle names it.
class ElementImpl : private boost::noncopyable {
public:
    /// Life stage of the object; the sign carries meaning (a proxy is negative).
    enum ElementValidity : std::int8_t {
        Invalid = 0,           ///< destroyed or invalidated: a tombstone
        UnderConstruction = 1, ///< allocated by a builder, not yet announced to its model
        Valid = 2,             ///< announced element, live model or constellation
        Destroying = 3,        ///< a model inside its `destroy`
        Proxy = -1,            ///< a stand-in for an element of another model
    };

    /// Called with `(element, nullptr)` when an element is invalidated, and with
    /// `(nullptr, collection)` before a dynamically made collection is freed.
    using InvalidateCallback = void (*)(ElementImpl *, AbstractOwnedCollection *);

    virtual ~ElementImpl() = default;

    /// A fresh random (version 4) UUID from this thread's own generator; takes no lock.
    static boost::uuids::uuid generateNewUuid();

    /// Installs the process-wide invalidate callback. The first caller wins: later calls
    /// leave the first pointer in place.
    static void setInvalidateCallback(InvalidateCallback callback);

    boost::uuids::uuid const &getUuid() const noexcept { return uuid_; }
    /// True unless destroyed (a proxy is valid).
    bool isValid() const noexcept { return validity_ != Invalid; }
    /// True for announced, live objects; false for proxies and tombstones.
    bool isValidNonProxy() const noexcept { return validity_ > 0; }
    ElementValidity getValidity() const noexcept { return validity_; }

    /// The model this object belongs to: itself for a model, null for a constellation.
    virtual Model getModel() const = 0;
    /// The metaclass that describes this object.
    virtual meta::Class const &getMetaClass() const = 0;

    /// Takes one counted reference.
    void addRef() noexcept { refCount_.fetch_add(1); }
    /// As `addRef`, for an object that no other thread can reach yet because it is being
    /// made: a plain store, where `addRef` costs a locked instruction.
    void addRefWhileUnshared() noexcept {
        refCount_.store(refCount_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    /// Drops one counted reference; at zero the object is deleted, unless a subclass
    /// decides otherwise (models and constellations keep each other).
    virtual void removeRef();
    /// The number of counted references, for tests and diagnostics.
    std::uint32_t referenceCount() const noexcept { return refCount_.load(); }

protected:
    /// Stores `uuid`, or a fresh one when `uuid` is nil.
    ElementImpl(boost::uuids::uuid const &uuid, ElementValidity validity);

    /// Marks the object `Invalid` and tells the invalidate callback.
    virtual void invalidate();

    /// Makes later reference drops harmless while a destructor runs: counts go up and
    /// down from 0xDEAD and never reach zero again.
    void guardAgainstReentrantDeletion() noexcept { refCount_.store(0xDEAD); }
    /// Deletes the object once its last reference is gone, guarded as above.
    void deleteThis();

    static InvalidateCallback invalidateCallback() noexcept;

    boost::uuids::uuid uuid_;
    std::atomic<std::uint32_t> refCount_{0};
    ElementValidity validity_;
    /// Marks that subclasses keep in the padding after `validity_`, so that rare state
    /// costs an element no field of its own.
    std::uint8_t marks_ = 0;
};

/// The owner of transactions: a model, or the constellation of several models. A work
/// queue knows its owner only through this interface.
class TransactionCoordinator : public ElementImpl {
public:
    /// True when this coordinator runs the transactions of `model`.
    virtual bool isCoordinatorOf(Model const &model) const = 0;
    virtual bool isTransactionInProgress() const = 0;
    /// True while observers are told of the end of a transaction: queued work waits for
    /// the last of them.
    virtual bool isNotifying() const { return false; }

protected:
    TransactionCoordinator(boost::uuids::uuid const &uuid, ElementValidity validity) : ElementImpl(uuid, validity) {}
};

} // namespace kivra
