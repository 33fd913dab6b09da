#pragma once
/// \file
/// A counting filter of UUIDs that spares a sequence the scan for an absent element.

#include <boost/uuid/uuid.hpp>

#include <array>
#include <cstdint>

namespace kivra {

/// 256 one-byte counters, each byte of a UUID naming one. `contains` may say yes wrongly,
/// never no wrongly. A counter that reaches 255 stays there for ever, so that removals can
/// never make it understate. With 16 counters per UUID the counters fill quickly: it
/// answers well for a few dozen entries and says yes to almost everything beyond.
class SaturatedBloomFilter {
public:
    void add(boost::uuids::uuid const &id) noexcept {
        for (std::uint8_t byte : id.data)
            if (counters_[byte] != 255)
                ++counters_[byte];
    }
    void remove(boost::uuids::uuid const &id) noexcept {
        for (std::uint8_t byte : id.data)
            if (counters_[byte] != 255)
                --counters_[byte];
    }
    bool contains(boost::uuids::uuid const &id) const noexcept {
        for (std::uint8_t byte : id.data)
            if (counters_[byte] == 0)
                return false;
        return true;
    }

private:
    std::array<std::uint8_t, 256> counters_{};
};

} // namespace kivra
