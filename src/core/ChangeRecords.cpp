#include "core/Extensions.hpp"
#include "core/PageMemory.hpp"
#include "core/RecordLog.hpp"

#include <kivra/ChangeRecords.hpp>

#include <kivra/Messages.hpp>
#include <kivra/Value.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StructuredType.hpp>
#include <kivra/meta/detail/Metaclasses.hpp>

#include <algorithm>
#include <cstring>
#include <new>

namespace kivra {

using Changes = ModelElement::Impl::Changes;
using Storage = ModelElement::Impl::Storage;

namespace {

// The storage that records made on this thread go into, and the last record put there, so
// that its constructor knows where it lives. Initial-exec, as for the UUID source: a few
// bytes of the static TLS reserve spare each record a call to find them.
thread_local detail::RecordArena *activeArena __attribute__((tls_model("initial-exec"))) = nullptr;
thread_local void const *lastArenaRecord __attribute__((tls_model("initial-exec"))) = nullptr;

} // namespace

namespace detail {

RecordArena::~RecordArena() {
    for (Block const &block : blocks_)
        if (block.size == hugePageSize)
            giveHugePageRun(block.memory);
        else if (block.size > hugePageSize)
            unmapHugePages(block.memory, block.size);
        else
            ::operator delete(block.memory, block.size);
}

void RecordArena::grow(std::size_t size) {
    std::size_t const unit = blocks_.size() < heapBlocks ? heapBlock : hugePageSize;
    std::size_t const blockSize = (size + unit - 1) / unit * unit;
    blocks_.reserve(blocks_.size() + 1);
    void *const memory = blockSize == hugePageSize ? takeHugePageRun()
                         : blockSize > hugePageSize  ? mapHugePages(blockSize)
                                                     : ::operator new(blockSize);
    blocks_.push_back({memory, blockSize});
    next_ = static_cast<std::byte *>(memory);
    left_ = blockSize;
}

ArenaScope::ArenaScope(RecordArena &arena) noexcept
    : previous_(std::exchange(activeArena, &arena)), previousRecord_(lastArenaRecord) {}

ArenaScope::~ArenaScope() {
    activeArena = previous_;
    // The record of the enclosing scope, allocated and not yet constructed, if any.
    lastArenaRecord = previousRecord_;
}

RecordLog::~RecordLog() {
    // Later records may name elements that earlier ones keep: the newest go first.
    for (auto entry = entries_.rbegin(); entry != entries_.rend(); ++entry)
        if (ScalarChange *scalar = scalarOf(*entry))
            scalar->~ScalarChange();
        else
            (*entry)->removeRef();
}

ModelElement::Impl::Changes *RecordLog::find(ModelElement::Impl const *element) const {
    records();
    if (!indexed_) {
        index_.reserve(entries_.size());
        for (Changes *record : entries_)
            index_.emplace(record->getElement().get(), record);
        indexed_ = true;
    }
    auto const found = index_.find(element);
    return found == index_.end() ? nullptr : found->second;
}

void RecordLog::append(Changes *record) {
    entries_.push_back(record);
    record->addRef();
    if (indexed_)
        index_.emplace(record->getElement().get(), record);
}

void RecordLog::appendScalar(ModelElement::Impl *element, std::uint64_t index, void const *member, std::size_t size) {
    entries_.push_back(nullptr);
    void *memory;
    try {
        memory = arena.allocate(sizeof(ScalarChange));
    } catch (...) {
        entries_.pop_back();
        throw;
    }
    auto *const scalar = new (memory) ScalarChange{ModelElement::fromImpl(element), 0, index,
                                                   static_cast<std::byte const *>(member) -
                                                       reinterpret_cast<std::byte const *>(element),
                                                   size};
    std::memcpy(&scalar->old, member, size);
    if (firstScalar_ == noScalar)
        firstScalar_ = entries_.size() - 1;
    entries_.back() = reinterpret_cast<Changes *>(reinterpret_cast<std::uintptr_t>(scalar) | 1);
}

void RecordLog::erase(Changes *record) noexcept {
    auto const found = std::find(entries_.rbegin(), entries_.rend(), record);
    if (found == entries_.rend())
        return;
    entries_.erase(std::next(found).base());
    if (indexed_)
        index_.erase(record->getElement().get());
    record->removeRef();
}

void RecordLog::materialize() {
    for (std::size_t i = firstScalar_; i < entries_.size(); ++i) {
        ScalarChange *const scalar = scalarOf(entries_[i]);
        if (!scalar)
            continue;
        // A failure leaves this entry and the later ones as they are.
        firstScalar_ = i;
        ModelElement::Impl *const element = scalar->element.get();
        ModelElement::Impl::Storage *record;
        {
            ArenaScope const inLog(arena);
            record = element->createStorage();
        }
        record->element_ = scalar->element;
        record->setModified(scalar->index);
        // The element copies its member as it stands into the record: for that moment the
        // member holds its old bytes again.
        auto *const member = reinterpret_cast<std::byte *>(element) + scalar->offset;
        struct PutBack {
            std::byte *member;
            std::size_t size;
            std::uint64_t present = 0;
            ~PutBack() { std::memcpy(member, &present, size); }
        } putBack{member, scalar->size};
        std::memcpy(&putBack.present, member, scalar->size);
        std::memcpy(member, &scalar->old, scalar->size);
        element->copyValue(record, scalar->index);
        record->addRef();
        entries_[i] = record;
        if (indexed_)
            index_.emplace(element, record);
        scalar->~ScalarChange();
    }
    firstScalar_ = noScalar;
}

void ScalarChange::restore() const noexcept {
    std::memcpy(reinterpret_cast<std::byte *>(element.get()) + offset, &old, size);
}

} // namespace detail

// The class is the element's own, read there: a record holds no second reference, which
// would cost two atomic operations per record on a class every thread shares.
Changes::Changes(boost::uuids::uuid const &uuid, Model::Impl *model, meta::Class const &, std::uint64_t n)
    : uuid_(uuid), model_(model), bits_((n + 3 + 31) / 32, 0u), bitCount_(n + 3),
      inArena_(this == lastArenaRecord) {
    if (inArena_)
        lastArenaRecord = nullptr;
}

Changes::~Changes() = default;

meta::Class const &Changes::getMetaClass() const {
    static meta::Class const none;
    return element_.get() ? element_->getMetaClass() : none;
}

void *Changes::operator new(std::size_t size) {
    if (!activeArena)
        return ::operator new(size);
    void *record = activeArena->allocate(size);
    lastArenaRecord = record;
    return record;
}

void Changes::operator delete(void *pointer) noexcept {
    // A record whose construction failed gives its arena memory back with the arena.
    if (activeArena && activeArena->ownsRecent(pointer))
        return;
    ::operator delete(pointer);
}

void Changes::release() noexcept {
    if (inArena_)
        this->~Changes();
    else
        delete this;
}

bool Changes::setOldContainer(ModelElement const &, meta::Property const &) {
    bool const was = isContainerChanged();
    set(bitCount_ - 2);
    return was;
}

bool Changes::revertUnchanged(ModelElement::Impl *) { return true; }

bool Changes::setModified(std::uint64_t index) noexcept {
    bool const was = test(index);
    set(index);
    return was;
}

void Changes::clearModified(std::uint64_t index) noexcept { clear(index); }

bool Changes::isChanged(meta::Property const &property) const {
    if (!property)
        return false;
    // A property of another class shares index numbers with this one's: check the owner.
    meta::StructuredType const owner = meta::detail::owningTypeOf(property);
    if (meta::Class const &metaClass = getMetaClass(); owner.get() && metaClass.get() && !metaClass->isA(owner))
        return false;
    auto const index = property->getPropertyIndex();
    return index > 0 && isChanged(std::uint64_t(index));
}

bool Changes::any() const noexcept {
    return std::any_of(bits_.begin(), bits_.end(), [](std::uint32_t block) { return block != 0; });
}

Changes *Changes::createEmptyShallowCopy() const {
    auto *copy = new Changes(uuid_, model_, getMetaClass(), bitCount_ - 3);
    copy->element_ = element_;
    return copy;
}

bool Storage::setOldContainer(ModelElement const &oldContainer, meta::Property const &oldFeature) {
    bool const was = Changes::setOldContainer(oldContainer, oldFeature);
    if (!was) {
        oldContainer_ = oldContainer;
        oldContainmentFeature_ = oldFeature;
    }
    return was;
}

bool Storage::revertUnchanged(ModelElement::Impl *element) {
    if (isContainerChanged() && oldContainer_.get() == element->containerImpl() &&
        oldContainmentFeature_.get() == element->containmentFeatureImpl())
        clear(containerBit());
    return any();
}

Value Storage::getOldValue(meta::Property const &property, ReflectionPrivateTag const &) const {
    raise<messages::NoSuchProperty>(property ? property->getName() : basalt::ustring(),
                                    getMetaClass().get() ? getMetaClass()->getQualifiedName() : basalt::ustring());
}

} // namespace kivra
