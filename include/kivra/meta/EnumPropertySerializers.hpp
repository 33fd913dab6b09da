#pragma once
/// \file
/// The serializers of generated enums, in their three text forms.

#include <kivra/meta/PropertySerializer.hpp>

#include <cstdint>
#include <span>
#include <type_traits>

namespace kivra::meta {

/// One literal of a generated enum: its name, its number, and its public identifier (the
/// empty text when it has none).
struct EnumLiteralEntry {
    char16_t const *name;
    std::int32_t value;
    char16_t const *publicIdentifier;
};

/// Writes and reads the values of a generated enum, which travel as their literal's
/// number, from the enum's own table of literals. A number that two literals share
/// reads as the first of them in the table. Text that names no literal raises
/// `std::bad_cast`.
class GeneratedEnumPropertySerializer : public DefaultPropertySerializer<std::uint64_t> {
public:
    /// The text form: the literal's name, its number in decimal, or its public identifier
    /// (its name when it has none).
    enum class Form { Name, Number, PublicId };

    basalt::ustring toText(std::uint64_t const &native) const override;
    std::uint64_t fromText(basalt::ustring const &text) const override;

protected:
    /// `literals` must outlive the serializer: generated code passes a static table.
    GeneratedEnumPropertySerializer(std::span<EnumLiteralEntry const> literals, Form form) noexcept
        : literals_(literals), form_(form) {}

private:
    std::span<EnumLiteralEntry const> literals_;
    Form form_;
};

/// The values of the generated enum `E` as their literal's name: "CPlusPlus".
template <class E> class EnumPropertySerializerAsName final : public GeneratedEnumPropertySerializer {
    static_assert(std::is_enum_v<E>);

public:
    explicit EnumPropertySerializerAsName(std::span<EnumLiteralEntry const> literals) noexcept
        : GeneratedEnumPropertySerializer(literals, Form::Name) {}
};

/// The values of the generated enum `E` as their number: "1".
template <class E> class EnumPropertySerializerAsValue final : public GeneratedEnumPropertySerializer {
    static_assert(std::is_enum_v<E>);

public:
    explicit EnumPropertySerializerAsValue(std::span<EnumLiteralEntry const> literals) noexcept
        : GeneratedEnumPropertySerializer(literals, Form::Number) {}
};

/// The values of the generated enum `E` as their literal's public identifier, or its
/// name when it has none.
template <class E> class EnumPropertySerializerAsPublicId final : public GeneratedEnumPropertySerializer {
    static_assert(std::is_enum_v<E>);

public:
    explicit EnumPropertySerializerAsPublicId(std::span<EnumLiteralEntry const> literals) noexcept
        : GeneratedEnumPropertySerializer(literals, Form::PublicId) {}
};

} // namespace kivra::meta
