#include <kivra/ElementSequence.hpp>

#include "collections/OwnFarEnd.hpp"
#include "collections/QuietChange.hpp"
#include "core/DeferredReleases.hpp"
#include "core/Uncounted.hpp"

#include <kivra/detail/References.hpp>

#include <kivra/ElementId.hpp>
#include <kivra/Messages.hpp>
#include <kivra/Model.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Property.hpp>

#include <absl/container/flat_hash_map.h>
#include <boost/optional/optional.hpp>

#include <algorithm>

namespace kivra {

namespace detail {
/// The exact membership of a large unique sequence: how often each element stands in it.
class MembershipIndex {
public:
    void add(ModelElement::Impl const *element) { ++counts_[element]; }
    void remove(ModelElement::Impl const *element) {
        auto const found = counts_.find(element);
        if (found != counts_.end() && --found->second == 0)
            counts_.erase(found);
    }
    bool contains(ModelElement::Impl const *element) const { return counts_.contains(element); }

private:
    absl::flat_hash_map<ModelElement::Impl const *, std::uint32_t> counts_;
};
} // namespace detail

namespace {
using Tag = ModelElement::Impl::ReflectionPrivateTag;

bool isProxy(ModelElement const &element) { return element.get() && element->isProxy(); }
} // namespace

ElementSequenceBase::ElementSequenceBase(ModelElement::Impl *owner, bool unique, meta::Property::Impl *property,
                                         meta::Property::Impl *opposite, EntryClass entryClass)
    : ReferenceCollection(owner, property, opposite, &view_),
      entries_(Container::allocator_type(owner ? owner->getModelImpl() : nullptr)), entryClass_(entryClass),
      unique_(unique) {}

ElementSequenceBase::~ElementSequenceBase() {
    // A model that goes as a whole takes the entries' references over, to drop in batches.
    if (owner_)
        if (detail::DeferredReleases *const batch = detail::DeferredReleases::forModel(owner_->getModelImpl()))
            for (ModelElement &entry : entries_)
                batch->take(entry);
    // As for a set: the entries are asked for before the first is let go.
    for (ModelElement const &entry : entries_)
        if (ModelElement::Impl *element = entry.get())
            __builtin_prefetch(element, 1);
}

meta::Type ElementSequenceBase::getCollectionType() const { return entryClass_(); }

// --- Membership ------------------------------------------------------------------------

bool ElementSequenceBase::holds(ModelElement::Impl const *element) const {
    if (index_)
        return index_->contains(element);
    if (filter_ && !filter_->contains(element->getUuid()))
        return false;
    for (ModelElement const &entry : entries_)
        if (entry.get() == element)
            return true;
    return false;
}

bool ElementSequenceBase::contains(ModelElement const &element) const {
    ModelElement::Impl const *const impl = element.get();
    if (!impl || impl->isProxy())
        return false;
    if (owner_) {
        // A child's container link names the one collection that holds it.
        if (isComposite())
            return impl->containerImpl() == owner_ && impl->containmentFeatureImpl() == property_.get();
        // A single-valued far end names the one owner that holds the element.
        if (opposite_ && opposite_->getUpper() == 1) {
            Value const far = impl->getPropertyValue(meta::Property::fromImpl(opposite_), Tag::PUBLIC_ACCESS);
            if (isCollection(far.getFlags()))
                raise<messages::CannotCastIncompatibleTypes>(far.getType() ? far.getType()->getQualifiedName()
                                                                           : basalt::ustring());
            return far.getElement().get() == owner_;
        }
    }
    return holds(impl);
}

void ElementSequenceBase::noteAdded(ModelElement::Impl const *element) {
    if (!element || element->isProxy()) {
        mayHoldProxies_ = mayHoldProxies_ || element;
        return;
    }
    if (index_)
        index_->add(element);
    else if (filter_)
        filter_->add(element->getUuid());
    grow();
}

void ElementSequenceBase::noteRemoved(ModelElement::Impl const *element) {
    if (!element || element->isProxy())
        return;
    if (index_)
        index_->remove(element);
    else if (filter_)
        filter_->remove(element->getUuid());
}

void ElementSequenceBase::grow() {
    if (index_ || !wantsMembership())
        return;
    if (entries_.size() >= indexThreshold || !filter_)
        rebuildMembership();
}

void ElementSequenceBase::rebuildMembership() {
    filter_.reset();
    index_.reset();
    mayHoldProxies_ = std::any_of(entries_.begin(), entries_.end(), isProxy);
    if (!wantsMembership())
        return;
    if (entries_.size() >= indexThreshold) {
        index_ = std::make_unique<detail::MembershipIndex>();
        for (ModelElement const &entry : entries_)
            if (!isProxy(entry))
                index_->add(entry.get());
    } else {
        filter_ = std::make_unique<SaturatedBloomFilter>();
        for (ModelElement const &entry : entries_)
            if (!isProxy(entry))
                filter_->add(entry->getUuid());
    }
}

// --- Proxies ---------------------------------------------------------------------------

ModelElement ElementSequenceBase::resolutionOf(std::size_t index) const {
    ModelElement resolved = resolveProxy(entries_[index]);
    if (!resolved.get() || resolved->isProxy())
        return {};
    // Across a non-composite association the far end must hold the owner too; the owner's
    // own far end is this list, which holds the proxy, and asked it would resolve the proxy
    // behind the caller's back.
    if (opposite_ && !isComposite() &&
        !detail::isOwnFarEnd(resolved.get(), owner_, property_.get(), opposite_)) {
        if (!owner_ || !owner_->_inverseContainsThis(resolved.get(), meta::Property::fromImpl(opposite_)))
            return {};
    }
    return resolved;
}

bool ElementSequenceBase::resolveInplace(std::size_t index, bool recorded) const {
    ModelElement &entry = entries_[index];
    if (!isProxy(entry))
        return true;
    ModelElement resolved = resolutionOf(index);
    if (!resolved.get() || (!recorded && resolved->isNewInTransaction()))
        return false;
    entry = std::move(resolved);
    const_cast<ElementSequenceBase *>(this)->noteAdded(entry.get());
    return true;
}

bool ElementSequenceBase::readsAs(std::size_t index, ModelElement const &element) const {
    ModelElement const &entry = entries_[index];
    return entry == element || (isProxy(entry) && resolveAtIndex(index) == element);
}

ModelElement ElementSequenceBase::resolveAtIndex(std::size_t index) const {
    ModelElement const &entry = entries_[index];
    if (!isProxy(entry))
        return entry;
    // Readers of a frozen model, on several threads at once, store nothing: each gets the
    // element, and the entry stays the proxy until the thaw, as a single reference's does.
    // An element new in a transaction is an answer alone until the transaction ends.
    if (!owner_)
        return entry;
    ModelElement resolved = resolutionOf(index);
    if (!resolved.get())
        return entry;
    if (!detail::mayStoreResolution(*owner_, *resolved.get()))
        return resolved;
    entries_[index] = resolved;
    const_cast<ElementSequenceBase *>(this)->noteAdded(resolved.get());
    return resolved;
}

void ElementSequenceBase::resolveAll() {
    if (!mayHoldProxies_)
        return;
    bool left = false;
    for (std::size_t i = 0; i < entries_.size(); ++i)
        left = !resolveInplace(i) || left;
    mayHoldProxies_ = left;
}

void ElementSequenceBase::resolveLocal() {
    if (!mayHoldProxies_)
        return;
    for (std::size_t i = 0; i < entries_.size(); ++i)
        if (isProxy(entries_[i]))
            if (boost::optional<ProxyId> const id = entries_[i]->getProxyId(); id && !id->getModelId())
                resolveInplace(i);
}

void ElementSequenceBase::replaceProxy(ModelElement const &element, std::size_t index) {
    // Reached through the untyped base by whoever resolved the proxy, with a position and an
    // element of its own: a live entry replaced here would keep its far end, and an element
    // of another class would be read as the entry class.
    if (!element.get())
        return;
    if (index >= entries_.size() || !isProxy(entries_[index]) || !element->isValidNonProxy())
        raise<messages::InvalidValue>();
    checkEntryClass(element, entryClass_());
    checkCompatibleModel(element.get());
    basicReplaceProxy(element, index);
    associate(element.get());
}

void ElementSequenceBase::basicReplaceProxy(ModelElement const &element, std::size_t index) {
    noteRemoved(entries_[index].get());
    entries_[index] = element;
    noteAdded(element.get());
}

bool ElementSequenceBase::basicContainsProxyTo(ModelElement const &element) {
    if (!owner_)
        return false;
    for (ModelElement &entry : entries_) {
        if (entry == element)
            return true;
        if (isProxy(entry)) {
            ModelElement const resolved = peekResolveProxy(entry);
            if (resolved.get() && !resolved->isProxy() && resolved == element) {
                entry = element;
                noteAdded(element.get());
                return true;
            }
        }
    }
    return false;
}

ElementSequenceBase::Container const &
ElementSequenceBase::toSTLCollectionWithResolvedProxies(ProxyResolutionStrategy strategy) {
    if (strategy == ProxyResolutionStrategy::ResolveAll)
        resolveAll();
    else if (strategy == ProxyResolutionStrategy::ResolveLocal)
        resolveLocal();
    return entries_;
}

std::vector<ModelElement> ElementSequenceBase::getAllValues() const {
    std::vector<ModelElement> values;
    values.reserve(entries_.size());
    for (std::size_t i = 0; i < entries_.size(); ++i)
        if (ModelElement entry = resolveAtIndex(i); !isProxy(entry))
            values.push_back(std::move(entry));
    return values;
}

namespace {

void growForOne(ElementSequenceBase::Container &entries) {
    // Most lists of a model hold a few entries: the first allocation makes room for two,
    // where growth from one would allocate twice. A long list grows by half, not double:
    // a model's largest lists are most of its memory beside the elements, and a handle is
    // cheap to move.
    if (std::size_t const capacity = entries.capacity(); entries.size() == capacity)
        entries.reserve(capacity < 2 ? 2 : capacity + capacity / 2);
}

/// Appends `element`, which may be one of `entries`: growing moves them away, so it is
/// counted first, with the count the stored entry takes anyway.
void appendEntry(ElementSequenceBase::Container &entries, ModelElement const &element) {
    ModelElement entry = element;
    growForOne(entries);
    entries.push_back(std::move(entry));
}

} // namespace

// --- The public level: with association --------------------------------------------

void ElementSequenceBase::push_back(ModelElement const &element) {
    ModelElement::Impl *const impl = element.get();
    if (!impl)
        return;
    // The newcomer's header and its members past the first line (where a far end's
    // collection usually is) are asked for together: in a large model neither is in cache.
    __builtin_prefetch(reinterpret_cast<char const *>(impl) + 64);
    // A list whose entries' class is known only at run time tests each newcomer as it
    // stores it: it takes the general path, which stores through that test.
    bool const typed = entryClass_ != &ModelElement::metaClass;
    // Whether a newcomer is to be noted: a short list keeps no filter or index of its entries.
    auto const keepsMembership = [this] { return index_ || filter_ || wantsMembership(); };
    if (typed && owner_ && !opposite_ && isComposite() && impl->isValidNonProxy() && impl->isTopLevel()) {
        // Room first: once the child is taken, nothing may fail. A live top-level element
        // is none of the entries, which are the owner's children or proxies: growing the
        // list leaves `element` where it is.
        growForOne(entries_);
        if (ModelElement::Impl *const child = owner_->_adoptQuietly(impl, property_.get())) {
            entries_.push_back(ModelElement(child, /*addReference=*/false));
            if (keepsMembership())
                noteAdded(child);
            return;
        }
    } else if (typed && owner_ && opposite_ && impl->getModelImpl() == owner_->getModelImpl() && impl->isValidNonProxy() &&
               !isComposite() && owner_->_changesQuietly()) {
        // A link between two live elements of the model, in a transaction that keeps and
        // tells nothing: neither end has anything to check, record or announce.
        // A far end whose collection is made already takes the owner straight into it, as
        // its own hook for the opposite would after finding which property is meant. While
        // a document is read, a many-valued far end arrives by itself: the hook's way knows.
        // It is found first and asked for: in a large model it is rarely in cache, and this
        // end's work can stand while it comes.
        auto const *far = owner_->getModelImpl()->isParsingInProgress()
                              ? nullptr
                              : static_cast<ReferenceCollection const *>(impl->nativeValueAddress(*opposite_));
        if (far) {
            __builtin_prefetch(far, 1);
            __builtin_prefetch(reinterpret_cast<char const *>(far) + 64, 1);
        }
        // A far end of many holds the owner as often as the list holds it: the list is asked.
        if (unique_ && (opposite_->getUpper() == 1 ? contains(element) : holds(impl)))
            return;
        appendEntry(entries_, element);
        if (keepsMembership())
            noteAdded(impl);
        // An owner linked to itself is its own far end: this list, which holds it now.
        if (far == this)
            return;
        detail::QuietChange const quiet(owner_->getModelImpl());
        if (far)
            const_cast<ReferenceCollection *>(far)->basicAddQuietly(detail::Uncounted<ModelElement>(owner_));
        else
            associate(impl);
        return;
    }
    checkCompatibleModel(element.get());
    if (unique_ && contains(element))
        return;
    Operation operation(*this);
    // `element` may be one of the entries, which growing moves: `impl` is what it names.
    basicAdd(element);
    associate(impl);
    operation.commit();
}

std::size_t ElementSequenceBase::insert(std::size_t position, ModelElement const &element) {
    if (!element.get())
        return entries_.size();
    checkCompatibleModel(element.get());
    if (unique_ && contains(element))
        return std::size_t(std::find(entries_.begin(), entries_.end(), element) - entries_.begin());
    Operation operation(*this);
    modifying();
    // `element` may be one of the entries, which the insertion moves: `impl` is what it names.
    ModelElement::Impl *const impl = element.get();
    entries_.insert(entries_.begin() + std::ptrdiff_t(position), element);
    associate(impl);
    noteAdded(impl);
    operation.commit();
    return position;
}

void ElementSequenceBase::dissociateAt(std::size_t index) {
    if (hasFarEnd())
        resolveInplace(index, /*recorded=*/true);
    dissociate(entries_[index].get());
}

std::size_t ElementSequenceBase::erase(std::size_t position) {
    Operation operation(*this);
    modifying();
    if (hasFarEnd() || filter_ || index_)
        resolveInplace(position, /*recorded=*/true);
    ModelElement const entry = entries_[position];
    dissociate(entry.get());
    // The far end reaches back only through the store-only level; should it have taken
    // the entry out already, nothing is left to do.
    std::size_t at = position;
    if (at >= entries_.size() || entries_[at] != entry)
        at = std::size_t(std::find(entries_.begin(), entries_.end(), entry) - entries_.begin());
    if (at < entries_.size()) {
        noteRemoved(entry.get());
        entries_.erase(entries_.begin() + std::ptrdiff_t(at));
    }
    operation.commit();
    return position;
}

void ElementSequenceBase::pop_back() {
    Operation operation(*this);
    modifying();
    ModelElement const entry = entries_.back();
    dissociate(entry.get());
    if (!entries_.empty() && entries_.back() == entry) {
        noteRemoved(entry.get());
        entries_.pop_back();
    }
    operation.commit();
}

void ElementSequenceBase::erase(std::size_t first, std::size_t last) {
    if (first >= last)
        return;
    Operation operation(*this);
    modifying();
    if (hasFarEnd() || filter_ || index_)
        for (std::size_t i = first; i < last; ++i) {
            dissociateAt(i);
            noteRemoved(entries_[i].get());
        }
    entries_.erase(entries_.begin() + std::ptrdiff_t(first), entries_.begin() + std::ptrdiff_t(last));
    operation.commit();
}

void ElementSequenceBase::erase(ModelElement const &element) {
    if (!element.get())
        return;
    // Compared by what each entry reads as: the erase stores a proxy's element only once
    // the change is recorded.
    for (std::size_t i = 0; i < entries_.size(); ++i)
        if (readsAs(i, element)) {
            erase(i);
            return;
        }
}

void ElementSequenceBase::swap(std::size_t a, std::size_t b) {
    Operation operation(*this);
    modifying();
    std::swap(entries_[a], entries_[b]);
    operation.commit();
}

void ElementSequenceBase::resize(std::size_t n) {
    ModelElement::BuilderWrapper builder;
    // Only growing needs a builder: shrinking asks nothing of the registry.
    if (n > entries_.size() && owner_)
        builder = ModelElement::BuilderWrapper(
            meta::MetaRegistry::getInstance()->instantiateBuilder(entryClass_(), owner_->getModel()));
    doResize(n, builder.get());
}

void ElementSequenceBase::resize(std::size_t n, ModelElement::BuilderWrapper const &builder) {
    meta::Class const &entryClass = entryClass_();
    if (builder.get()) {
        meta::Class const &cls = builder->getMetaClass();
        if (!cls || !cls->isA(entryClass))
            raise<messages::CannotAddIncompatibleTypes>(cls ? cls->getQualifiedName() : basalt::ustring(),
                                                        entryClass ? entryClass->getQualifiedName() : basalt::ustring());
        // A builder of another model would make the first child there before the list
        // refuses it, and leave it behind.
        if (n > entries_.size() && owner_ && isComposite() && builder->getModel() &&
            builder->getModel().get() != owner_->getModelImpl())
            raise<messages::CannotChangeModel>();
    }
    doResize(n, builder.get());
}

void ElementSequenceBase::doResize(std::size_t n, ModelElement::Builder *builder) {
    if (entries_.size() == n)
        return;
    Operation operation(*this);
    modifying();
    if (n > entries_.size()) {
        if (!builder || !owner_) {
            meta::Class const &cls = entryClass_();
            raise<messages::NoSuchOperation>(basalt::ustring(u"create"),
                                             cls ? cls->getQualifiedName() : basalt::ustring());
        }
        if (!builder->getModel())
            builder->setModel(owner_->getModel());
        entries_.reserve(n);
        while (entries_.size() < n)
            push_back(builder->create());
    } else {
        erase(n, entries_.size());
    }
    operation.commit();
}

void ElementSequenceBase::assignAt(std::size_t index, ModelElement const &element) {
    if (resolveAtIndex(index) == element)
        return;
    if (!element.get())
        raise<messages::CannotAddNonExistentObject>();
    if (unique_ && contains(element))
        raise<messages::CannotAddSecondObject>();
    replaceElement(index, element);
}

void ElementSequenceBase::replaceElement(std::size_t index, ModelElement const &given) {
    // `given` may be one of the entries, which the far ends may move: a handle of its own.
    ModelElement const element = given;
    checkCompatibleModel(element.get());
    Operation operation(*this);
    modifying();
    resolveInplace(index, /*recorded=*/true);
    ModelElement const old = entries_[index];
    // The new far end is told first, then the old one.
    if (opposite_) {
        associate(element.get());
        dissociate(old.get());
    } else if (isComposite()) {
        associate(element.get());
        dissociate(old.get());
    }
    // The new element's far end may have moved entries of this very collection.
    std::size_t at = index;
    if (at >= entries_.size() || entries_[at] != old)
        at = std::size_t(std::find(entries_.begin(), entries_.end(), old) - entries_.begin());
    if (at < entries_.size()) {
        noteRemoved(old.get());
        entries_[at] = element;
    } else {
        entries_.push_back(element);
    }
    noteAdded(element.get());
    operation.commit();
}

// --- The store-only level ------------------------------------------------------------

void ElementSequenceBase::basicAdd(ModelElement const &element) {
    Operation operation(*this);
    modifying();
    ModelElement::Impl *const impl = element.get();
    appendEntry(entries_, element);
    noteAdded(impl);
    operation.commit();
}

void ElementSequenceBase::basicRemove(ModelElement const &element) {
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (!readsAs(i, element))
            continue;
        Operation operation(*this);
        modifying();
        noteRemoved(element.get());
        entries_.erase(entries_.begin() + std::ptrdiff_t(i));
        operation.commit();
        return;
    }
}

