#include <kivra/ElementImpl.hpp>

#include <boost/random/mersenne_twister.hpp>
#include <boost/random/random_device.hpp>

#include <memory>

namespace kivra {

namespace {

std::atomic<ElementImpl::InvalidateCallback> invalidateCallbackSlot{nullptr};

boost::random::mt19937 &threadGenerator() {
    // One generator per thread, so that drawing a UUID takes no lock. The whole state is
    // seeded from the system's entropy; seeding with one word would leave only 2^32
    // possible sequences.
    thread_local std::unique_ptr<boost::random::mt19937> generator = [] {
        boost::random::random_device device;
        auto engine = std::make_unique<boost::random::mt19937>();
        engine->seed(device);
        return engine;
    }();
    return *generator;
}

} // namespace

ElementImpl::ElementImpl(boost::uuids::uuid const &uuid, ElementValidity validity)
    : uuid_(uuid.is_nil() ? generateNewUuid() : uuid), validity_(validity) {}

boost::uuids::uuid ElementImpl::generateNewUuid() {
    auto &generator = threadGenerator();
    boost::uuids::uuid id;
    for (std::size_t i = 0; i < sizeof id.data; i += 4) {
        std::uint32_t const word = generator();
        for (std::size_t b = 0; b < 4; ++b)
            id.data[i + b] = static_cast<std::uint8_t>(word >> (8 * b));
    }
    id.data[8] = static_cast<std::uint8_t>((id.data[8] & 0x3F) | 0x80);
    id.data[6] = static_cast<std::uint8_t>((id.data[6] & 0x0F) | 0x40);
    return id;
}

void ElementImpl::setInvalidateCallback(InvalidateCallback callback) {
    InvalidateCallback expected = nullptr;
    invalidateCallbackSlot.compare_exchange_strong(expected, callback);
}

ElementImpl::InvalidateCallback ElementImpl::invalidateCallback() noexcept { return invalidateCallbackSlot.load(); }

void ElementImpl::removeRef() {
    if (refCount_.fetch_sub(1) == 1)
        deleteThis();
}

void ElementImpl::deleteThis() {
    // Guard before any destructor body runs: subclass destructors come first and may
    // make and drop handles of the dying object.
    guardAgainstReentrantDeletion();
    delete this;
}

void ElementImpl::invalidate() {
    validity_ = Invalid;
    if (auto callback = invalidateCallback())
        callback(this, nullptr);
}

} // namespace kivra
