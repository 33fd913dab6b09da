#pragma once
/// \file
/// The model: a container of elements with one identity, one URI, one current
/// transaction and one table of all its elements.

#include <kivra/ElementImpl.hpp>
#include <kivra/Handles.hpp>
#include <kivra/Transaction.hpp>
#include <kivra/WorkQueue.hpp>
#include <kivra/log/Span.hpp>
#include <kivra/meta/Handles.hpp>
#include <kivra/services/Hashers.hpp>

#include <basalt/ustring.hpp>

#include <boost/optional/optional.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kivra {
namespace detail {
class ElementPool;
struct ElementTable;
class ElementTableAccess;
class ModelMemory;
struct ModelExtensions;
} // namespace detail

/// Whether a model holds generated (reified) elements or reflective ones; never both.
enum class ModelContent : std::uint32_t {
    Undetermined = 0,       ///< nothing created yet, nothing declared
    InferredReified = 1,    ///< the first element was reified
    InferredReflective = 2, ///< the first element was reflective
    DeclaredReified = 3,    ///< fixed by the `ModelSpec` for the model's life
    DeclaredReflective = 4, ///< fixed by the `ModelSpec` for the model's life
};

/// Where `findElement` may look.
enum class FindElementBehavior : std::uint32_t {
    InMemoryOnly = 0,       ///< the element table only
    LoadFromDataSource = 1, ///< also the attached data source, on a miss
};

/// The settings of a new model, with fluent setters.
///
/// Example:
/// \code
///   Model model = Model::create(ModelSpec().setModelReified().setLoggingDomain("library"));
/// \endcode
class ModelSpec {
public:
    /// The model's UUID; unset, a fresh one is drawn.
    ModelSpec &setUuid(boost::uuids::uuid const &uuid) { uuid_ = uuid; return *this; }
    /// The constellation to join; unset, `Model::create` makes a new one.
    ModelSpec &setConstellation(ModelConstellation const &constellation);
    /// The factory of the model's work queue; unset, the default queue.
    ModelSpec &setWorkQueueFactory(WorkQueueFactory factory) { workQueueFactory_ = std::move(factory); return *this; }
    /// The domain of the model's logger; unset, empty.
    ModelSpec &setLoggingDomain(std::string domain) { loggingDomain_ = std::move(domain); return *this; }
    /// Declares that the model holds generated elements only.
    ModelSpec &setModelReified() { content_ = ModelContent::DeclaredReified; return *this; }
    /// Declares that the model holds reflective elements only.
    ModelSpec &setModelReflective() { content_ = ModelContent::DeclaredReflective; return *this; }

    boost::uuids::uuid getUuid() const { return uuid_.value_or(boost::uuids::uuid{}); }
    ModelConstellation const &getConstellation() const { return constellation_; }
    WorkQueueFactory const &getWorkQueueFactory() const { return workQueueFactory_; }
    std::string getLoggingDomain() const { return loggingDomain_.value_or(std::string()); }
    ModelContent getModelContent() const { return content_.value_or(ModelContent::Undetermined); }

private:
    boost::optional<boost::uuids::uuid> uuid_;
    ModelConstellation constellation_;
    WorkQueueFactory workQueueFactory_;
    boost::optional<std::string> loggingDomain_;
    boost::optional<ModelContent> content_;
};

/// The implementation of a model; all model operations are its members, reached through
/// `Model::operator->`.
///
/// There are three kinds of model, told by their state: a constellation model belongs to
/// a `ModelConstellation` and may refer to its other models through proxies; a transient
/// model stands alone with an empty URI; a registry model stands alone with a fixed URI.
///
/// A model keeps its top-level elements alive; contained elements are kept by their
/// containers. It is used by one thread at a time; a frozen one may be read from several
/// at once, and its readers then store nothing, not even a proxy they resolve.
///
/// When the last handle goes, the model is destroyed; its object stays in memory as an
/// inert, invalid shell while an element object or a report still names it, so that a
/// tombstone can always ask for its model (and gets a handle that converts to false).
class Model::Impl final : public TransactionCoordinator {
public:
    ~Impl() override;

    Model getModel() const override;
    meta::Class const &getMetaClass() const override;
    void removeRef() override;

