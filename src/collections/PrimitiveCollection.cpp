#include <kivra/PrimitiveCollection.hpp>

#include "core/ValuePayloads.hpp"

#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/UuidLiteral.hpp>
#include <kivra/detail/Collections.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/DatatypeSerializers.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/reflection/ReflectiveDataType.hpp>

#include <boost/optional/optional.hpp>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <tuple>
#include <type_traits>
#include <vector>

namespace kivra {

// --- Entries as values -------------------------------------------------------------------

namespace {

[[noreturn]] void raiseIncompatible(Value const &value) {
    meta::Type const &type = value.getType();
    raise<messages::CannotCastIncompatibleTypes>(type.get() ? type->getQualifiedName() : basalt::ustring());
}

[[noreturn]] void raiseBadIndex() { raise<messages::InvalidValue>(); }

boost::uuids::uuid const &versionInfoUuid() {
    static boost::uuids::uuid const uuid = parseUuidLiteral("c796e984-6630-3cfb-8a81-a092baf6dced");
    return uuid;
}

bool isVersionInfoType(meta::Type const &type) {
    return type.get() && type->getUuid() == versionInfoUuid() &&
           dynamic_cast<meta::DataType::Impl const *>(type.get()) != nullptr;
}

using VersionInfoPayload = meta::detail::DatatypePayload<meta::VersionInfo>;

/// Reads the entry a written value carries: a single value of the entry type; for integer
/// entries an enum value too, its number cut to the entry's width.
template <class V> V readEntry(Value const &value) {
    if constexpr (std::is_same_v<V, meta::VersionInfo>) {
        return meta::VersionInfo::fromValue(value);
    } else {
        if (value.getFlags() != ValueFlags::Single)
            raiseIncompatible(value);
        meta::Type const &type = value.getType();
        if (type == detail::primitiveTypeOf<V>())
            return value.hasPayload() ? value.get<V>() : V();
        if constexpr (std::is_integral_v<V> && !std::is_same_v<V, bool>)
            if (internal::isEnumType(type))
                return value.hasPayload() ? static_cast<V>(value.get<std::uint64_t>()) : V();
        raiseIncompatible(value);
    }
}

template <class V> Value entryValue(V const &entry) {
    if constexpr (std::is_same_v<V, meta::VersionInfo>)
        return entry.toValue();
    else
        return Value(detail::primitiveTypeOf<V>(), entry);
}

template <class V> meta::Type entryType() {
    if constexpr (std::is_same_v<V, meta::VersionInfo>)
        return meta::VersionInfo::dataType();
    else
        return detail::primitiveTypeOf<V>();
}

/// The entry an item of a container holds: a map holds pairs.
template <class T> T const &entryOf(T const &item) { return item; }
template <class K, class V> V const &entryOf(std::pair<K, V> const &item) { return item.second; }

} // namespace

namespace meta {

std::uint64_t hashValue(VersionInfo const &info) noexcept {
    services::hashers::KivraHasher<basalt::ustring> const hasher;
    return hasher(info.getFamily()) * 31 + hasher(info.getMinVersion());
}

DataType VersionInfo::dataType() {
    // Kept once found, until a repeated description of the metamodel replaces it.
    static std::atomic<DataType::Impl *> found{nullptr};
    // Every one found stays alive: a reader may still test one that a new description
    // replaced. There are as many as the metamodel was described.
    static std::vector<DataType> kept;
    static std::mutex mutex;
    if (DataType::Impl *const impl = found.load(std::memory_order_acquire); impl && impl->isValid())
        return DataType::fromImpl(impl);
    // Looked up before this function's own lock is taken, so that the registry's lock comes
    // first wherever both are held. A read: the registry model stays frozen.
    MetaRegistry const &registry = *MetaRegistry::getInstance();
    ModelElement const element = registry.getMetaRegistryModel()->findElement(versionInfoUuid());
    auto *const impl = dynamic_cast<DataType::Impl *>(element.get());
    if (!impl)
        return {};
    std::lock_guard lock(mutex);
    if (kept.empty() || kept.back().get() != impl)
        kept.push_back(DataType::fromImpl(impl));
    found.store(impl, std::memory_order_release);
    return kept.back();
}

Value VersionInfo::toValue() const {
    return Value(ValueMeta(dataType(), ValueFlags::Single), new VersionInfo(*this), &VersionInfoPayload::functions);
}

VersionInfo VersionInfo::fromValue(Value const &value) {
    if (value.getFlags() != ValueFlags::Single || !isVersionInfoType(value.getType()))
        raiseIncompatible(value);
    if (!value.hasPayload())
        return {};
    // A record of the data type is read in the generated form.
    if (value.isReflective()) {
        boost::optional<Value> const native = value.toReflectiveDataType().toNonReflectiveDataTypeValue();
        if (!native || native->isReflective())
            raiseIncompatible(value);
        return fromValue(*native);
    }
    if (value.getPayloadFunctions() != &VersionInfoPayload::functions)
        raiseIncompatible(value);
    return *static_cast<VersionInfo const *>(value.getPayload());
}

} // namespace meta

// --- AbstractPrimitiveCollection -----------------------------------------------------------

GenericPrimitiveInterface::~GenericPrimitiveInterface() = default;

AbstractPrimitiveCollection::~AbstractPrimitiveCollection() = default;

void AbstractPrimitiveCollection::genericAssign(std::vector<Value> const &values) {
    // A transaction of its own keeps the old entries, so that a value that fails half-way
    // leaves them as they were.
    Transaction own;
    if (owner_)
        if (Model::Impl *const model = owner_->getModelImpl(); !model->currentTransaction())
            own = model->beginTransaction(/*revertible=*/true);
    Operation operation(*this);
    modifying();
    clear();
    for (Value const &value : values)
        genericAdd(value);
    operation.commit();
    if (own)
        own.commit();
}

void AbstractPrimitiveCollection::restoreFrom(AbstractPrimitiveCollection const *stored) {
    Operation operation(*this);
    modifying();
    clear();
    if (stored)
        copyContents(*stored);
    operation.commit();
}

// --- PrimitiveCollection -------------------------------------------------------------------

template <class V, class C> meta::Type PrimitiveCollection<V, C>::getCollectionType() const { return entryType<V>(); }

template <class V, class C> void PrimitiveCollection<V, C>::clear() {
    Operation operation(*this);
    this->modifying();
    container.clear();
    operation.commit();
}

template <class V, class C> std::vector<Value> PrimitiveCollection<V, C>::getAllValues() const {
    std::vector<Value> values;
    values.reserve(container.size());
    for (auto const &item : container)
        values.push_back(entryValue<V>(entryOf(item)));
    return values;
}

template <class V, class C> void PrimitiveCollection<V, C>::copyContents(AbstractOwnedCollection const &other) {
    Operation operation(*this);
    this->modifying();
    if (&other != this)
        container = static_cast<PrimitiveCollection const &>(other).container;
    operation.commit();
}

// --- PrimitiveSequence ---------------------------------------------------------------------

template <class V>
PrimitiveSequence<V>::PrimitiveSequence(ModelElement::CollectionPrivateTag const &, ModelElement::Impl *owner,
                                        meta::Property::Impl *property, bool unique)
    : PrimitiveCollection<V, std::vector<V>>(owner, property), unique(unique) {}

template <class V>
PrimitiveSequence<V>::PrimitiveSequence(bool unique) : PrimitiveCollection<V, std::vector<V>>(nullptr, nullptr), unique(unique) {}

template <class V> PrimitiveSequence<V>::~PrimitiveSequence() = default;

template <class V> bool PrimitiveSequence<V>::contains(V const &value) const {
    return std::find(this->container.begin(), this->container.end(), value) != this->container.end();
}

template <class V> std::int64_t PrimitiveSequence<V>::indexOf(V const &value) const {
    auto const found = std::find(this->container.begin(), this->container.end(), value);
    return found == this->container.end() ? -1 : std::int64_t(found - this->container.begin());
}

template <class V> void PrimitiveSequence<V>::push_back(V const &value) {
    if (unique && contains(value))
        return;
    typename AbstractOwnedCollection::Operation operation(*this);
    this->modifying();
    this->container.push_back(value);
    operation.commit();
}

template <class V> void PrimitiveSequence<V>::insert(std::size_t index, V const &value) {
    if (index > this->container.size())
        raiseBadIndex();
    if (unique && contains(value))
        return;
    typename AbstractOwnedCollection::Operation operation(*this);
    this->modifying();
    this->container.insert(this->container.begin() + std::ptrdiff_t(index), value);
    operation.commit();
}

template <class V> void PrimitiveSequence<V>::replace(std::size_t index, V const &value) {
    if (index >= this->container.size())
        raiseBadIndex();
    // Also an entry that is already at `index`: a unique sequence makes no change of it.
    if (unique && contains(value))
        return;
    typename AbstractOwnedCollection::Operation operation(*this);
    this->modifying();
    this->container[index] = value;
    operation.commit();
}

template <class V> void PrimitiveSequence<V>::erase(std::size_t index) {
    if (index >= this->container.size())
        raiseBadIndex();
    typename AbstractOwnedCollection::Operation operation(*this);
    this->modifying();
    this->container.erase(this->container.begin() + std::ptrdiff_t(index));
    operation.commit();
}

template <class V> void PrimitiveSequence<V>::remove(V const &value) {
    std::int64_t const index = indexOf(value);
    if (index >= 0)
        erase(std::size_t(index));
}

template <class V> void PrimitiveSequence<V>::assign(std::vector<V> const &values) {
    typename AbstractOwnedCollection::Operation operation(*this);
    this->modifying();
    if (unique) {
        std::vector<V> firsts;
        firsts.reserve(values.size());
        for (V const &value : values)
            if (std::find(firsts.begin(), firsts.end(), value) == firsts.end())
                firsts.push_back(value);
        this->container = std::move(firsts);
    } else {
        this->container = values;
    }
    operation.commit();
}

template <class V> void PrimitiveSequence<V>::genericAdd(Value const &value) { push_back(readEntry<V>(value)); }

template <class V> void PrimitiveSequence<V>::genericRemove(Value const &value) { remove(readEntry<V>(value)); }

template <class V> GenericPrimitiveInterface *PrimitiveSequence<V>::getGenericInterface() const {
    if (!genericInterface)
        genericInterface = std::make_unique<SequenceInterface>(const_cast<PrimitiveSequence &>(*this));
    return genericInterface.get();
}

template <class V> std::unique_ptr<PrimitiveSequence<V>> PrimitiveSequence<V>::cloneFreeStanding() const {
    std::unique_ptr<PrimitiveSequence> copy(new (nullptr) PrimitiveSequence(unique));
    copy->container = this->container;
    return copy;
}

template <class V> Value PrimitiveSequence<V>::SequenceInterface::genericAt(std::size_t index) const {
    if (index >= sequence_.container.size())
        raiseBadIndex();
    return entryValue<V>(sequence_.container[index]);
}

template <class V> void PrimitiveSequence<V>::SequenceInterface::genericInsert(Value const &value, std::size_t index) {
    sequence_.insert(index, readEntry<V>(value));
}

template <class V> void PrimitiveSequence<V>::SequenceInterface::genericReplace(Value const &value, std::size_t index) {
    sequence_.replace(index, readEntry<V>(value));
}

template <class V> void PrimitiveSequence<V>::SequenceInterface::genericRemoveAt(std::size_t index) {
    sequence_.erase(index);
}

template <class V> std::int64_t PrimitiveSequence<V>::SequenceInterface::genericIndexOf(Value const &value) const {
    return sequence_.indexOf(readEntry<V>(value));
}

// --- Sets ------------------------------------------------------------------------------------

template <class V, class C> void PrimitiveSetBase<V, C>::insert(V const &value) {
    // A present entry is recorded all the same: the property counts as touched.
    typename AbstractOwnedCollection::Operation operation(*this);
    this->modifying();
    this->container.insert(value);
    operation.commit();
}

template <class V, class C> void PrimitiveSetBase<V, C>::erase(V const &value) {
    typename AbstractOwnedCollection::Operation operation(*this);
    this->modifying();
    this->container.erase(value);
    operation.commit();
}

template <class V, class C> void PrimitiveSetBase<V, C>::genericAdd(Value const &value) { insert(readEntry<V>(value)); }

template <class V, class C> void PrimitiveSetBase<V, C>::genericRemove(Value const &value) {
    erase(readEntry<V>(value));
}

template <class V> std::unique_ptr<PrimitiveSet<V>> PrimitiveSet<V>::cloneFreeStanding() const {
    std::unique_ptr<PrimitiveSet> copy(new (nullptr) PrimitiveSet());
    copy->container = this->container;
    return copy;
}

template <class V> std::unique_ptr<UnorderedPrimitiveSet<V>> UnorderedPrimitiveSet<V>::cloneFreeStanding() const {
    std::unique_ptr<UnorderedPrimitiveSet> copy(new (nullptr) UnorderedPrimitiveSet());
    copy->container = this->container;
    return copy;
}

// --- Maps ------------------------------------------------------------------------------------

template <class K, class V, class C>
PrimitiveAssociativeContainer<K, V, C>::PrimitiveAssociativeContainer(ModelElement::Impl *owner,
                                                                      meta::Property::Impl *property, KeyFunction key)
    : PrimitiveCollection<V, C>(owner, property), keyFunction(std::move(key)) {}

template <class K, class V, class C> PrimitiveAssociativeContainer<K, V, C>::~PrimitiveAssociativeContainer() = default;

template <class K, class V, class C> V const *PrimitiveAssociativeContainer<K, V, C>::find(K const &key) const {
    auto const found = this->container.find(key);
    return found == this->container.end() ? nullptr : &found->second;
}

template <class K, class V, class C>
void PrimitiveAssociativeContainer<K, V, C>::insert(V const &entry, CollisionResolution collision) {
    K key = keyFunction(entry);
    auto const found = this->container.find(key);
    if (found != this->container.end()) {
        if (found->second == entry)
            return;
        if (collision == CollisionResolution::Fail)
            raise<messages::UniquenessConstraint>();
        if (collision == CollisionResolution::KeepExisting)
            return;
    }
    typename AbstractOwnedCollection::Operation operation(*this);
    this->modifying();
    this->container.insert_or_assign(std::move(key), entry);
    operation.commit();
}

template <class K, class V, class C> void PrimitiveAssociativeContainer<K, V, C>::remove(V const &entry) {
    auto const found = this->container.find(keyFunction(entry));
    if (found == this->container.end() || !(found->second == entry))
        return;
    typename AbstractOwnedCollection::Operation operation(*this);
    this->modifying();
    this->container.erase(keyFunction(entry));
    operation.commit();
}

template <class K, class V, class C> void PrimitiveAssociativeContainer<K, V, C>::genericAdd(Value const &value) {
    insert(readEntry<V>(value), CollisionResolution::KeepExisting);
}

template <class K, class V, class C> void PrimitiveAssociativeContainer<K, V, C>::genericRemove(Value const &value) {
    remove(readEntry<V>(value));
}

template <class K, class V, class C>
GenericPrimitiveInterface *PrimitiveAssociativeContainer<K, V, C>::getGenericInterface() const {
    if (!genericInterface)
        genericInterface = std::make_unique<Associative>(*this);
    return genericInterface.get();
}

template <class K, class V, class C>
std::vector<Value> PrimitiveAssociativeContainer<K, V, C>::Associative::genericFind(Value const &key) const {
    std::vector<Value> values;
    if (V const *entry = map_.find(readEntry<K>(key)))
        values.push_back(entryValue<V>(*entry));
    return values;
}

template <class K, class V, class C>
std::vector<Value> PrimitiveAssociativeContainer<K, V, C>::Associative::genericKeys() const {
    std::vector<Value> keys;
    keys.reserve(map_.container.size());
    for (auto const &item : map_.container)
        keys.push_back(entryValue<K>(item.first));
    return keys;
}

template <class K, class V, class C>
meta::Type PrimitiveAssociativeContainer<K, V, C>::Associative::genericKeyType() const {
    return entryType<K>();
}

template <class K, class V> std::unique_ptr<PrimitiveMap<K, V>> PrimitiveMap<K, V>::cloneFreeStanding() const {
    std::unique_ptr<PrimitiveMap> copy(new (nullptr) PrimitiveMap(this->keyFunction));
    copy->container = this->container;
    return copy;
}

// --- What generated elements and builders share ---------------------------------------------

namespace detail {

void assignValues(AbstractPrimitiveCollection &collection, Value const &value) {
    if (value.getPayload() == &collection)
        return;
    collection.genericAssign(value.extractEntryValues());
}

template <class V> void stageValues(std::vector<V> &staged, Value const &value) {
    // Read in full first: a bad entry stages nothing.
    std::vector<Value> const entries = value.extractEntryValues();
    std::vector<V> read;
    read.reserve(entries.size());
    for (Value const &entry : entries)
        read.push_back(readEntry<V>(entry));
    staged.insert(staged.end(), std::make_move_iterator(read.begin()), std::make_move_iterator(read.end()));
}

} // namespace detail

// --- Instances -------------------------------------------------------------------------------

#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    template class PrimitiveCollection<Native, std::vector<Native>>;                                                  \
    template class PrimitiveSequence<Native>;                                                                         \
    template class PrimitiveCollection<Native, boost::container::flat_set<Native>>;                                   \
    template class PrimitiveSetBase<Native, boost::container::flat_set<Native>>;                                      \
    template class PrimitiveSet<Native>;                                                                              \
    template class PrimitiveCollection<Native, detail::FlatHashSet<Native, services::hashers::KivraHasher<Native>>>;  \
    template class PrimitiveSetBase<Native, detail::FlatHashSet<Native, services::hashers::KivraHasher<Native>>>;     \
    template class UnorderedPrimitiveSet<Native>;                                                                    \
    template void detail::stageValues<Native>(std::vector<Native> &, Value const &);
#include <kivra/meta/PrimitiveTypes.def>
template void detail::stageValues<meta::VersionInfo>(std::vector<meta::VersionInfo> &, Value const &);
template class PrimitiveCollection<meta::VersionInfo, std::vector<meta::VersionInfo>>;
template class PrimitiveSequence<meta::VersionInfo>;
template class PrimitiveCollection<meta::VersionInfo, boost::container::flat_map<basalt::ustring, meta::VersionInfo>>;
template class PrimitiveAssociativeContainer<basalt::ustring, meta::VersionInfo,
                                             boost::container::flat_map<basalt::ustring, meta::VersionInfo>>;
template class PrimitiveMap<basalt::ustring, meta::VersionInfo>;

} // namespace kivra
