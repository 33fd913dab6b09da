#pragma once
/// \file
/// The base of every element implementation.

#include <kivra/ElementImpl.hpp>
#include <kivra/Handles.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/meta/Handles.hpp>

#include <boost/optional/optional_fwd.hpp>

#include <basalt/ustring.hpp>

#include <boost/uuid/uuid.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
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
    bool isTopLevel() const noexcept { return containment_ == 0; }
    bool isProxy() const noexcept { return (marks_ & ProxyMark) != 0; }
    /// True while the transaction that created the element runs: its roll-back would take
    /// the element away again.
    bool isNewInTransaction() const noexcept { return (marks_ & CreatedHereMark) != 0; }
    /// True while the transaction that destroyed the element runs: its roll-back would
    /// bring the element back.
    bool isDestroyedInTransaction() const noexcept { return (marks_ & DestroyedHereMark) != 0; }
    /// True when `other` is not null and in the same model.
    bool isSameModel(Impl const *other) const noexcept { return other && other->model_ == model_; }
    /// The containing element, as a counted handle; null when top level or destroyed.
    ModelElement container() const;
    /// The containing element, raw; null when top level. A destroyed element keeps its
    /// link, for a roll-back to bring it back, but shows none: its container may be gone.
    Impl *containerImpl() const noexcept { return containment_ != 0 && validity_ != Invalid ? container_ : nullptr; }
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
    /// Where a privileged read of the single-valued primitive or enum `property` would find
    /// its value in place, as the type's native value (an enum's as `std::int32_t`); for a
    /// many-valued property of elements, its collection as a `ReferenceCollection`, once
    /// made. Null when the value is to be read through `getPropertyValue`.
    virtual void const *nativeValueAddress(meta::Property::Impl const &property) const noexcept;
    /// The property with that change-tracking index along the class chain; empty when none.
    virtual meta::Property getPropertyByIndex(std::uint64_t index) const;
    /// The same, raw: the class keeps the property, and no count is taken, so that readers
    /// on several threads do not meet on the property's count.
    virtual meta::Property::Impl *propertyImplByIndex(std::uint64_t index) const;
    /// The element's identifying text, for classes that have one; empty otherwise.
    virtual basalt::ustring identifier() const;
    /// True for elements driven by the metamodel alone.
    virtual bool isReflective() const { return false; }

    // --- Extensions ---------------------------------------------------------------------

    /// The value of the extension `name` that the model declared for this element's class:
    /// the element's own value, the default, or a view of the element's collection, which
    /// the first read makes. Raises `NoSuchExtension`.
    Value getExtension(basalt::ustring const &name);
    /// Sets a single-valued extension; a value equal to the default is not stored. Raises
    /// `NoSuchExtension` for an unknown name or a collection extension, and what
    /// `Value::checkCompatibleWithProperty` raises.
    void setExtension(basalt::ustring const &name, Value const &value);
    /// As above, for an extension already found.
    void setExtension(meta::Extension const &extension, Value const &value);
    /// True when the element holds a value of the extension other than its default: a
    /// single value that was set, or a collection with entries.
    bool hasNonDefaultExtension(basalt::ustring const &name) const;

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
    /// created, nor for a proxy. `scalar` is as for `beginModification`.
    void notifyModifying(std::uint64_t index, void const *scalar = nullptr, std::size_t size = 0);
    /// Announces a change of the element's value of `extension`.
    void notifyModifying(meta::Extension const &extension);
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
        Modification(Impl &element, std::uint64_t index, void const *scalar, std::size_t size);
        void dropLevel() noexcept;

        /// The transaction in progress, on which this frame counts as one more party.
        TransactionImpl *level_ = nullptr;
        /// The frame's own transaction, when none was in progress.
        Transaction own_;
    };
    /// Opens the frame of one change of the property at `index` and announces it. `scalar`,
    /// when given, is the trivially copyable member of `size` bytes (at most 8) that the
    /// change overwrites, and all it changes: a revertible transaction then keeps those
    /// bytes rather than a record of the whole element.
    Modification beginModification(std::uint64_t index, void const *scalar = nullptr, std::size_t size = 0) {
        return Modification(*this, index, scalar, size);
    }
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
    void checkCircularContainment(Impl const *newContainer) const;
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
    /// For a composite collection of this element that appends `child` on `property` (with
    /// no opposite): when the model's transaction keeps and tells nothing, and `child` is a
    /// live top-level element of this model that cannot contain this one, makes `child`
    /// this element's at once and returns it with the model's reference, which the caller
    /// now owns. Else null, with nothing changed: the caller takes the general path.
    Impl *_adoptQuietly(Impl *child, meta::Property::Impl *property);
    /// True when the model's transaction would keep and tell nothing of a change of this
    /// element, which is live: a collection may then change without announcing it.
    bool _changesQuietly() const noexcept;
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
    /// Copies the present value of `extension` into `storage`, once.
    void copyExtensionValue(Storage *storage, meta::Extension const &extension) const;

    // --- Destruction ------------------------------------------------------------------

    /// Destroys the element and its contained subtree in one transaction, and takes it
    /// out of its container and the far ends of its references. Harmless when destroyed.
    void destroy();
    /// Destroys the element and its subtree inside the caller's transaction.
    void destroyRecursively(bool modelDestroying, bool removeFromContainer, bool multiModel);

