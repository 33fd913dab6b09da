#pragma once
/// \file
/// The base of every element implementation.

#include <kivra/ElementImpl.hpp>
#include <kivra/Handles.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/meta/Handles.hpp>

#include <boost/optional/optional_fwd.hpp>

#include <basalt/ustring.hpp>

#include <cstdint>
#include <vector>

namespace kivra {

class ProxyId;
class ReferenceCollection;

/// The base of every element: the link to its container, its model, and the protocols
/// by which it announces changes to its model and keeps both ends of its bidirectional
/// references consistent.
///
/// Subclasses hold the properties; each generated operation answers for its own class
/// and passes everything else up, ending here. An element is kept alive by the model
/// while top level, by its container while contained, and by any handle.
class ModelElement::Impl : public ElementImpl {
public:
    /// The access mode of reflective operations, told apart by identity: public callers
    /// pass `PUBLIC_ACCESS`, for which properties without a public accessor or mutator
    /// do not exist; library code passes one of the others.
    class ReflectionPrivateTag {
    public:
        static ReflectionPrivateTag const PUBLIC_ACCESS;
        static ReflectionPrivateTag const PRIVILEGED_ACCESS;
        static ReflectionPrivateTag const NO_PROXY_RESOLVE;
        static ReflectionPrivateTag const IN_MEMORY_ONLY;

        ReflectionPrivateTag(ReflectionPrivateTag const &) = delete;
        ReflectionPrivateTag &operator=(ReflectionPrivateTag const &) = delete;

        bool isPrivileged() const noexcept { return this != &PUBLIC_ACCESS; }
        /// False when proxies are to be returned as they are.
        bool resolveProxies() const noexcept { return this != &NO_PROXY_RESOLVE && this != &IN_MEMORY_ONLY; }

    private:
        ReflectionPrivateTag() = default;
    };

    class Changes;
    class Storage;

    /// Index that stands for no property: announcing it records nothing.
    static constexpr std::uint64_t noPropertyIndex = std::uint64_t(-1);

    ~Impl() override;

    /// Element objects live in the memory of their model: `new (model) X::Impl(model, uuid)`.
    /// Raises `CannotCreateWithoutModel` for an empty or destroyed model.
    static void *operator new(std::size_t size, Model const &model);
    static void operator delete(void *block, Model const &model) noexcept;
    static void operator delete(void *block, std::size_t size) noexcept;
    static void *operator new(std::size_t size) = delete;

    Model getModel() const override;
    /// The raw owning model; never null.
    Model::Impl *getModelImpl() const noexcept { return model_; }

    // --- Containment ----------------------------------------------------------------

    /// True when the element has no container.
    bool isTopLevel() const noexcept { return containmentFeature_ == nullptr; }
    bool isProxy() const noexcept { return (marks_ & ProxyMark) != 0; }
    /// True when `other` is not null and in the same model.
    bool isSameModel(Impl const *other) const noexcept { return other && other->model_ == model_; }
    /// The containing element, as a counted handle; null when top level or destroyed.
    ModelElement container() const;
    /// The containing element, raw; null when top level. A destroyed element keeps its
    /// link, for a roll-back to bring it back, but shows none: its container may be gone.
    Impl *containerImpl() const noexcept { return containmentFeature_ && validity_ != Invalid ? container_ : nullptr; }
    /// The container's composite property that holds this element; empty when top level.
    meta::Property containmentFeature() const;
    meta::Property::Impl *containmentFeatureImpl() const noexcept;
    /// This element's own property that points to its container (the opposite of the
    /// containment feature); empty when top level or when there is none.
    meta::Property containerFeature() const;

    // --- Reflective access ----------------------------------------------------------

    /// Whether the property has a value. Raises `NoSuchProperty` for a property this
    /// element does not have.
    virtual bool hasPropertyValue(meta::Property const &property, ReflectionPrivateTag const &tag) const;
    /// The property's value. Raises `NoSuchProperty` for a property this element does not
    /// have, or does not show under `tag`.
    virtual Value getPropertyValue(meta::Property const &property, ReflectionPrivateTag const &tag) const;
    /// Sets the property's value as its typed setter would. Raises `NoSuchProperty`,
    /// `CannotSetReadOnlyProperty`, or what the setter raises.
    virtual void setPropertyValue(meta::Property const &property, Value const &value, ReflectionPrivateTag const &tag);
    /// The property with that change-tracking index along the class chain; empty when none.
    virtual meta::Property getPropertyByIndex(std::uint64_t index) const;
    /// The element's identifying text, for classes that have one; empty otherwise.
    virtual basalt::ustring identifier() const;
    /// True for elements driven by the metamodel alone.
    virtual bool isReflective() const { return false; }

    // --- Proxies ------------------------------------------------------------------------

