#pragma once
/// \file
/// The hash functions of kivra's hashed containers.

#include <basalt/ustring.hpp>

#include <boost/uuid/uuid.hpp>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>

namespace boost::posix_time {
class ptime;
} // namespace boost::posix_time

namespace kivra::services::hashers {

/// FNV-1a over bytes, the text hash of every text-keyed table.
constexpr std::uint64_t fnv1a(void const *data, std::size_t size,
                              std::uint64_t hash = 0xcbf29ce484222325ull) noexcept {
    auto const *bytes = static_cast<unsigned char const *>(data);
    for (std::size_t i = 0; i < size; ++i) {
        hash ^= bytes[i];
        hash *= 0x100000001b3ull;
    }
    return hash;
}

/// The hash functor of kivra's hashed containers: `std::hash<K>` except for the types
/// specialised below.
template <class K> struct KivraHasher : std::hash<K> {};

/// A UUID is already random: its first 8 bytes, read as one word, are the hash.
template <> struct KivraHasher<boost::uuids::uuid> {
    std::size_t operator()(boost::uuids::uuid const &id) const noexcept {
        std::uint64_t word;
        std::memcpy(&word, id.data, sizeof word);
        return static_cast<std::size_t>(word);
    }
};

/// UTF-16 text hashes its code units as bytes.
template <> struct KivraHasher<std::u16string> {
    /// Tables with a transparent equality find views of text without making a string.
    using is_transparent = void;
    std::size_t operator()(std::u16string_view text) const noexcept {
        return static_cast<std::size_t>(fnv1a(text.data(), text.size() * sizeof(char16_t)));
    }
};

template <> struct KivraHasher<basalt::ustring> : KivraHasher<std::u16string> {};

template <> struct KivraHasher<std::string> {
    std::size_t operator()(std::string_view text) const noexcept {
        return static_cast<std::size_t>(fnv1a(text.data(), text.size()));
    }
};

/// A time point hashes its ISO text ("20240131T101500,5").
template <> struct KivraHasher<boost::posix_time::ptime> {
    std::size_t operator()(boost::posix_time::ptime const &time) const;
};

/// The hash of the key of a hashed keyed collection: integers hash their bytes with
/// FNV-1a, other keys as `KivraHasher` does.
template <class K> struct KeyHasher : KivraHasher<K> {};

template <class K>
    requires(std::is_integral_v<K> && !std::is_same_v<K, bool>)
struct KeyHasher<K> {
    std::size_t operator()(K key) const noexcept { return static_cast<std::size_t>(fnv1a(&key, sizeof key)); }
};

} // namespace kivra::services::hashers
