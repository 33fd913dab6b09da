#pragma once
// Not API: the hash that the library's own open-addressing tables of elements use.

#include <boost/uuid/uuid.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kivra::detail {

/// The hash of element tables: both halves of the UUID, mixed. A drawn UUID is random
/// in its first half alone, but UUIDs a user gives (from a file, numbered by hand, from
/// another system) may share it, and one shared word would put them all in one run.
inline std::size_t uuidHash(boost::uuids::uuid const &uuid) noexcept {
    std::uint64_t words[2];
    std::memcpy(words, uuid.data, sizeof words);
    std::uint64_t hash = words[0] ^ (words[1] * 0x9E3779B97F4A7C15ull);
    hash ^= hash >> 32;
    hash *= 0xD6E8FEB86659FD93ull;
    hash ^= hash >> 32;
    return static_cast<std::size_t>(hash);
}

/// Boost's 64-bit `hash_combine`, written out so that hashes the library gives do not
/// change with Boost: `value` mixed into `seed`.
constexpr std::uint64_t hashCombine(std::uint64_t seed, std::uint64_t value) noexcept {
    constexpr std::uint64_t m = 0xc6a4a7935bd1e995ull;
    value *= m;
    value ^= value >> 47;
    value *= m;
    seed ^= value;
    seed *= m;
    return seed + 0xe6546b64;
}

} // namespace kivra::detail