    /// The id a proxy stands for; none for a real element.
    boost::optional<ProxyId> getProxyId() const;
    /// How the element is named from elsewhere: a proxy's own id, or ("uuid", the UUID)
    /// with the model's URI unless `local`.
    ProxyId getPersistentProxyId(bool local) const;
    ProxyId _getPersistentProxyId() const;

    // --- Creation and change protocol -----------------------------------------------

    /// Announces a new element to its model: it becomes `Valid` and top level.
    void notifyCreated();
    /// Announces a change of the property at `index` before it happens. Index 0 and
    /// `noPropertyIndex` are no property; nothing is announced before the element is
    /// created, nor for a proxy.
    void notifyModifying(std::uint64_t index);
    /// Raises `CannotModifyProxy` for a proxy and `InvalidValue` for a destroyed element:
    /// the first step of every mutator.
    void checkModifiable() const {
        if ((marks_ & ProxyMark) || validity_ == Invalid) [[unlikely]]
            raiseNotModifiable();
    }
    /// The frame of one change made by a mutator: a level of the transaction in progress,
    /// or a transaction of its own when none is open. `commit` votes to finish; dropped
    /// without it, the frame votes for roll-back, as a dropped nested transaction does.
    class Modification {
    public:
        Modification(Modification const &) = delete;
        Modification &operator=(Modification const &) = delete;
        ~Modification() {
            if (level_)
                dropLevel();
        }
        void commit();

    private:
        friend class Impl;
        Modification(Impl &element, std::uint64_t index);
        void dropLevel() noexcept;

        /// The transaction in progress, on which this frame counts as one more party.
        TransactionImpl *level_ = nullptr;
        /// The frame's own transaction, when none was in progress.
        Transaction own_;
    };
    /// Opens the frame of one change of the property at `index` and announces it.
    Modification beginModification(std::uint64_t index) { return Modification(*this, index); }
    /// True when a change of this element may be stored with no frame: the transaction in
    /// progress keeps nothing of it (it records nothing, or it made the element here and
    /// has no old values to keep), the model takes changes, and another party holds the
    /// transaction open, so a level would only come and go. The level is counted as if it
    /// had.
    bool changesInPlace() noexcept;

    /// Stores the link to a container (or, with a null container, removes it) and keeps
    /// the model's top-level table in step. No far end, no guard. Raises `CannotChangeModel`
    /// for a container in another model.
    void basicSetContainer(Impl *container, meta::Property const &feature, std::uint64_t index);
    /// Takes the element out of its container, telling the container, in a transaction.
    void makeUncontained();
    /// Raises `CircularContainment` when `newContainer` is this element or lies in its subtree.
    void checkCircularContainment(ModelElement const &newContainer) const;
    /// Raises `CannotCreateCrossModelAssociation` (or `CircularContainment`) when this
    /// element may not refer to `target` through `property`.
    void checkCompatibleModel(Impl const *target, meta::Property const &property) const;

    // --- Association protocol: called by the far end --------------------------------

    /// Stores `other` on `property`, the end of this element's class whose opposite was
    /// changed, and goes no further. Raises `NoSuchProperty` for an unknown property.
    virtual void inverseAdd(ModelElement const &other, meta::Property const &property);
    /// Clears `other` from `property` and goes no further.
    virtual void inverseRemove(ModelElement const &other, meta::Property const &property);
    /// Whether `property` holds a proxy of `other`; the link to a container never does.
    virtual bool inverseContainsProxyTo(ModelElement const &other, meta::Property const &property) const;
    /// Stores `other` on `property` without touching the other end: how parsers and
    /// proxy conversion set an end.
    virtual void basicAssociate(ModelElement const &other, meta::Property const &property);

    /// Tells `target`, when it is a real element, to store this element on `property`
    /// (an end of `target`'s class). Without `force`, while the model is parsed, the far
    /// end of a many-valued, non-composite pair is left to the parser.
    void _inverseAddThis(Impl *target, meta::Property const &property, bool force);
    /// Tells `target`, when it is a real element, to forget this element on `property`.
    void _inverseRemoveThis(Impl *target, meta::Property const &property);
    bool _inverseContainsThis(Impl *target, meta::Property const &property);
    /// Makes `element` a child of this one on the composite `property`. The child records
    /// the change on its end of `property`, as when it is moved from that end.
    void _setContainedByThis(Impl *element, meta::Property const &property);
    /// Makes `element` top level again, with no call to the far end; the child records the
    /// change on its end of the composite that held it.
    void _basicSetUncontained(Impl *element);
    void _destroyRecursively(Impl *element, bool modelDestroying, bool multiModel);

    // --- The store-only level of collections: for the far end of an association -------

    static void _basicAdd(ReferenceCollection &collection, ModelElement const &element);
    static void _basicRemove(ReferenceCollection &collection, ModelElement const &element);
    static void _basicClear(ReferenceCollection &collection);
    static void _basicCopyValues(ReferenceCollection &collection, ReferenceCollection const &other);
    static bool _basicContainsProxyTo(ReferenceCollection &collection, ModelElement const &element);
    /// Fills a collection just made from the model's data source, when there is one.
    void _loadCollectionContents(ReferenceCollection &collection);
    static CollectionPrivateTag _privateTag() noexcept { return {}; }

