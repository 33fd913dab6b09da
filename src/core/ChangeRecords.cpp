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
    forEachReverse([](Entry const &entry) {
        if (entry.isScalar())
            entry.element()->removeRef();
        else
            entry.record()->removeRef();
    });
}

ModelElement::Impl::Changes *RecordLog::find(ModelElement::Impl const *element) const {
    if (hasScalars_)
        const_cast<RecordLog *>(this)->materialize();
    if (!indexed_) {
        index_.reserve(count_);
        forEach([this](Entry const &entry) { index_.emplace(entry.element(), entry.record()); });
        indexed_ = true;
    }
    auto const found = index_.find(element);
    return found == index_.end() ? nullptr : found->second;
}

void RecordLog::grow() {
    std::size_t const capacity = capacityOf(chunks_.size());
    chunks_.reserve(chunks_.size() + 1);
    chunks_.push_back(static_cast<Entry *>(arena.allocate(capacity * sizeof(Entry))));
    used_ = 0;
}

RecordLog::Entry &RecordLog::push() {
    if (chunks_.empty() || used_ == capacityOf(chunks_.size() - 1)) [[unlikely]]
        grow();
    ++count_;
    return chunks_.back()[used_++];
}

void RecordLog::append(Changes *record) {
    Entry &entry = push();
    entry.tagged_ = reinterpret_cast<std::uintptr_t>(record);
    entry.old_ = 0;
    record->addRef();
    if (indexed_)
        index_.emplace(record->getElement().get(), record);
}

std::size_t RecordLog::shapeOf(Shape const &shape) {
    if (lastShape_ < shapes_.size() && shapes_[lastShape_] == shape)
        return lastShape_;
    if (auto const found = shapeNumbers_.find(shape); found != shapeNumbers_.end())
        return lastShape_ = found->second;
    if (shapes_.size() == maxShapes)
        return maxShapes;
    shapes_.reserve(shapes_.size() + 1);
    shapeNumbers_.emplace(shape, std::uint16_t(shapes_.size()));
    shapes_.push_back(shape);
    return lastShape_ = shapes_.size() - 1;
}

bool RecordLog::appendScalar(ModelElement::Impl *element, std::uint64_t index, void const *member, std::size_t size) {
    auto const address = reinterpret_cast<std::uintptr_t>(element);
    if (address & ~pointerBits)
        return false;
    std::size_t const shape = shapeOf({index,
                                       static_cast<std::byte const *>(member) -
                                           reinterpret_cast<std::byte const *>(element),
                                       size});
    if (shape == maxShapes)
        return false;
    std::size_t const chunk = chunks_.size();
    std::size_t const used = used_;
    Entry &entry = push();
    entry.old_ = 0;
    std::memcpy(&entry.old_, member, size);
    entry.tagged_ = address | scalarBit | std::uintptr_t(shape) << shapeShift;
    element->addRef(); // as a record holds its element
    if (!hasScalars_) {
        // The entry went into a new chunk when the last one was full.
        bool const fresh = chunk != chunks_.size();
        firstScalarChunk_ = fresh ? chunk : chunk - 1;
        firstScalarEntry_ = fresh ? 0 : used;
        hasScalars_ = true;
    }
    return true;
}

void RecordLog::restore(Entry const &entry) const noexcept {
    Shape const &shape = shapes_[entry.tagged_ >> shapeShift];
    std::memcpy(reinterpret_cast<std::byte *>(entry.element()) + shape.offset, &entry.old_, shape.size);
}

void RecordLog::erase(Changes *record) noexcept {
    for (std::size_t chunk = chunks_.size(); chunk-- > 0;) {
        Entry *const entries = chunks_[chunk];
        for (std::size_t i = chunk + 1 == chunks_.size() ? used_ : capacityOf(chunk); i-- > 0;)
            if (entries[i].tagged_ == reinterpret_cast<std::uintptr_t>(record)) {
                entries[i].tagged_ = 0;
                --count_;
                if (indexed_)
                    index_.erase(record->getElement().get());
                record->removeRef();
                return;
            }
    }
}

void RecordLog::materialize() {
    if (!hasScalars_)
        return;
    for (std::size_t chunk = firstScalarChunk_; chunk < chunks_.size(); ++chunk) {
        Entry *const entries = chunks_[chunk];
        std::size_t const count = chunk + 1 == chunks_.size() ? used_ : capacityOf(chunk);
        for (std::size_t i = chunk == firstScalarChunk_ ? firstScalarEntry_ : 0; i < count; ++i) {
            Entry &entry = entries[i];
            if (!entry.isScalar())
                continue;
            // A failure leaves this entry and the later ones as they are.
            firstScalarChunk_ = chunk;
            firstScalarEntry_ = i;
            ModelElement::Impl *const element = entry.element();
            Shape const shape = shapes_[entry.tagged_ >> shapeShift];
            ModelElement::Impl::Storage *record;
            {
                ArenaScope const inLog(arena);
                record = element->createStorage();
            }
            record->element_ = ModelElement::fromImpl(element);
            record->setModified(shape.index);
            // The element copies its member as it stands into the record: for that moment the
            // member holds its old bytes again.
            auto *const member = reinterpret_cast<std::byte *>(element) + shape.offset;
            struct PutBack {
                std::byte *member;
                std::size_t size;
                std::uint64_t present = 0;
                ~PutBack() { std::memcpy(member, &present, size); }
            } putBack{member, shape.size};
            std::memcpy(&putBack.present, member, shape.size);
            std::memcpy(member, &entry.old_, shape.size);
            try {
                element->copyValue(record, shape.index);
            } catch (...) {
                record->release();
                throw;
            }
            record->addRef();
            element->removeRef(); // the entry's count, the record holds one now
            entry.tagged_ = reinterpret_cast<std::uintptr_t>(record);
            entry.old_ = 0;
            if (indexed_)
                index_.emplace(element, record);
        }
    }
    hasScalars_ = false;
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
