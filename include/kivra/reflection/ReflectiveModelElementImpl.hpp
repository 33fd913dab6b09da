#pragma once
/// \file
/// Elements of classes for which no code was generated.

#include <kivra/ChangeRecords.hpp>
#include <kivra/ModelElement.hpp>
#include <kivra/meta/Handles.hpp>

#include <boost/uuid/uuid.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace kivra {
class AbstractPrimitiveCollection;
class ReferenceCollection;
class StringToStringMap;
class Value;
} // namespace kivra

namespace kivra::reflection {

namespace detail {
class ClassLayout;
struct PropertySlot;
} // namespace detail

/// The element of a class known only from its description: it holds one slot per
/// property of the class and of its superclasses and does, from the description alone,
/// what a generated element does by hand: typed reads and writes through `Value`, both
/// ends of associations and containment, change records and roll-back, destruction.
///
/// Elements are made through `meta::Class::instantiate`, a builder from
/// `instantiateBuilder`, or `ModelElement::createReflective`; a model holds either
/// reflective elements or generated ones, never both.
class ReflectiveModelElementImpl : public ModelElement::Impl {
public:
    class ReflectiveStorage;

    /// Builds the slots of every property along `cls`'s class chain, each at its default.
    /// Raises `CannotUsePropertyWithoutType` for a property without type and
    /// `UnsupportedQualification` for a key type that no map can hold.
    ReflectiveModelElementImpl(Model const &model, meta::Class const &cls, boost::uuids::uuid const &uuid);
    ~ReflectiveModelElementImpl() override;

    meta::Class const &getMetaClass() const override { return metaClass_; }
    bool isReflective() const override { return true; }

    bool hasPropertyValue(meta::Property const &property, ReflectionPrivateTag const &tag) const override;
    /// A copy of a plain value, the element of a reference, or a view of a collection.
    /// No proxy is resolved under any tag.
    Value getPropertyValue(meta::Property const &property, ReflectionPrivateTag const &tag) const override;
    /// Sets a single-valued property. Raises `NoSuchProperty` for a to-many, read-only or
    /// hidden property, `CannotCastIncompatibleTypes` for a value of another type,
    /// `CannotSetReadOnlyProperty` for a set-once property that has a value, and
    /// `UniquenessConstraint` for a key that a map holding this element has taken.
    void setPropertyValue(meta::Property const &property, Value const &value, ReflectionPrivateTag const &tag) override;
    meta::Property getPropertyByIndex(std::uint64_t index) const override;
    meta::Property::Impl *propertyImplByIndex(std::uint64_t index) const override;

    void inverseAdd(ModelElement const &other, meta::Property const &property) override;
    void inverseRemove(ModelElement const &other, meta::Property const &property) override;
    void basicAssociate(ModelElement const &other, meta::Property const &property) override;

    Changes *createChanges() const override;
    Storage *createStorage() const override;
    void copyValue(Storage *storage, std::uint64_t index) const override;
    void copyStateFromStorage(Storage *storage) override;

    /// A new element collection for the to-many, element-typed `property`, owned by this
    /// element when `withOwner`, else free-standing; `hashed` picks the hashed key forms.
    std::unique_ptr<ReferenceCollection> instantiateCollection(meta::Property const &property, bool withOwner,
                                                               bool hashed) const;
    /// A new collection for the to-many `property` of another type, owned by this element
    /// when `withOwner`. Raises `CannotInstantiateCollection` when its type makes none.
    std::unique_ptr<AbstractPrimitiveCollection> instantiatePrimitiveCollection(meta::Property const &property,
                                                                                bool withOwner) const;

    /// A proxy of an element of `cls`, named by `proxyId`.
    static ModelElement createProxy(Model const &model, meta::Class const &cls, ProxyId const &proxyId);

    /// Raises `UniquenessConstraint` when `owner`'s unique map `collectionProperty`
    /// already holds an element under `key`.
    static void checkUniqueness(ModelElement const &owner, meta::Property const &collectionProperty, Value const &key);
    /// The key under which maps hold an element value: its UUID (nil for an empty handle);
    /// any other value as it is.
    static Value unwrapKey(Value const &value);

protected:
    void doDestroy(bool modelDestroying, bool multiModel) override;
    void disassociateIncoming() override;
    void basicDisassociateAll() override;
    void convertReferencesToProxies(bool multiModel, boost::optional<ProxyId> &proxyId) override;
    void convertToProxy(meta::Property const &, ProxyId const &, ModelElement const &) override {}

private:
    friend class ReflectiveBuilder;
    /// Raises `CannotCastIncompatibleTypes` unless `value` fits the single-valued, plain
    /// `property`: its very type, and content when the property is required.
    static void checkPlainValue(meta::Property const &property, Value const &value);
    /// Raises `InvalidValue` for a destroyed child, or a container that is destroyed or a
    /// proxy, and `CannotChangeModel` for either in another model; else the model rules
    /// of `checkCompatibleModel`.
    void checkElementValue(detail::PropertySlot const &slot, ModelElement const &element) const;
    /// Stores a checked value into a new element, before it is announced.
    void takeStagedValue(meta::Property const &property, Value const &value);
    /// Destroys the first `count` slots of the layout, releasing the owned values.
    void destroySlots(std::size_t count) noexcept;
    void *slot(std::uint32_t offset) const noexcept { return slots_.get() + offset; }
    ReferenceCollection &referenceCollection(meta::Property::Impl const *property, std::uint32_t offset) const;
    AbstractPrimitiveCollection &primitiveCollection(meta::Property::Impl const *property, std::uint32_t offset) const;
    StringToStringMap &stringMap(meta::Property::Impl const *property, std::uint32_t offset) const;
    bool isHeldHereBy(ModelElement::Impl const &child, meta::Property const &feature) const;
    void storeReference(meta::Property const &property, std::uint32_t offset, ModelElement const &element);

    meta::Class metaClass_;
    detail::ClassLayout const *layout_;
    /// Every slot of the element in one block, laid out once per class.
    std::unique_ptr<std::byte[]> slots_;
};

/// The old values of a reflective element in a deep transaction, by property.
class ReflectiveModelElementImpl::ReflectiveStorage : public ModelElement::Impl::Storage {
public:
    ReflectiveStorage(boost::uuids::uuid const &uuid, Model::Impl *model, meta::Class const &cls, std::uint64_t n);
    ~ReflectiveStorage() override;
    Value getOldValue(meta::Property const &property, ReflectionPrivateTag const &tag) const override;

private:
    friend class ReflectiveModelElementImpl;
    struct Kept;
    std::unique_ptr<Kept> kept_;
};

} // namespace kivra::reflection