    // --- Change records: called by the transaction ------------------------------------

    /// A new record of which properties change (shallow transactions). Owned by the caller.
    virtual Changes *createChanges() const = 0;
    /// A new record that also keeps old values (deep transactions). Owned by the caller.
    virtual Storage *createStorage() const = 0;
    /// Copies the present value of the property at `index` into `storage`. Raises
    /// `NoSuchProperty` for an index this element does not have.
    virtual void copyValue(Storage *storage, std::uint64_t index) const;
    /// Puts back every value whose bit is set in `storage`, with no far end and no notice.
    virtual void copyStateFromStorage(Storage *storage);

    // --- Destruction ------------------------------------------------------------------

    /// Destroys the element and its contained subtree in one transaction, and takes it
    /// out of its container and the far ends of its references. Harmless when destroyed.
    void destroy();
    /// Destroys the element and its subtree inside the caller's transaction.
    void destroyRecursively(bool modelDestroying, bool removeFromContainer, bool multiModel);

protected:
    friend class Model::Impl;
    friend class TransactionImpl;

    /// Starts `UnderConstruction`, top level, in memory that `model` gave.
    Impl(Model const &model, boost::uuids::uuid const &uuid);

    void invalidate() override;
    /// Gives up the identity of an element that lost a UUID clash, so that its end does
    /// not remove the winner from the model's tables.
    void clearUuid() noexcept { uuid_ = boost::uuids::uuid{}; }
    /// Roll-back brings a destroyed element back with its identity.
    void resurrect() noexcept { validity_ = Valid; }
    /// Makes a new, unannounced element the proxy of `proxyId`.
    void makeProxy(ProxyId const &proxyId);
    /// Drops what a destroyed element holds once no roll-back can need it.
    void releaseUnlessRestorable();

    /// Hook after the model has entered the new element.
    virtual void didCreate() {}
    /// Hook before anything of a destruction happens.
    virtual void aboutToDestroy() {}
    /// Tells the model; subclasses that override it end in this one.
    virtual void notifyDestroying();
    /// Clears every reference with an opposite, so that the far ends forget this element.
    virtual void disassociateIncoming() {}
    /// Destroys what the element contains; generated overrides end in this one.
    virtual void doDestroy(bool modelDestroying, bool multiModel) = 0;
    /// Lets go of references when the element's model goes away, so that counted handles
    /// among its elements do not keep one another alive; `proxyId` is this element's
    /// persistent id, made on first need.
    virtual void convertReferencesToProxies(bool multiModel, boost::optional<ProxyId> &proxyId);
    /// Drops references and containment with no call to the far ends: the roll-back's way
    /// to forget a created element, whose far ends are restored by their own records.
    virtual void basicDisassociateAll();
    /// Replaces `target` on `property` by a proxy of `proxyId`.
    virtual void convertToProxy(meta::Property const &property, ProxyId const &proxyId, ModelElement const &target);

    [[noreturn]] void raiseNotModifiable() const;
    /// Raises `NoSuchProperty` with the property's name and this element's class.
    [[noreturn]] void raiseNoSuchProperty(meta::Property const &property) const;

    /// The containing element; meaningful only while `containmentFeature_` is set.
    Impl *container_ = nullptr;
    /// The container's composite property (a `meta::Property` element) that holds this
    /// element; an element is contained exactly when this is set.
    Impl *containmentFeature_ = nullptr;
    Model::Impl *model_;
    /// The marks an element keeps in `marks_`.
    enum Marks : std::uint8_t {
        /// A proxy; its `ProxyId` is kept by the model, beside the element.
        ProxyMark = 1,
        /// The model holds a counted reference on the element: it is top level.
        HeldByModelMark = 2,
        /// The transaction in progress has a record of the element.
        RecordedMark = 4,
        /// ... made when it created the element.
        CreatedHereMark = 8,
        /// ... and it destroyed the element, which a roll-back can bring back.
        DestroyedHereMark = 16,
    };
};

/// The root of the builders that stage a new element's values before the element exists;
/// each generated class derives its own. `meta::MetaRegistry::instantiateBuilder` makes them.
class ModelElement::Builder {
public:
    virtual ~Builder() = default;
};

inline ModelElement::Impl *ModelElement::get() const noexcept { return static_cast<Impl *>(rawImpl()); }
inline ModelElement::ModelElement(Impl *impl, bool addReference) noexcept : HandleBase(impl, addReference) {}
inline ModelElement ModelElement::fromImpl(Impl *impl) noexcept { return ModelElement(impl, true); }
inline ModelElement::Impl *ModelElement::release() noexcept { return static_cast<Impl *>(releaseImpl()); }

} // namespace kivra
