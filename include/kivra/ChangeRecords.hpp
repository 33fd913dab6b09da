#pragma once
/// \file
/// What a transaction records of each element it touches, and how it gives it back.

#include <kivra/ModelElement.hpp>
#include <kivra/meta/Handles.hpp>

#include <boost/container/small_vector.hpp>

#include <basalt/ustring.hpp>

#include <cstdint>
#include <memory>
#include <vector>

namespace kivra {
namespace detail {
struct ExtensionChanges;
} // namespace detail

namespace detail {
class RecordLog;
} // namespace detail

/// The record of one element in one transaction: a bit for the creation, one per
/// property index, one for the container and one for the destruction. Shared by the
/// transaction and the reports made from it; counted by `ChangesHolder`.
class ModelElement::Impl::Changes {
public:
    /// A record for the element `uuid` of class `metaClass` whose highest property
    /// index is `n`.
    Changes(boost::uuids::uuid const &uuid, Model::Impl *model, meta::Class const &metaClass, std::uint64_t n);
    virtual ~Changes();
    Changes(Changes const &) = delete;
    Changes &operator=(Changes const &) = delete;
    /// Records are made in the storage of the transaction that makes them, when one is in
    /// force on this thread, and freed with it.
    static void *operator new(std::size_t size);
    static void operator delete(void *pointer) noexcept;

    /// Marks the container as changed; true when it was marked already. A `Storage`
    /// keeps the first old container.
    virtual bool setOldContainer(ModelElement const &oldContainer, meta::Property const &oldFeature);
    /// Clears the bits of properties that are back to their old value; false when no bit
    /// is left. A record without old values keeps all its bits.
    virtual bool revertUnchanged(ModelElement::Impl *element);

    bool isCreated() const noexcept { return test(0); }
    void setCreated() noexcept { set(0); }
    bool isDestroyed() const noexcept { return test(bitCount_ - 1); }
    void setDestroyed() noexcept { set(bitCount_ - 1); }
    bool isContainerChanged() const noexcept { return test(bitCount_ - 2); }
    /// Whether the property at `index` changed; false outside the record's range.
    bool isChanged(std::uint64_t index) const noexcept { return index > 0 && index < bitCount_ - 2 && test(index); }
    /// Marks the property at `index`; true when it was marked already.
    bool setModified(std::uint64_t index) noexcept;
    void clearModified(std::uint64_t index) noexcept;
    /// Whether `property` changed: false for an invalid property or one that the record's
    /// class does not have.
    bool isChanged(meta::Property const &property) const;
    /// True when any bit is set.
    bool any() const noexcept;

    /// Marks the element's value of `extension` as changed; true when it was marked already.
    bool setModified(meta::Extension const &extension);
    /// Whether the value of the model's extension `name` on the record's class changed.
    bool isExtensionChanged(basalt::ustring const &name) const;
    /// The extensions whose values changed and that still exist, in no particular order.
    std::vector<meta::Extension> getChangedExtensions() const;
    /// The changed extensions with their old values (kept by a `Storage` only); null when none changed.
    detail::ExtensionChanges *extensionChanges() const noexcept { return extensions_.get(); }

    boost::uuids::uuid const &getUuid() const noexcept { return uuid_; }
    /// The element object this record is of; null for a record made outside a transaction.
    ModelElement const &getElement() const noexcept { return element_; }
    meta::Class const &getMetaClass() const;
    Model::Impl *getModel() const noexcept { return model_; }
    /// A record of the same element with no bits and no old values.
    Changes *createEmptyShallowCopy() const;

    void addRef() noexcept { ++refCount_; }
    void removeRef() noexcept {
        if (--refCount_ == 0)
            release();
    }

protected:
    std::uint64_t containerBit() const noexcept { return bitCount_ - 2; }
    bool test(std::uint64_t bit) const noexcept { return (bits_[bit / 32] >> (bit % 32)) & 1u; }
    void set(std::uint64_t bit) noexcept { bits_[bit / 32] |= 1u << (bit % 32); }
    void clear(std::uint64_t bit) noexcept { bits_[bit / 32] &= ~(1u << (bit % 32)); }

private:
    friend class TransactionImpl;
    friend class detail::RecordLog;
    /// Frees a record, in its transaction's storage or on the heap.
    void release() noexcept;
    boost::uuids::uuid uuid_;
    Model::Impl *model_;
    ModelElement element_;
    // Two blocks cover classes of up to 61 properties without an allocation.
    boost::container::small_vector<std::uint32_t, 2> bits_;
    std::uint64_t bitCount_;
    std::unique_ptr<detail::ExtensionChanges> extensions_;
    std::uint32_t refCount_ = 0;
    bool inArena_;
};

/// A record that also keeps the old value of each property the first time it changes,
/// so that a roll-back can put it back. Generated classes derive one storage each, with
/// one shadow member per member of their `Impl`.
class ModelElement::Impl::Storage : public Changes {
public:
    using Changes::Changes;

    bool setOldContainer(ModelElement const &oldContainer, meta::Property const &oldFeature) override;
    bool revertUnchanged(ModelElement::Impl *element) override;
    /// The value before the transaction of a property whose bit is set. Raises
    /// `NoSuchProperty` for a property that this record does not keep.
    virtual Value getOldValue(meta::Property const &property, ReflectionPrivateTag const &tag) const;
    /// The value before the transaction of the model's extension `name`: a copy of a single
    /// value, or a view of the kept collection. Raises `NoSuchProperty` for an extension
    /// that is unknown or did not change.
    Value getExtensionOldValue(basalt::ustring const &name) const;

    ModelElement const &getOldContainer() const noexcept { return oldContainer_; }
    meta::Property const &getOldContainmentFeature() const noexcept { return oldContainmentFeature_; }
    /// The old value of the element's end of the composite `feature`: the old container
    /// when it held the element by `feature`, else none.
    ModelElement getOldContainerBy(meta::Property const &feature) const {
        return !feature || oldContainmentFeature_.get() == feature.get() ? oldContainer_ : ModelElement();
    }

private:
    ModelElement oldContainer_;
    meta::Property oldContainmentFeature_;
};

/// A counted pointer to a change record.
class ChangesHolder {
public:
    explicit ChangesHolder(ModelElement::Impl::Changes *changes) noexcept : changes_(changes) { changes_->addRef(); }
    ChangesHolder(ChangesHolder const &other) noexcept : changes_(other.changes_) { changes_->addRef(); }
    ChangesHolder &operator=(ChangesHolder const &other) noexcept {
        other.changes_->addRef();
        changes_->removeRef();
        changes_ = other.changes_;
        return *this;
    }
    ~ChangesHolder() { changes_->removeRef(); }

    ModelElement::Impl::Changes *get() const noexcept { return changes_; }
    ModelElement::Impl::Changes *operator->() const noexcept { return changes_; }

private:
    ModelElement::Impl::Changes *changes_;
};

} // namespace kivra