protected:
    friend class Model::Impl;
    friend class TransactionImpl;
    friend class Builder;

    /// Starts `UnderConstruction`, top level, in memory that `model` gave.
    Impl(Model const &model, boost::uuids::uuid const &uuid);
    /// The same for `builder`'s model: the form of generated constructors that take their
    /// values from a builder.
    Impl(Builder &builder, boost::uuids::uuid const &uuid);

    void invalidate() override;
    /// Gives up the identity of an element that lost a UUID clash, so that its end does
    /// not remove the winner from the model's tables.
    void clearUuid() noexcept { uuid_ = boost::uuids::uuid{}; }
    /// Roll-back brings a destroyed element back with its identity.
    void resurrect() noexcept { validity_ = Valid; }
    /// Makes a new, unannounced element the proxy of `proxyId`.
    void makeProxy(ProxyId const &proxyId);
    /// Puts back the extension values that `storage` kept (roll-back only).
    void restoreExtensions(Storage *storage);
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

    /// Holds this element in `container_` as `property`, which must be non-empty.
    void setContainment(Impl *container, meta::Property::Impl *property);
    /// Makes the element top level, as far as its own links go.
    void clearContainment() noexcept;

    /// How the container holds this element, in the spare bytes after the identity: 0
    /// when top level, else the index of the container's composite property, which the
    /// container's class maps back to the property; `wideContainment` when that index
    /// does not fit or does not map back, and a side table keeps the property.
    std::uint16_t containment_ = 0;
    static constexpr std::uint16_t wideContainment = 0xFFFF;
    /// The containing element; meaningful only while `containment_` is set.
    Impl *container_ = nullptr;
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
        /// The UUID was drawn at random for this element, which its model has not entered
        /// yet: no other element can hold it.
        FreshUuidMark = 32,
        /// The element came over from another model, whose memory it still lives in: it
        /// holds the model it names as well, so that as a tombstone it still finds that
        /// model's shell.
        MovedMark = 64,
    };
};

/// The root of the builders that stage a new element's values before the element exists,
/// with one is-set bit per property index; each generated class derives its own, and
/// `meta::MetaRegistry::instantiateBuilder` makes them for a class known by its handle.
/// `create` makes the element, and the elements of the child builders handed to it, in one
/// revertible transaction: a failure anywhere leaves nothing behind. The staged values stay
/// in the builder after a creation. A builder belongs to one thread.
///
/// Example:
/// \code
///   Book book = Book::Builder(model).setTitle(u"Dune").setPages(412).createBook();
/// \endcode
class ModelElement::Builder {
public:
    class Orchestrator;
    class Level;