    /// Keeps the object in memory, not alive: taken by every element object and report.
    void hold() noexcept { holds_.fetch_add(1, std::memory_order_relaxed); }
    /// As `hold`, on the thread that writes the model (`isWriterThread`), which counts its
    /// holds without a locked instruction: they join the others when the model retires.
    void holdAsWriter() noexcept { ++writerHolds_; }
    /// Drops a hold; the last one frees the shell of a destroyed model.
    void releaseHold() noexcept { releaseHolds(1); }
    /// Drops `count` holds at once.
    void releaseHolds(std::uint64_t count) noexcept {
        if (count != 0 && holds_.fetch_sub(count, std::memory_order_acq_rel) == count)
            delete this;
    }

    // --- Queries ---------------------------------------------------------------------

    std::u16string const &getModelURI() const noexcept { return modelURI_; }
    /// The URI in location form, the constellation's key.
    std::u16string const &getLocationURI() const noexcept { return locationURI_; }
    ModelConstellation getModelConstellation() const;
    ModelContent getModelContent() const;
    /// The packages whose classes the model's elements are instances of.
    std::vector<meta::Package> getUsedPackages() const;
    std::vector<std::u16string> getUsedPackageUris() const;
    /// Replaces the account of what the model uses; the registry model keeps one of its
    /// own, since its content is the metamodel itself.
    void setUsageProvider(std::unique_ptr<meta::DataModelUsageProvider> provider);
    /// The URIs of the used packages and of the packages they import, and so on.
    std::set<std::u16string> getDescriptivePackageURIClosure() const;
    std::uint64_t serialNumber() const noexcept { return serialNumber_; }

    /// True when the model has no top-level element.
    bool empty() const noexcept { return topLevelCount_ == 0; }
    bool isCoordinatorOf(Model const &model) const override { return model.get() == this; }
    bool isTransactionInProgress() const override { return currentTransaction_ != nullptr; }
    bool isNotifying() const override { return !notifying_.empty(); }
    bool isRegistryModel() const noexcept { return !constellation_ && !modelURI_.empty(); }
    bool isTransientModel() const noexcept { return !constellation_ && modelURI_.empty(); }
    bool isModelDestroying() const noexcept { return validity_ == Destroying; }
    /// True when the model shares its constellation with other models.
    bool isInMultiModelConstellation() const noexcept;
    bool isFrozen() const noexcept { return freezeCount_ > 0; }
    bool isFrozenOnNotify() const noexcept { return freezeOnNotify_; }
    bool isParsingInProgress() const noexcept { return parseCount_ > 0; }
    bool isDataSourceLoadingInProgress() const noexcept { return dataSourceLoadingCount_ > 0; }
    bool isDetectAndRevertUnchangedProperties() const noexcept { return detectAndRevertUnchangedProperties_; }
    /// True when the element with `uuid` was destroyed in the transaction in progress.
    bool isDestroyedInCurrentTransaction(boost::uuids::uuid const &uuid) const;

    /// The model's span, made on first use with the logger name "kivra::cpp" and, then
    /// only, the logging `domain`; it carries the context "modelID".
    log::Span getSpan(std::string const &domain = {});

    // --- Elements --------------------------------------------------------------------

    /// The element with `uuid`, or a null handle. A destroyed element is not found.
    ModelElement findElement(boost::uuids::uuid const &uuid,
                             FindElementBehavior behavior = FindElementBehavior::InMemoryOnly) const;
    /// The element of class `cls` that `id` names, found by the element id services;
    /// a null handle when none.
    ModelElement findElement(meta::Class const &cls, ElementId const &id) const;
    /// Every live element, in no particular order.
    std::vector<ModelElement> getAllElements(FindElementBehavior behavior = FindElementBehavior::InMemoryOnly) const;
    /// Every element without a container, in no particular order.
    std::vector<ModelElement> getTopLevelElements() const;
    /// The number of live elements.
    std::size_t elementCount() const noexcept;

    // --- Changes to the whole model --------------------------------------------------

    /// Renames a constellation model. Raises `InvalidValue` for a model without a
    /// constellation and `UniquenessConstraint` when the URI is taken in it.
    void setModelURI(std::u16string const &uri);
    /// Destroys every element, leaves the constellation and invalidates the model.
    /// Never raises.
    void destroy() noexcept;
    /// Destroys every element in one transaction; the model stays.
    void destroyAllContents();
    /// Hands every element to `target` without copying; the target's listeners see them
    /// created. Raises `CannotChangeModel` before anything moves when the target is null,
    /// invalid or this model, when this model has listeners or a transaction in
    /// progress, or when a UUID is in both models.
    void moveAllContentsTo(Model const &target);
    /// Moves a lone constellation model into `target`. Raises `CannotMigrateModel`.
    void migrateToConstellation(ModelConstellation const &target);

