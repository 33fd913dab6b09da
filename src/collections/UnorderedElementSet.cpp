#include <kivra/UnorderedElementSet.hpp>

#include "collections/OwnFarEnd.hpp"
#include "core/DeferredReleases.hpp"
#include "core/UuidHash.hpp"

#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/services/Hashers.hpp>

#include <boost/optional/optional.hpp>

#include <list>
#include <unordered_map>

namespace kivra {

namespace detail {

/// A proxy's key: the kind of identifier hashed as bytes, the identifier as a range of
/// code units; the model URI plays no part.
struct ProxyIdHasher {
    std::size_t operator()(ProxyId const &id) const noexcept {
        basalt::ustring const &kind = id.getIdentifierType();
        std::uint64_t const a = services::hashers::fnv1a(kind.data(), kind.size() * sizeof(char16_t));
        std::uint64_t b = 0;
        for (char16_t unit : id.getIdentifier())
            b = hashCombine(b, unit);
        return std::size_t(hashCombine(a, b));
    }
};

/// The unresolved proxies of a collection, in the order they arrived.
class ProxyTable {
public:
    using Entries = std::list<std::pair<ProxyId, ModelElement>>;

    bool insert(ProxyId const &id, ModelElement const &proxy) {
        if (index_.contains(id))
            return false;
        entries_.emplace_back(id, proxy);
        index_.emplace(id, std::prev(entries_.end()));
        return true;
    }
    bool erase(ProxyId const &id) {
        auto const found = index_.find(id);
        if (found == index_.end())
            return false;
        entries_.erase(found->second);
        index_.erase(found);
        return true;
    }
    Entries::iterator erase(Entries::iterator at) {
        index_.erase(at->first);
        return entries_.erase(at);
    }
    void clear() noexcept {
        index_.clear();
        entries_.clear();
    }
    Entries &entries() noexcept { return entries_; }
    Entries const &entries() const noexcept { return entries_; }

private:
    Entries entries_;
    std::unordered_map<ProxyId, Entries::iterator, ProxyIdHasher> index_;
};

} // namespace detail

namespace {
ProxyId proxyIdOf(ModelElement const &proxy) { return proxy->getPersistentProxyId(false); }
} // namespace

// --- The side table ------------------------------------------------------------------------

ReferenceCollectionWithProxies::ReferenceCollectionWithProxies(ModelElement::Impl *owner,
                                                               meta::Property::Impl *property,
                                                               meta::Property::Impl *opposite,
                                                               GenericCollectionInterface *genericInterface)
    : ReferenceCollection(owner, property, opposite, genericInterface) {}

ReferenceCollectionWithProxies::~ReferenceCollectionWithProxies() = default;

bool ReferenceCollectionWithProxies::hasUnresolved() const noexcept {
    return unresolved_ && !unresolved_->entries().empty();
}

std::size_t ReferenceCollectionWithProxies::unresolvedSize() const noexcept {
    return unresolved_ ? unresolved_->entries().size() : 0;
}

std::vector<ModelElement> ReferenceCollectionWithProxies::unresolvedProxies() const {
    std::vector<ModelElement> proxies;
    if (unresolved_)
        for (auto const &entry : unresolved_->entries())
            proxies.push_back(entry.second);
    return proxies;
}

void ReferenceCollectionWithProxies::addProxy(ModelElement const &proxy) {
    ProxyId const id = proxyIdOf(proxy);
    // A containment never crosses models.
    if (isComposite() && id.getModelId())
        raise<messages::CannotCreateCrossModelAssociation>();
    if (!unresolved_)
        unresolved_ = std::make_unique<detail::ProxyTable>();
    Operation operation(*this);
    modifying();
    unresolved_->insert(id, proxy);
    operation.commit();
}

void ReferenceCollectionWithProxies::removeProxy(ModelElement const &proxy) {
    if (!unresolved_)
        return;
    Operation operation(*this);
    modifying();
    unresolved_->erase(proxyIdOf(proxy));
    operation.commit();
}

void ReferenceCollectionWithProxies::clearUnresolved() noexcept {
    if (unresolved_)
        unresolved_->clear();
}

void ReferenceCollectionWithProxies::copyUnresolvedFrom(ReferenceCollectionWithProxies const &other) {
    if (!other.unresolved_) {
        unresolved_.reset();
        return;
    }
    unresolved_ = std::make_unique<detail::ProxyTable>();
    for (auto const &[id, proxy] : other.unresolved_->entries())
        unresolved_->insert(id, proxy);
}

void ReferenceCollectionWithProxies::resolveAll() {
    if (!owner_ || !unresolved_)
        return;
    auto &entries = unresolved_->entries();
    for (auto at = entries.begin(); at != entries.end();) {
        ModelElement const resolved = resolveProxy(at->second);
        // An element new in a transaction leaves the proxy where it is: a roll-back would
        // take the element away with nothing to bring the proxy back. Like any proxy that
        // has not resolved, it stays out of the size and the iteration till the commit.
        // The owner's own far end is this set, which holds the proxy: asked, it would take
        // the proxy out from under this loop.
        bool const accepted =
            resolved.get() && !resolved->isProxy() && !resolved->isNewInTransaction() &&
            (!opposite_ || detail::isOwnFarEnd(resolved.get(), owner_, property_.get(), opposite_) ||
             owner_->_inverseContainsThis(resolved.get(), getOpposite()));
        if (accepted && resolveAdd(resolved))
            at = unresolved_->erase(at);
        else
            ++at;
    }
}

void ReferenceCollectionWithProxies::resolveLocal() {
    if (!unresolved_)
        return;
    auto &entries = unresolved_->entries();
    for (auto at = entries.begin(); at != entries.end();) {
        if (at->first.getModelId()) {
            ++at;
            continue;
        }
        ModelElement const resolved = resolveProxy(at->second);
        if (resolved.get() && !resolved->isProxy() && !resolved->isNewInTransaction() && resolveAdd(resolved))
            at = unresolved_->erase(at);
        else
            ++at;
    }
}

void ReferenceCollectionWithProxies::basicAddWithProxy(ModelElement const &element) {
    if (element.get() && element->isProxy())
        addProxy(element);
    else
        basicAdd(element);
}

void ReferenceCollectionWithProxies::basicReplaceProxy(ModelElement const &element, std::size_t) {
    if (!unresolved_ || !element.get())
        return;
    // The proxy may have named the element with or without its model.
    for (bool local : {true, false}) {
        ProxyId const id = element->getPersistentProxyId(local);
        auto &entries = unresolved_->entries();
        auto const found = std::find_if(entries.begin(), entries.end(), [&](auto const &entry) { return entry.first == id; });
        if (found != entries.end()) {
            if (resolveAdd(element))
                unresolved_->erase(found);
            return;
        }
    }
}

void ReferenceCollectionWithProxies::replaceProxy(ModelElement const &element, std::size_t index) {
    std::size_t const before = unresolvedSize();
    basicReplaceProxy(element, index);
    if (unresolvedSize() < before)
        associate(element.get());
}

bool ReferenceCollectionWithProxies::basicContainsProxyTo(ModelElement const &element) {
    if (genericInterface_->genericContains(element))
        return true;
    if (!unresolved_)
        return false;
    auto &entries = unresolved_->entries();
    for (auto at = entries.begin(); at != entries.end(); ++at)
        if (peekResolveProxy(at->second) == element && resolveAdd(element)) {
            unresolved_->erase(at);
            return true;
        }
    return false;
}

// --- The hashed set ------------------------------------------------------------------------

ElementSetBase::ElementSetBase(ModelElement::Impl *owner, meta::Property::Impl *property,
                               meta::Property::Impl *opposite, EntryClass entryClass)
    : ReferenceCollectionWithProxies(owner, property, opposite, &view_), entryClass_(entryClass) {}

ElementSetBase::~ElementSetBase() {
    // A model that goes as a whole takes the entries' references over, to drop in batches.
    // The set goes with this object: entries left empty there are never looked up.
    if (owner_)
        if (detail::DeferredReleases *const batch = detail::DeferredReleases::forModel(owner_->getModelImpl()))
            for (ModelElement const &entry : entries_)
                batch->take(const_cast<ModelElement &>(entry));
}

meta::Type ElementSetBase::getCollectionType() const { return entryClass_(); }

std::pair<ElementSetBase::const_iterator, bool> ElementSetBase::insert(ModelElement const &element) {
    if (!element.get())
        return {entries_.end(), false};
    checkCompatibleModel(element.get());
    if (element->isProxy()) {
        addProxy(element);
        return {entries_.end(), false};
    }
    if (auto const found = entries_.find(element); found != entries_.end())
        return {found, false};
    Operation operation(*this);
    modifying();
    entries_.insert(element, owner_);
    associate(element.get());
    operation.commit();
    return {entries_.find(element), true};
}

ElementSetBase::const_iterator ElementSetBase::erase(const_iterator position) {
    Operation operation(*this);
    modifying();
    ModelElement const entry = *position;
    dissociate(entry.get());
    // Found again: the far end that let go may have reached this set on the way.
    const_iterator const found = entries_.find(entry);
    const_iterator const next = found == entries_.end() ? found : entries_.erase(found);
    operation.commit();
    return next;
}

void ElementSetBase::erase(const_iterator first, const_iterator last) {
    Operation operation(*this);
    modifying();
    std::vector<ModelElement> const leaving(first, last);
    if (hasFarEnd())
        for (ModelElement const &entry : leaving)
            dissociate(entry.get());
    for (ModelElement const &entry : leaving)
        entries_.erase(entry);
    operation.commit();
}

void ElementSetBase::erase(ModelElement const &element) {
    if (!element.get())
        return;
    if (element->isProxy()) {
        removeProxy(element);
        return;
    }
    if (auto const found = entries_.find(element); found != entries_.end())
        erase(found);
}

void ElementSetBase::clear() {
    Operation operation(*this);
    modifying();
    erase(entries_.begin(), entries_.end());
    clearUnresolved();
    operation.commit();
}

std::vector<ModelElement> ElementSetBase::getAllValues() const { return {entries_.begin(), entries_.end()}; }

std::vector<ModelElement> ElementSetBase::getAllValuesAndProxies() const {
    std::vector<ModelElement> values(entries_.begin(), entries_.end());
    for (ModelElement const &proxy : unresolvedProxies())
        values.push_back(proxy);
    return values;
}

void ElementSetBase::basicAdd(ModelElement const &element) {
    if (!element.get())
        return;
    entries_.prepareInsert();
    Operation operation(*this);
    modifying();
    entries_.insert(element, owner_);
    operation.commit();
}

void ElementSetBase::basicAddQuietly(ModelElement const &element) { entries_.insert(element, owner_); }

void ElementSetBase::basicRemove(ModelElement const &element) {
    if (element.get() && element->isProxy()) {
        removeProxy(element);
        return;
    }
    auto const found = entries_.find(element);
    if (found == entries_.end())
        return;
    Operation operation(*this);
    modifying();
    entries_.erase(element);
    operation.commit();
}

void ElementSetBase::basicAssign(std::vector<ModelElement> const &elements) {
    Operation operation(*this);
    modifying();
    clearUnresolved();
    entries_.clear();
    for (ModelElement const &element : elements)
        basicAddWithProxy(element);
    operation.commit();
}

void ElementSetBase::basicClear() {
    modifying();
    entries_.clear();
}

void ElementSetBase::basicCopyValues(ReferenceCollection const &other) {
    Operation operation(*this);
    modifying();
    assignFrom(other);
    operation.commit();
}

void ElementSetBase::assignFrom(ReferenceCollection const &other) {
    auto const &set = static_cast<ElementSetBase const &>(other);
    entries_ = set.entries_;
    copyUnresolvedFrom(set);
}

bool ElementSetBase::resolveAdd(ModelElement const &element) {
    return element.get() && entries_.insert(element, owner_).second;
}

// --- The generic view ----------------------------------------------------------------------

std::size_t ElementSetBase::WrapperInterface::genericSize() const { return set_.size(); }

bool ElementSetBase::WrapperInterface::genericEmpty() const { return set_.empty(); }

void ElementSetBase::WrapperInterface::genericAdd(ModelElement const &element) {
    if (element.get())
        checkEntryClass(element, set_.entryClass_());
    set_.insert(element);
}

void ElementSetBase::WrapperInterface::genericRemove(ModelElement const &element) {
    if (!element.get())
        return;
    checkEntryClass(element, set_.entryClass_());
    set_.erase(element);
}

void ElementSetBase::WrapperInterface::genericClear() { set_.clear(); }

void ElementSetBase::WrapperInterface::genericBasicClear() { set_.basicClear(); }

bool ElementSetBase::WrapperInterface::genericContains(ModelElement const &element) const {
    return element.get() && isEntryClass(element, set_.entryClass_()) && set_.contains(element);
}

} // namespace kivra