void ElementSequenceBase::basicAssign(std::vector<ModelElement> const &elements) {
    Operation operation(*this);
    modifying();
    entries_.assign(elements.begin(), elements.end());
    rebuildMembership();
    operation.commit();
}

ElementSequenceBase::Container ElementSequenceBase::basicTakeAll() {
    modifying();
    Container taken = std::exchange(entries_, Container(entries_.get_allocator()));
    index_.reset();
    mayHoldProxies_ = false;
    return taken;
}

void ElementSequenceBase::basicClear() {
    modifying();
    entries_.clear();
    // An index must stay exact; a filter may overstate.
    index_.reset();
    mayHoldProxies_ = false;
}

void ElementSequenceBase::basicCopyValues(ReferenceCollection const &other) {
    Operation operation(*this);
    modifying();
    assignFrom(other);
    operation.commit();
}

void ElementSequenceBase::assignFrom(ReferenceCollection const &other) {
    entries_ = static_cast<ElementSequenceBase const &>(other).entries_;
    rebuildMembership();
}

// --- The generic view ----------------------------------------------------------------

namespace {
// The generic view serves readers and reflection, whose positions come from outside: a
// position past the end (or, to insert, past one beyond it) is refused rather than read.
void checkPosition(std::size_t index, std::size_t size) {
    if (index >= size)
        raise<messages::InvalidValue>();
}
} // namespace