    // --- Transactions ----------------------------------------------------------------

    /// Begins a transaction through the model's factory, nested when one is in progress;
    /// `revertible` keeps old values so that a roll-back can restore them. Raises
    /// `InvalidModel` after `destroy`.
    Transaction beginTransaction(bool revertible = false);
    Transaction beginRevertibleTransaction() { return beginTransaction(true); }
    /// The factory that `beginTransaction` uses, which stamps each origin with this
    /// model, a fresh id and the next ordinal.
    AbstractTransactionFactoryImpl &getDefaultTransactionFactory() const noexcept { return *transactionFactory_; }

    /// The key that lets a transaction factory begin transactions.
    class PrivateTag {
        friend class DirectTransactionFactoryImpl;
        friend class Model::Impl;
        PrivateTag() = default;
    };
    /// Begins a transaction with `origin`; reached through factories only.
    Transaction innerBeginTransaction(PrivateTag, meta::TransactionOrigin const &origin, bool revertible);
    /// A nested level on the transaction in progress, which must exist; reached through
    /// factories only.
    Transaction beginNested(PrivateTag);

    /// Keeps, from now on, the highest ordinal seen of each transaction factory.
    void trackLastSeenTransactionOrdinals() noexcept { trackLastSeenOrdinals_ = true; }
    std::unordered_map<boost::uuids::uuid, std::int32_t, services::hashers::KivraHasher<boost::uuids::uuid>>
    getLastSeenTransactionOrdinals() const {
        return lastSeenOrdinals_;
    }
    /// True when no transaction of `factory` with this or a higher ordinal was seen.
    bool isTransactionNew(boost::uuids::uuid const &factory, std::int32_t ordinal) const;
    void updateLastSeenTransactionOrdinal(boost::uuids::uuid const &factory, std::int32_t ordinal);

    /// Makes each transaction that begins from now on leave out of its report the
    /// properties that were changed and changed back.
    void setDetectAndRevertUnchangedProperties(bool detect) noexcept { detectAndRevertUnchangedProperties_ = detect; }

    // --- Work ------------------------------------------------------------------------

    /// Queues an update to run with this model once no transaction is in progress: at
    /// the end of the current one, or at once when none is open. A constellation model
    /// uses its constellation's queue; a destroyed model drops it, even one that waits.
    void addToWorkQueue(std::unique_ptr<ModelUpdater> &&updater);
    void addToWorkQueue(std::function<void(Model const &)> update);
    /// Runs the model's own queue, if it has one.
    void processWorkQueue();

    /// Freezes the model for as long as the returned guard lives: every change raises
    /// `ModelFrozen`. Freezes add up.
    Freezer freeze();
    /// Makes the model freeze while observers are told of a commit or roll-back, so that
    /// they change it only through `addToWorkQueue`.
    void setFreezeOnNotify(bool freeze) noexcept { freezeOnNotify_ = freeze; }

    // --- In-progress state -----------------------------------------------------------

    ParseInProgressIndicator startParse();
    DataSourceLoadingInProgressIndicator startDataSourceLoading();
    DataSourceModificationInProgressIndicator startDataSourceModification();

    // --- Proxies -----------------------------------------------------------------------

    /// The id a proxy of this model stands for; null for anything else.
    ProxyId const *proxyIdOf(ModelElement::Impl const *proxy) const noexcept;
    /// Keeps the id of a new proxy of this model, and forgets it with the proxy.
    void setProxyId(ModelElement::Impl const *proxy, ProxyId const &id);
    void forgetProxyId(ModelElement::Impl const *proxy) noexcept;
    /// ("uuid", the element's UUID) with this model's URI, or none when `local`.
    ProxyId getPersistentProxyId(ModelElement::Impl const *element, bool local) const;
    /// The element `proxy` stands for, loading its model when needed; the proxy itself
    /// when nothing is found; null while this model is being destroyed. `from` is the
    /// referring element.
    ModelElement resolveProxy(ModelElement::Impl const *from, ModelElement const &proxy);
    /// As `resolveProxy`, looking only at models already present.
    ModelElement peekResolveProxy(ModelElement::Impl const *from, ModelElement const &proxy);

    // --- Listeners ---------------------------------------------------------------------

