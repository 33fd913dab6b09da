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
#include <bit>
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
        giveBlock(block.memory, block.size);
}

void RecordArena::grow(std::size_t size) {
    std::size_t const unit = blocks_.size() < heapBlocks ? heapBlock : hugePageSize;
    std::size_t const blockSize = (size + unit - 1) / unit * unit;
    blocks_.reserve(blocks_.size() + 1);
    void *const memory = takeBlock(blockSize);
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
    std::size_t const capacity = std::min(firstChunk << std::min<std::size_t>(chunks_.size(), 16), largestChunk);
    chunks_.reserve(chunks_.size() + 1);
    auto *const slots = static_cast<std::uint64_t *>(arena.allocate(capacity * sizeof(std::uint64_t)));
    if (!chunks_.empty()) {
        // An entry never straddles two chunks: the words it does not fit into stay empty.
        Chunk &last = chunks_.back();
        std::fill(last.slots + last.used, last.slots + last.capacity, 0);
        last.used = last.capacity;
    }
    chunks_.push_back({slots, 0, 0, std::uint32_t(capacity), false});
}

// The old bytes of a member are the low bytes of a word wherever they are kept, and are
// put back from its first bytes.
static_assert(std::endian::native == std::endian::little);

namespace {
template <class T> std::uint64_t load(void const *member) noexcept {
    T value;
    std::memcpy(&value, member, sizeof value);
    return value;
}

/// The `size` bytes at `member`, in the low bytes of a word: one load of a size known here,
/// neither a call nor a narrow store read back wide.
std::uint64_t bytesOf(void const *member, std::size_t size) noexcept {
    switch (size) {
    case 1: return load<std::uint8_t>(member);
    case 2: return load<std::uint16_t>(member);
    case 4: return load<std::uint32_t>(member);
    case 8: return load<std::uint64_t>(member);
    default: {
        std::uint64_t bytes = 0;
        std::memcpy(&bytes, member, size);
        return bytes;
    }
    }
}
} // namespace

void RecordLog::append(Changes *record) {
    *take(1) = reinterpret_cast<std::uintptr_t>(record);
    record->addRef();
    if (indexed_)
        index_.emplace(record->getElement().get(), record);
}

std::size_t RecordLog::shapeOf(Shape const &shape) {
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
    Shape const wanted{index, static_cast<std::byte const *>(member) - reinterpret_cast<std::byte const *>(element),
                       size};
    // A transaction mostly changes one member of many elements in a row.
    std::size_t const shape =
        lastShape_ < shapes_.size() && shapes_[lastShape_] == wanted ? lastShape_ : shapeOf(wanted);
    if (shape == maxShapes || (address & ~pointerBits) != 0 || (address & tagBits) != 0)
        return false;
    std::uint64_t const old = bytesOf(member, size);
    if (size <= 4 && shape < (1u << shortShapeBits) && address % 8 == 0) {
        if (chunks_.empty() || chunks_.back().used == chunks_.back().capacity) [[unlikely]]
            grow();
        Chunk &last = chunks_.back();
        // The first short entry of a chunk sets the base that the others count from.
        if (last.base == 0)
            last.base = address;
        std::intptr_t const distance = std::intptr_t(address - last.base) / 8;
        if (distance >= -farthest && distance < farthest) [[likely]] {
            last.slots[last.used++] = old << 32 | std::uint64_t(std::uint32_t(distance) << distanceShift) |
                                      std::uint64_t(shape) << 2 | shortTag;
            ++count_;
            element->addRef(); // as a record holds its element
            noteScalar(1);
            return true;
        }
    }
    std::uint64_t *const words = take(2);
    chunks_.back().hasLong = true;
    words[0] = address | std::uint64_t(shape) << shapeShift | longTag;
    words[1] = old;
    element->addRef();
    noteScalar(2);
    return true;
}

void RecordLog::restore(Entry const &entry) const noexcept {
    Shape const &shape = shapes_[entry.shape_];
    auto *const member = reinterpret_cast<std::byte *>(entry.element_) + shape.offset;
    switch (shape.size) {
    case 1: std::memcpy(member, &entry.old_, 1); break;
    case 2: std::memcpy(member, &entry.old_, 2); break;
    case 4: std::memcpy(member, &entry.old_, 4); break;
    case 8: std::memcpy(member, &entry.old_, 8); break;
    default: std::memcpy(member, &entry.old_, shape.size); break;
    }
}

void RecordLog::erase(Changes *record) noexcept {
    for (std::size_t chunk = chunks_.size(); chunk-- > 0;) {
        Chunk const &in = chunks_[chunk];
        std::uint64_t *found = nullptr;
        for (std::size_t at = 0; at < in.used; at += slotsOf(in.slots[at]))
            if (in.slots[at] == reinterpret_cast<std::uintptr_t>(record))
                found = in.slots + at;
        if (found) {
            *found = 0;
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
    Entry entry;
    for (std::size_t chunk = firstScalarChunk_; chunk < chunks_.size(); ++chunk) {
        Chunk const &in = chunks_[chunk];
        for (std::size_t at = chunk == firstScalarChunk_ ? firstScalarWord_ : 0; at < in.used;) {
            if (in.slots[at] == 0) {
                ++at;
                continue;
            }
            std::size_t const words = decode(in, at, entry);
            if (!entry.isScalar()) {
                at += words;
                continue;
            }
            // A failure leaves this entry and the later ones as they are.
            firstScalarChunk_ = chunk;
            firstScalarWord_ = at;
            ModelElement::Impl *const element = entry.element_;
            Shape const shape = shapes_[entry.shape_];
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
            in.slots[at] = reinterpret_cast<std::uintptr_t>(record);
            if (words == 2)
                in.slots[at + 1] = 0;
            element->removeRef(); // the entry's count: the record holds one now
            if (indexed_)
                index_.emplace(element, record);
            at += words;
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