std::size_t ElementSequenceBase::GenericSequence::genericSize() const { return sequence_.size(); }

void ElementSequenceBase::GenericSequence::genericAdd(ModelElement const &element) {
    if (element.get())
        checkEntryClass(element, sequence_.entryClass_());
    sequence_.push_back(element);
}

void ElementSequenceBase::GenericSequence::genericEnsureAt(ModelElement const &element, std::size_t index) {
    if (!element.get())
        return;
    checkEntryClass(element, sequence_.entryClass_());
    checkPosition(index, sequence_.size() + 1);
    Operation operation(sequence_);
    std::size_t const at = sequence_.insert(index, element);
    if (at != index && index < sequence_.size()) {
        sequence_.modifying();
        std::swap(sequence_.entries_[at], sequence_.entries_[index]);
    }
    operation.commit();
}

void ElementSequenceBase::GenericSequence::genericRemove(ModelElement const &element) {
    if (!element.get())
        return;
    checkEntryClass(element, sequence_.entryClass_());
    sequence_.erase(element);
}

void ElementSequenceBase::GenericSequence::genericClear() { sequence_.clear(); }

void ElementSequenceBase::GenericSequence::genericBasicClear() { sequence_.basicClear(); }

bool ElementSequenceBase::GenericSequence::genericContains(ModelElement const &element) const {
    return element.get() && isEntryClass(element, sequence_.entryClass_()) && sequence_.contains(element);
}

