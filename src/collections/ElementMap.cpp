#include <kivra/ElementMap.hpp>

#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>

namespace kivra {

// --- What maps and multimaps share --------------------------------------------------------

ReferenceAssociativeBase::ReferenceAssociativeBase(ModelElement::Impl *owner, meta::Property::Impl *property,
                                                   meta::Property::Impl *opposite, GenericCollectionInterface *view,
                                                   EntryClass entryClass)
    : ReferenceCollectionWithProxies(owner, property, opposite, view), entryClass_(entryClass) {}

ReferenceAssociativeBase::~ReferenceAssociativeBase() = default;

meta::Type ReferenceAssociativeBase::getCollectionType() const { return entryClass_(); }

meta::Type ReferenceAssociativeBase::getKeyType() const {
    if (property_)
        if (meta::Property const key = property_->getQualifiedBy(); key)
            return key->getType();
    return nativeKeyType();
}

bool ReferenceAssociativeBase::isEntry(ModelElement const &element) const {
    return isEntryClass(element, entryClass_());
}

void ReferenceAssociativeBase::checkEntryClass(ModelElement const &element) const {
    ReferenceCollection::checkEntryClass(element, entryClass_());
}

bool ReferenceAssociativeBase::admit(ModelElement const &element) {
    if (!element.get())
        return false;
    checkCompatibleModel(element.get());
    if (element->isProxy()) {
        addProxy(element);
        return false;
    }
    return true;
}

void ReferenceAssociativeBase::addNew(ModelElement const &element) {
    Operation operation(*this);
    modifying();
    place(element);
    associate(element.get());
    operation.commit();
}

void ReferenceAssociativeBase::erase(ModelElement const &element) {
    if (!element.get())
        return;
    if (element->isProxy()) {
        removeProxy(element);
        return;
    }
    if (!holds(element.get()))
        return;
    Operation operation(*this);
    modifying();
    dissociate(element.get());
    unplace(element.get());
    operation.commit();
}

void ReferenceAssociativeBase::eraseEntries(std::vector<ModelElement> const &entries) {
    Operation operation(*this);
    modifying();
    if (hasFarEnd())
        for (ModelElement const &entry : entries)
            dissociate(entry.get());
    for (ModelElement const &entry : entries)
        unplace(entry.get());
    operation.commit();
}

void ReferenceAssociativeBase::clear() {
    Operation operation(*this);
    modifying();
    eraseEntries(getAllValues());
    clearUnresolved();
    operation.commit();
}

std::vector<ModelElement> ReferenceAssociativeBase::getAllValues() const {
    std::vector<ModelElement> values;
    values.reserve(entryCount());
    appendEntries(values);
    return values;
}

std::vector<ModelElement> ReferenceAssociativeBase::getAllValuesAndProxies() const {
    std::vector<ModelElement> values = getAllValues();
    for (ModelElement const &proxy : unresolvedProxies())
        values.push_back(proxy);
    return values;
}

void ReferenceAssociativeBase::basicAdd(ModelElement const &element) {
    if (!element.get())
        return;
    Operation operation(*this);
    modifying();
    // A key held by another element keeps its entry: the inverse path has no way to refuse.
    place(element);
    operation.commit();
}

void ReferenceAssociativeBase::basicRemove(ModelElement const &element) {
    if (!element.get())
        return;
    if (element->isProxy()) {
        removeProxy(element);
        return;
    }
    if (!holds(element.get()))
        return;
    Operation operation(*this);
    modifying();
    unplace(element.get());
    operation.commit();
}

void ReferenceAssociativeBase::basicAssign(std::vector<ModelElement> const &elements) {
    Operation operation(*this);
    modifying();
    clearUnresolved();
    clearEntries();
    for (ModelElement const &element : elements)
        basicAddWithProxy(element);
    operation.commit();
}

void ReferenceAssociativeBase::basicClear() {
    modifying();
    clearEntries();
}

void ReferenceAssociativeBase::basicClearAll() {
    // The far ends keep their side: whoever empties this end this way mends theirs.
    Operation operation(*this);
    modifying();
    clearEntries();
    clearUnresolved();
    operation.commit();
}

void ReferenceAssociativeBase::basicCopyValues(ReferenceCollection const &other) {
    Operation operation(*this);
    modifying();
    assignFrom(other);
    operation.commit();
}

void ReferenceAssociativeBase::assignFrom(ReferenceCollection const &other) {
    auto const &source = static_cast<ReferenceAssociativeBase const &>(other);
    copyEntries(source);
    copyUnresolvedFrom(source);
}

// --- Maps ----------------------------------------------------------------------------------

ElementMapBody::ElementMapBody(ModelElement::Impl *owner, meta::Property::Impl *property,
                               meta::Property::Impl *opposite, EntryClass entryClass)
    : ReferenceAssociativeBase(owner, property, opposite, &view_, entryClass) {}

void ElementMapBody::insert(ModelElement const &element, CollisionResolution collision) {
    if (!admit(element))
        return;
    ModelElement::Impl *const holder = holderOfKeyOf(element.get());
    if (!holder) {
        addNew(element);
        return;
    }
    if (holder == element.get() || collision == CollisionResolution::KeepExisting)
        return;
    if (collision == CollisionResolution::Fail)
        raise<messages::UniquenessConstraint>();
    Operation operation(*this);
    modifying();
    // The old element leaves first, as on any removal; the entry's node stays.
    ModelElement const old = ModelElement::fromImpl(holder);
    dissociate(old.get());
    overwrite(element);
    associate(element.get());
    operation.commit();
}

std::size_t ElementMapBody::MyGenericInterface::genericSize() const { return map_.size(); }

bool ElementMapBody::MyGenericInterface::genericEmpty() const { return map_.empty(); }

void ElementMapBody::MyGenericInterface::genericAdd(ModelElement const &element) {
    genericInsert(element, CollisionResolution::Fail);
}

void ElementMapBody::MyGenericInterface::genericInsert(ModelElement const &element, CollisionResolution collision) {
    if (element.get())
        map_.checkEntryClass(element);
    map_.insert(element, collision);
}

void ElementMapBody::MyGenericInterface::genericRemove(ModelElement const &element) {
    if (!element.get())
        return;
    map_.checkEntryClass(element);
    map_.erase(element);
}

void ElementMapBody::MyGenericInterface::genericClear() { map_.clear(); }

void ElementMapBody::MyGenericInterface::genericBasicClear() { map_.basicClearAll(); }

bool ElementMapBody::MyGenericInterface::genericContains(ModelElement const &element) const {
    return element.get() && map_.isEntry(element) && map_.contains(element);
}

ModelElement ElementMapBody::MyGenericInterface::genericAt(Value const &key) const {
    std::vector<ModelElement> const found = map_.entriesUnder(key);
    return found.empty() ? ModelElement() : found.front();
}

meta::Type ElementMapBody::MyGenericInterface::genericKeyType() const { return map_.getKeyType(); }

std::vector<Value> ElementMapBody::MyGenericInterface::genericKeys() const {
    return map_.distinctKeys(map_.getKeyType());
}

// --- Multimaps -----------------------------------------------------------------------------

ElementMultimapBody::ElementMultimapBody(ModelElement::Impl *owner, meta::Property::Impl *property,
                                         meta::Property::Impl *opposite, EntryClass entryClass)
    : ReferenceAssociativeBase(owner, property, opposite, &view_, entryClass) {}

void ElementMultimapBody::insert(ModelElement const &element) {
    if (!admit(element) || holds(element.get()))
        return;
    addNew(element);
}

std::size_t ElementMultimapBody::MyGenericInterface::genericSize() const { return map_.size(); }

bool ElementMultimapBody::MyGenericInterface::genericEmpty() const { return map_.empty(); }

void ElementMultimapBody::MyGenericInterface::genericAdd(ModelElement const &element) {
    if (element.get())
        map_.checkEntryClass(element);
    map_.insert(element);
}

void ElementMultimapBody::MyGenericInterface::genericRemove(ModelElement const &element) {
    if (!element.get())
        return;
    map_.checkEntryClass(element);
    map_.erase(element);
}

void ElementMultimapBody::MyGenericInterface::genericClear() { map_.clear(); }

void ElementMultimapBody::MyGenericInterface::genericBasicClear() { map_.basicClearAll(); }

bool ElementMultimapBody::MyGenericInterface::genericContains(ModelElement const &element) const {
    return element.get() && map_.isEntry(element) && map_.contains(element);
}

std::vector<ModelElement> ElementMultimapBody::MyGenericInterface::genericFind(Value const &key) const {
    return map_.entriesUnder(key);
}

meta::Type ElementMultimapBody::MyGenericInterface::genericKeyType() const { return map_.getKeyType(); }

std::vector<Value> ElementMultimapBody::MyGenericInterface::genericKeys() const {
    return map_.distinctKeys(map_.getKeyType());
}

// --- The keyed containers -----------------------------------------------------------------

namespace {
/// Reads a key of type `K` out of a value; raises `CannotCastIncompatibleTypes` for a value
/// of another type.
template <class K> K keyFromValue(Value const &value) { return value.get<K>(); }

template <> boost::uuids::uuid keyFromValue<boost::uuids::uuid>(Value const &value) {
    // An element-typed key is the element's UUID, nil for an empty reference.
    if (dynamic_cast<meta::Class::Impl const *>(value.getType().get())) {
        ModelElement const element = value.getElement();
        return element.get() ? element->getUuid() : boost::uuids::uuid{};
    }
    return value.get<boost::uuids::uuid>();
}
} // namespace

template <class K, class C, class Body> ModelElement ReferenceAssociativeContainer<K, C, Body>::at(K const &key) const {
    auto const found = entries_.find(key);
    return found == entries_.end() ? ModelElement() : found->second;
}

template <class K, class C, class Body>
std::pair<typename C::iterator, bool>
ReferenceAssociativeContainer<K, C, Body>::locate(K const &key, ModelElement::Impl const *element) const {
    auto &entries = const_cast<C &>(entries_);
    auto [first, last] = entries.equal_range(key);
    for (auto at = first; at != last; ++at)
        if (at->second.get() == element)
            return {at, true};
    return {first == last ? entries.end() : last, false};
}

template <class K, class C, class Body>
typename C::const_iterator ReferenceAssociativeContainer<K, C, Body>::findEntry(ModelElement::Impl const *element) const {
    auto const [at, held] = locate(keyFunction_(*element), element);
    return held ? typename C::const_iterator(at) : entries_.end();
}

template <class K, class C, class Body>
ModelElement::Impl *ReferenceAssociativeContainer<K, C, Body>::holderOfKeyOf(ModelElement::Impl const *element) const {
    auto const found = entries_.find(keyFunction_(*element));
    return found == entries_.end() ? nullptr : found->second.get();
}

template <class K, class C, class Body>
bool ReferenceAssociativeContainer<K, C, Body>::holds(ModelElement::Impl const *element) const {
    return locate(keyFunction_(*element), element).second;
}

template <class K, class C, class Body> bool ReferenceAssociativeContainer<K, C, Body>::place(ModelElement const &element) {
    K key = keyFunction_(*element.get());
    auto const [at, held] = locate(key, element.get());
    if (held)
        return false;
    if constexpr (std::is_same_v<Body, ElementMultimapBody>) {
        entries_.emplace_hint(at, std::move(key), element);
    } else {
        if (at != entries_.end())
            return false;
        entries_.emplace(std::move(key), element);
    }
    return true;
}

template <class K, class C, class Body>
void ReferenceAssociativeContainer<K, C, Body>::overwrite(ModelElement const &element) {
    entries_.find(keyFunction_(*element.get()))->second = element;
}

template <class K, class C, class Body>
bool ReferenceAssociativeContainer<K, C, Body>::unplace(ModelElement::Impl const *element) {
    auto const [at, held] = locate(keyFunction_(*element), element);
    if (held)
        entries_.erase(at);
    return held;
}

template <class K, class C, class Body>
void ReferenceAssociativeContainer<K, C, Body>::appendEntries(std::vector<ModelElement> &to) const {
    for (auto const &entry : entries_)
        to.push_back(entry.second);
}

template <class K, class C, class Body>
void ReferenceAssociativeContainer<K, C, Body>::copyEntries(ReferenceAssociativeBase const &other) {
    auto const &source = static_cast<ReferenceAssociativeContainer const &>(other);
    entries_ = source.entries_;
    // A copy kept by a change record reads keys as its original does.
    if (!keyFunction_)
        keyFunction_ = source.keyFunction_;
}

template <class K, class C, class Body>
std::vector<ModelElement> ReferenceAssociativeContainer<K, C, Body>::entriesUnder(Value const &key) const {
    std::vector<ModelElement> found;
    auto [first, last] = entries_.equal_range(keyFromValue<K>(key));
    for (; first != last; ++first)
        found.push_back(first->second);
    return found;
}

template <class K, class C, class Body>
std::vector<Value> ReferenceAssociativeContainer<K, C, Body>::distinctKeys(meta::Type const &keyType) const {
    std::vector<Value> keys;
    // Equal keys stand next to each other in every form.
    for (auto at = entries_.begin(); at != entries_.end(); at = entries_.equal_range(at->first).second)
        keys.emplace_back(keyType, at->first);
    return keys;
}

template <class K, class C, class Body> meta::Type ReferenceAssociativeContainer<K, C, Body>::nativeKeyType() const {
    return Value(K{}).getType();
}

#define KIVRA_KEYED_FORMS(K)                                                                                          \
    template class ReferenceAssociativeContainer<K, std::map<K, ModelElement>, ElementMapBody>;                       \
    template class ReferenceAssociativeContainer<                                                                      \
        K, std::unordered_map<K, ModelElement, services::hashers::KeyHasher<K>>, ElementMapBody>;                      \
    template class ReferenceAssociativeContainer<K, std::multimap<K, ModelElement>, ElementMultimapBody>;             \
    template class ReferenceAssociativeContainer<                                                                      \
        K, std::unordered_multimap<K, ModelElement, services::hashers::KeyHasher<K>>, ElementMultimapBody>;
#include <kivra/detail/KeyTypes.def>

} // namespace kivra