    Builder(Builder const &) = delete;
    Builder &operator=(Builder const &) = delete;
    virtual ~Builder();

    /// The class of the elements this builder makes.
    virtual meta::Class const &getMetaClass() const = 0;
    /// Stages `child` on the composite `property`. Raises `NoSuchProperty` (property name,
    /// class's qualified name) for a property of another class, a property that is not
    /// composite, a child of the wrong class or a null child; nothing is staged then.
    virtual void setOrAdd(meta::Property const &property, std::unique_ptr<Builder> child);
    /// Stages `value` on `property` as the typed setter would take it: a single value is
    /// cast, an empty optional clears, an element is added to a collection. Raises
    /// `NoSuchProperty` as above, or what the cast raises.
    virtual void setOrAdd(meta::Property const &property, Value const &value);

    /// A new element of the staged values; a nil `uuid` draws a fresh one. Raises
    /// `NoSuchOperation` for an abstract class, `CannotCreateWithoutModel` without a
    /// model, `ModelFrozen` in a frozen model, and whatever a child's creation raises.
    ModelElement create(boost::uuids::uuid const &uuid = {});
    /// A proxy named by `proxyId`, outside the model's tables; child builders are ignored.
    ModelElement createProxy(ProxyId const &proxyId);

    Model const &getModel() const noexcept { return model_; }
    void setModel(Model const &model);
    /// True when the property of that index has a staged value.
    bool isSet(std::uint64_t index) const noexcept {
        return index < bitCount_ && (bits()[index / 32] >> (index % 32) & 1u) != 0;
    }
    /// Enters `builder` into the creation that runs now, if there is one and the builder
    /// is not yet part of it.
    void addBuilder(Builder *builder);

    /// Sets or clears the is-set bit of `index`; for the generated levels.
    void markSet(std::uint64_t index) noexcept;
    void clearSet(std::uint64_t index) noexcept;

protected:
    /// `bitCount` is the class's number of indexed properties plus one.
    Builder(Model const &model, std::size_t bitCount);

    /// Makes the element: `createX(noCascade, uuid)` of the generated builder.
    virtual ModelElement doCreate(bool noCascade, boost::uuids::uuid const &uuid) = 0;

    /// Makes one element of `construct` (a placement-new of the class's `Impl` from this
    /// builder) and, unless `noCascade`, announces it, sets its staged references and makes
    /// its staged children, inside the running creation or one of its own. A builder met
    /// twice in one creation gives its first element.
    using Construct = Impl *(*)(Builder &builder, boost::uuids::uuid const &uuid);
    ModelElement runCreation(bool noCascade, boost::uuids::uuid const &uuid, Construct construct);

    /// The most derived level of staged values, set by the generated builder.
    Level *top_ = nullptr;

private:
    friend class Impl;
    std::uint32_t const *bits() const noexcept { return bitCount_ <= 64 ? inlineBits_ : heapBits_; }
    std::uint32_t *bits() noexcept { return bitCount_ <= 64 ? inlineBits_ : heapBits_; }
    ModelElement build(bool noCascade, boost::uuids::uuid const &uuid, Construct construct);

    Model model_;
    /// The is-set bits in blocks of 32, inline up to 64 bits: no allocation for any class
    /// of kivra's own metamodel.
    union {
        std::uint32_t inlineBits_[2];
        std::uint32_t *heapBits_;
    };
    std::size_t bitCount_;
    /// The creation in progress that this builder is part of; null otherwise.
    Orchestrator *orchestrator_ = nullptr;
};

/// Owns a builder known only by its base, as the registry hands it out.
class ModelElement::BuilderWrapper {
public:
    BuilderWrapper() noexcept = default;
    explicit BuilderWrapper(std::unique_ptr<Builder> builder) noexcept : builder_(std::move(builder)) {}

