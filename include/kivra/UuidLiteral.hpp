#pragma once
/// \file
/// UUIDs written in the source, such as the fixed identities of metaclasses.

#include <boost/uuid/uuid.hpp>

#include <stdexcept>
#include <string_view>

namespace kivra {

/// Reads a UUID from its text: 32 hexadecimal digits in either case; dashes are skipped
/// wherever they stand. Raises `std::domain_error` with "invalid character in uuid
/// literal" for any other character, and "did not write 16 bytes to uuid" when the
/// digits do not make exactly 16 bytes.
constexpr boost::uuids::uuid parseUuidLiteral(std::string_view text) {
    boost::uuids::uuid id{};
    std::size_t digits = 0;
    for (char const c : text) {
        if (c == '-')
            continue;
        int value;
        if (c >= '0' && c <= '9')
            value = c - '0';
        else if (c >= 'a' && c <= 'f')
            value = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            value = c - 'A' + 10;
        else
            throw std::domain_error("invalid character in uuid literal");
        if (digits == 32)
            throw std::domain_error("did not write 16 bytes to uuid");
        id.data[digits / 2] = static_cast<std::uint8_t>(id.data[digits / 2] | (digits % 2 ? value : value << 4));
        ++digits;
    }
    if (digits != 32)
        throw std::domain_error("did not write 16 bytes to uuid");
    return id;
}

} // namespace kivra