ModelElement ElementSequenceBase::GenericSequence::genericAt(std::size_t index) {
    checkPosition(index, sequence_.size());
    return sequence_.resolveAtIndex(index);
}

void ElementSequenceBase::GenericSequence::genericInsert(ModelElement const &element, std::size_t index) {
    if (element.get())
        checkEntryClass(element, sequence_.entryClass_());
    checkPosition(index, sequence_.size() + 1);
    sequence_.insert(index, element);
}

void ElementSequenceBase::GenericSequence::genericReplace(ModelElement const &element, std::size_t index) {
    if (!element.get())
        return;
    checkEntryClass(element, sequence_.entryClass_());
    checkPosition(index, sequence_.size());
    sequence_.assignAt(index, element);
}

void ElementSequenceBase::GenericSequence::genericRemoveAt(std::size_t index) {
    checkPosition(index, sequence_.size());
    sequence_.erase(index);
}

int ElementSequenceBase::GenericSequence::genericIndexOf(ModelElement const &element) {
    if (!element.get() || !isEntryClass(element, sequence_.entryClass_()))
        return -1;
    for (std::size_t i = 0; i < sequence_.size(); ++i)
        if (sequence_.resolveAtIndex(i) == element)
            return int(i);
    return -1;
}

} // namespace kivra
