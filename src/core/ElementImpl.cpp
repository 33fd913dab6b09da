#include <kivra/ElementImpl.hpp>

#include <boost/random/random_device.hpp>

#include <pthread.h>

#include <cstdint>
#include <cstring>

namespace kivra {

namespace {

std::atomic<ElementImpl::InvalidateCallback> invalidateCallbackSlot{nullptr};

/// The random source of new UUIDs: xoshiro256** per thread, so that drawing one takes no
/// lock and a few instructions. The whole 256-bit state comes from the system's entropy.
/// The state is plain data, so that the thread-local needs no guard on each access.
struct UuidSource {
    std::uint64_t state[4];
    bool seeded;

    static std::uint64_t rotl(std::uint64_t x, int k) noexcept { return (x << k) | (x >> (64 - k)); }

    std::uint64_t next() noexcept {
        std::uint64_t const result = rotl(state[1] * 5, 7) * 9;
        std::uint64_t const t = state[1] << 17;
        state[2] ^= state[0];
        state[3] ^= state[1];
        state[1] ^= state[2];
        state[0] ^= state[3];
        state[2] ^= t;
        state[3] = rotl(state[3], 45);
        return result;
    }

    void seed();
};

// Initial-exec: the access is an offset from the thread pointer instead of a call; the few
// bytes fit glibc's static TLS reserve even when the library is opened late.
thread_local UuidSource uuidSource __attribute__((tls_model("initial-exec"))) = {};

void reseedAfterFork() noexcept {
    // The child must not draw the parent's next UUIDs; only the forking thread lives on.
    uuidSource.seeded = false;
}

void UuidSource::seed() {
    static bool const registered = [] {
        pthread_atfork(nullptr, nullptr, reseedAfterFork);
        return true;
    }();
    (void)registered;
    boost::random::random_device device;
    do {
        for (std::uint64_t &word : state)
            word = (std::uint64_t(device()) << 32) | device();
    } while ((state[0] | state[1] | state[2] | state[3]) == 0);
    seeded = true;
}

} // namespace

ElementImpl::ElementImpl(boost::uuids::uuid const &uuid, ElementValidity validity)
    : uuid_(uuid.is_nil() ? generateNewUuid() : uuid), validity_(validity) {}

boost::uuids::uuid ElementImpl::generateNewUuid() {
    UuidSource &source = uuidSource;
    if (!source.seeded) [[unlikely]]
        source.seed();
    std::uint64_t const words[2] = {source.next(), source.next()};
    boost::uuids::uuid id;
    std::memcpy(id.data, words, sizeof id.data);
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