    /// Adds a listener's holder; a holder of a listener that is there already is dropped,
    /// and so is every holder given to a destroyed model (its listener is told so at once).
    /// Prefer `kivra::addListener`.
    void addListenerHolder(std::unique_ptr<ListenerHolderBase> holder);
    /// Takes a listener off the model; see `kivra::removeListener`.
    void removeListener(Listener const &listener);
    /// Skips `holder` in the phases still to come of the transaction in progress.
    void removeListenerFromTransaction(ListenerHolderBase *holder) noexcept;
    bool hasListeners() const noexcept { return !listeners_.empty(); }

    // --- Extensions ----------------------------------------------------------------------

    /// Adds a property to `cls` for this model's elements alone, with `defaultValue` as
    /// the value of an element that never set it (required for a single value of a type
    /// that is not a class). Nothing changes when it raises `CannotCreateWithoutModel` (a
    /// class outside the registry model), `NoSuchType`, `ExtensionMustHaveName`,
    /// `ExtensionNameMustBeUnique` (the name is taken along the class's chain),
    /// `ExtensionMustHaveDefaultValue`, what a default of the wrong type raises, or
    /// `CannotInstantiateCollection`. Listeners hear of the new extension.
    meta::Extension extendMetaclass(meta::Class const &cls, meta::ExtensionPrototype const &prototype,
                                    boost::optional<Value> const &defaultValue);
    /// Removes the extension `name` that this model declared on exactly `cls`, telling the
    /// listeners first. Elements forget its values at their next access. Raises
    /// `CannotCreateWithoutModel` or `NoSuchExtension`.
    void unextendMetaclass(meta::Class const &cls, basalt::ustring const &name);
    /// This model's extension `name` declared on exactly `cls`; empty when none.
    meta::Extension getDeclaredExtension(meta::Class const &cls, basalt::ustring const &name) const;
    /// This model's extension `name` on `cls` or the nearest of its superclasses; empty when none.
    meta::Extension getExtension(meta::Class const &cls, basalt::ustring const &name) const;
    /// A copy of the default of a single-valued extension. Raises `NoSuchExtension`.
    Value getExtensionDefault(meta::Class const &cls, basalt::ustring const &name) const;
    /// The extension to use in this model for `extension` of another model that moves its
    /// contents here: this model's own when it declares the same one, `extension` itself
    /// when nothing stands in the way, empty when a declaration here conflicts.
    meta::Extension validateExtension(meta::Extension const &extension, boost::optional<Value> const &defaultValue) const;
    /// Tells every extension listener of `extension`.
    void notifyExtensionAdded(meta::Extension const &extension);
    /// Keeps `listener` (not owned) until it is removed or the model goes; twice is once.
    void addExtensionListener(ExtensionListener *listener);
    void removeExtensionListener(ExtensionListener *listener);

    // --- Element protocol: called by ModelElement::Impl ------------------------------

    /// Raises `ModelFrozen` or `NoOpenTransaction` when the model may not change now.
    void validateTransaction() const;
    /// Enters a new element; raises `UUIDConflict` (and clears the element's UUID) when
    /// the UUID is taken. `unshared`: the element is being made, and no other thread can
    /// reach it yet.
    void elementCreated(ModelElement::Impl *element, bool topLevel, bool unshared = false);
    void elementDestroying(ModelElement::Impl *element);
    void elementModifying(ModelElement::Impl *element, std::uint64_t propertyIndex, void const *scalar = nullptr,
                          std::size_t size = 0);
    /// The part of `elementModifying` that a transaction keeping nothing never reaches: out
    /// of line so that the common case saves no registers.
    [[gnu::noinline]] void recordModifying(ModelElement::Impl *element, std::uint64_t propertyIndex,
                                           void const *scalar, std::size_t size);
    void elementModifying(ModelElement::Impl *element, meta::Extension const &extension);
    void elementMadeTopLevel(ModelElement::Impl *element);
    void elementNoLongerTopLevel(ModelElement::Impl *element);
    void allElementsDestroying();
    void allElementsDestroyed();
    /// Forgets an element without any report.
    void remove(ModelElement::Impl *element) noexcept;
    /// Brings back a destroyed element (roll-back only).
    void resurrectElement(ModelElement::Impl *element);
    /// Takes out an element whose creation is rolled back, with its usage.
    void forgetCreatedElement(ModelElement::Impl *element);