    Builder *operator->() const noexcept { return builder_.get(); }
    /// Null when the wrapper holds no builder.
    Builder *get() const noexcept { return builder_.get(); }
    explicit operator bool() const noexcept { return builder_ != nullptr; }

protected:
    /// Takes `builder` when it makes elements of `cls` or of a subclass; raises
    /// `CannotCastIncompatibleTypes` otherwise.
    BuilderWrapper(std::unique_ptr<Builder> builder, meta::Class const &cls);

private:
    std::unique_ptr<Builder> builder_;
};

/// One class's level of staged values in a builder: the generated `X::Impl::BuilderImpl`
/// derive from it. Each level answers for its own properties and passes the rest up.
class ModelElement::Builder::Level {
public:
    /// The index of `property` when this level staged `value` on it; `notOwn` otherwise.
    virtual std::uint64_t doSetOrAdd(meta::Property const &property, Value const &value);
    /// The index of `property` when this level took `child` (left null then); `notOwn`
    /// otherwise, with `child` untouched.
    virtual std::uint64_t doSetOrAdd(meta::Property const &property, std::unique_ptr<Builder> &child);

    static constexpr std::uint64_t notOwn = std::uint64_t(-1);
    /// The builder that holds the level, and so the is-set bits.
    Builder &root() const noexcept { return *root_; }

protected:
    Level(Builder &root, Level *up) noexcept : root_(&root), up_(up) {}
    Level(Level const &) = delete;
    Level &operator=(Level const &) = delete;
    ~Level() = default;

    /// Sets the staged references of the new element through its typed setters.
    virtual void applyReferences(Impl &element);
    /// Makes the staged children and adds them to the new element.
    virtual void cascadeCreation(Impl &element);
    /// Creates `child` in the running creation and gives its element.
    ModelElement createChild(Builder &child);
    /// True when `child`'s class is the property's type or a subclass of it.
    static bool fits(Builder const &child, meta::Property const &property);
    /// Adds a new element to one of its collections through the collection's own add.
    static void addTo(ReferenceCollection &collection, ModelElement const &entry);
    /// The superclass's level; null at the top of the chain.
    Level *upLevel() const noexcept { return up_; }

private:
    friend class Builder;
    Builder *root_;
    /// The superclass's level; null at the top of the chain.
    Level *up_;
};

/// The state of one creation, which may span a tree of builders: it owns the one
/// revertible transaction of the creation and remembers which element each builder made.
/// Dropped without `commit`, it votes for roll-back, so that nothing of the tree stays.
class ModelElement::Builder::Orchestrator {
public:
    /// Begins a revertible transaction on `root`'s model and enters `root`. Raises
    /// `CannotCreateWithoutModel` without a model and `ModelFrozen` in a frozen one.
    explicit Orchestrator(Builder *root);
    Orchestrator(Orchestrator const &) = delete;
    Orchestrator &operator=(Orchestrator const &) = delete;
    ~Orchestrator();

    /// Enters `builder` with no element yet; a builder already in a creation is left alone.
    void addBuilder(Builder *builder);
    void removeBuilder(Builder *builder);
    void registerCreatedElement(Builder *builder, ModelElement const &element);
    /// The element made for `builder` in this creation; null when none yet.
    ModelElement getCreatedElement(Builder *builder) const;
    /// Commits the transaction and lets go of every builder.
    void commit();

private:
    struct PointerHash {
        std::size_t operator()(Builder *builder) const noexcept;
    };
    void release() noexcept;

    Transaction transaction_;
    /// The builders entered besides the root, with their elements once made.
    std::unordered_map<Builder *, ModelElement, PointerHash> created_;
    /// The builder that started the creation, and its element once made.
    Builder *root_;
    ModelElement rootElement_;
};

inline ModelElement::Impl *ModelElement::get() const noexcept { return static_cast<Impl *>(rawImpl()); }
inline ModelElement::ModelElement(Impl *impl, bool addReference) noexcept : HandleBase(impl, addReference) {}
inline ModelElement ModelElement::fromImpl(Impl *impl) noexcept { return ModelElement(impl, true); }
inline ModelElement::Impl *ModelElement::release() noexcept { return static_cast<Impl *>(releaseImpl()); }

} // namespace kivra