    /// The transaction in progress, or null.
    TransactionImpl *currentTransaction() const noexcept { return currentTransaction_; }
    /// Whether the calling thread opened the transaction in progress. Others may read the
    /// model meanwhile (the registry's readers do while a package registers), and what
    /// they make must keep out of the writer's way.
    bool isWriterThread() const noexcept;
    /// Ends the current transaction: keeps its ordinal and forgets it.
    void transactionEnded(TransactionImpl *transaction);
    /// What waits for the end of a transaction runs now.
    void transactionGroupEffectsComplete();
    ModelConstellation::Impl *constellationImpl() const noexcept { return constellation_; }

private:
    friend class Model;
    friend class ModelConstellation;
    friend class TransactionImpl;
    friend class ModelConstellation::Impl;
    friend class ModelElement::Impl;
    friend class detail::ModelMemory; // what elements keep comes from the element pool
    friend class detail::ElementTableAccess; // the query engine walks the table without handles

    Impl(boost::uuids::uuid const &uuid, ModelConstellation::Impl *constellation,
         WorkQueueFactory const &workQueueFactory, bool logCreation, std::string const &loggingDomain,
         ModelContent content);

    /// Joins `group`: a transaction of this model that the group owns.
    void doBeginTransaction(TransactionGroup *group, meta::TransactionOrigin const &origin);
    static Model make(boost::uuids::uuid const &uuid, ModelConstellation const &constellation,
                      WorkQueueFactory const &factory, std::string const &domain, ModelContent content);
    void setConstellation(ModelConstellation::Impl *constellation);
    /// The end of the last handle: destroys the model and gives up its own hold.
    void retire() noexcept;
    /// The model's reference on a top-level element, taken and dropped with its mark.
    void holdTopLevel(ModelElement::Impl *element, bool unshared = false) noexcept;
    void releaseTopLevel(ModelElement::Impl *element) noexcept;
    void releaseAllTopLevel() noexcept;
    /// Frees the extension values of an element that goes; the model has extensions.
    void forgetExtensionValues(ModelElement::Impl const *element) noexcept;
    /// Tells the extension listeners that they are removed, and forgets them.
    void dropExtensionListeners() noexcept;
    /// Calls `tell` with each extension listener that is still listening when its turn comes.
    void forEachListener(std::function<void(ExtensionListener *)> const &tell);
    /// Destroys the registry's records of this model's extensions and forgets the model's
    /// own, with every element's values of them.
    void dropExtensions() noexcept;
    /// The extension steps of `moveAllContentsTo`: declares this model's extensions in
    /// `to`, or finds the same ones there, whose (old, new) UUIDs it gives; moves one
    /// element's values; drops what stayed behind.
    std::vector<std::pair<boost::uuids::uuid, boost::uuids::uuid>> moveExtensionsTo(Impl *to);
    void moveExtensionValues(ModelElement::Impl const *element, Impl *to,
                             std::vector<std::pair<boost::uuids::uuid, boost::uuids::uuid>> const &replaced);
    void finishExtensionMove(std::vector<std::pair<boost::uuids::uuid, boost::uuids::uuid>> const &replaced) noexcept;
    /// Deletes every listener holder, telling each listener.
    void dropListeners() noexcept;
    bool reportsChanges() const noexcept { return currentTransaction_ && dataSourceLoadingCount_ == 0; }
    /// The memory of the model's element objects, made at the first; the writer's alone.
    detail::ElementPool &elementPool();
    /// The memory of the collections that other threads than the writer make, as readers
    /// do on first use; made at the first. The caller holds the lock that serializes them.
    detail::ElementPool &sharedPool();

    template <class V>
    using UuidMap = std::unordered_map<boost::uuids::uuid, V, services::hashers::KivraHasher<boost::uuids::uuid>>;

    /// The live model's own hold: larger than any count of holds given back while it lives,
    /// as the writer's holds are not in `holds_` until then.
    static constexpr std::uint64_t liveHold = std::uint64_t(1) << 62;
    /// `liveHold` for the live model, one per element object or collection in its memory
    /// (moved ones too), one per element moved in from another model and per report that
    /// names it; less those given back.
    std::atomic<std::uint64_t> holds_{liveHold};
    /// The holds taken by the writer's thread while the model lives.
    std::uint64_t writerHolds_ = 0;
    /// Every live element; top-level ones carry a mark and a reference of the model.
    std::unique_ptr<detail::ElementTable> table_;
    std::unique_ptr<detail::ElementPool> pool_;
    std::unique_ptr<detail::ElementPool> sharedPool_;
    /// The extensions this model declared and its elements' values of them; made at the first need.
    std::unique_ptr<detail::ModelExtensions> extensions_;
    std::size_t topLevelCount_ = 0;
    TransactionImpl *currentTransaction_ = nullptr;
    /// A token of the thread that opened `currentTransaction_`, read by other threads.
    std::atomic<void const *> writer_{nullptr};
    std::vector<ListenerHolderBase *> listeners_;
    std::uint32_t listenerDepth_ = 1;
    std::uint64_t serialNumber_;
    std::int32_t freezeCount_ = 0;
    bool freezeOnNotify_ = false;
    std::int32_t dataSourceLoadingCount_ = 0;
    std::int32_t dataSourceModificationCount_ = 0;
    std::int32_t parseCount_ = 0;
    /// The transactions whose observers are being told, innermost last.
    std::vector<TransactionImpl *> notifying_;
    std::unique_ptr<meta::DataModelUsageProvider> usageProvider_;
    std::unique_ptr<AbstractTransactionFactoryImpl> transactionFactory_;
    UuidMap<std::int32_t> lastSeenOrdinals_;
    bool trackLastSeenOrdinals_ = false;
    ModelConstellation::Impl *constellation_ = nullptr;
    std::u16string modelURI_;
    std::u16string locationURI_;
    datasource::ActiveDataSource *dataSource_ = nullptr;
    bool detectAndRevertUnchangedProperties_ = false;
    std::shared_ptr<WorkQueue> workQueue_;
    log::Span span_;

    friend class Model::InProgressIndicator;
    friend class Model::Freezer;
};

/// A move-only guard that counts one piece of work in progress on a model while it lives.
/// A moved-from guard does nothing.
class Model::InProgressIndicator {
public:
    InProgressIndicator(InProgressIndicator &&other) noexcept = default;
    InProgressIndicator &operator=(InProgressIndicator &&other) noexcept;
    ~InProgressIndicator();

protected:
    friend class Model::Impl;
    InProgressIndicator(Model model, std::int32_t Model::Impl::*counter, bool onlyWhileValid);

private:
    Model model_;
    std::int32_t Model::Impl::*counter_;
    bool onlyWhileValid_;
};

/// While one lives, the inverse side of non-composite references is left to the parser.
class Model::ParseInProgressIndicator : public InProgressIndicator {
    using InProgressIndicator::InProgressIndicator;
    friend class Model::Impl;
};
/// While one lives, changes that loading makes are not recorded.
class Model::DataSourceLoadingInProgressIndicator : public InProgressIndicator {
    using InProgressIndicator::InProgressIndicator;
    friend class Model::Impl;
};
/// While one lives, the data source is writing the model's changes.
class Model::DataSourceModificationInProgressIndicator : public InProgressIndicator {
    using InProgressIndicator::InProgressIndicator;
    friend class Model::Impl;
};

/// A move-only guard that keeps a model frozen while it lives; it can lift its own freeze
/// for a while through `thaw()`. A freezer that outlives its model's destruction does
/// nothing. A freezer must stay where it is while one of its thaws is active.
class Model::Freezer {
public:
    explicit Freezer(Model const &model);
    Freezer(Freezer &&other) noexcept;
    Freezer &operator=(Freezer &&other) noexcept;
    ~Freezer();

    bool isActive() const noexcept { return static_cast<bool>(model_.get()); }
    explicit operator bool() const noexcept { return isActive(); }
    /// Lifts this freezer's freeze and lets the model go.
    void deactivate() noexcept;
    /// Lifts this freezer's freeze until the returned guard goes; nested thaws lift it once.
    Thawer thaw();

private:
    friend class Model::Thawer;
    void doThaw() noexcept;
    void undoThaw() noexcept;

    Model model_;
    std::int32_t thawCount_ = 0;
};

/// A move-only guard during whose life its freezer's freeze is lifted.
class Model::Thawer {
public:
    explicit Thawer(Freezer *freezer);
    Thawer(Thawer &&other) noexcept;
    Thawer &operator=(Thawer &&other) noexcept;
    ~Thawer() { deactivate(); }

    bool isActive() const noexcept { return freezer_ != nullptr; }
    explicit operator bool() const noexcept { return isActive(); }
    /// Puts the freeze back.
    void deactivate() noexcept;

private:
    Freezer *freezer_;
};

inline Model::Impl *Model::get() const noexcept { return static_cast<Impl *>(rawImpl()); }
inline Model::Model(Impl *impl, bool addReference) noexcept : HandleBase(impl, addReference) {}
inline Model::Impl *Model::release() noexcept { return static_cast<Impl *>(releaseImpl()); }

} // namespace kivra
