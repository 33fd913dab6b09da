#pragma once
/// \file
/// The plain data form of an extension, as documents carry it.

#include <basalt/ustring.hpp>

#include <cstdint>

namespace kivra::meta {

/// What declares an extension: its multiplicity, flags, name and the qualified name of
/// its type. A value type with chaining setters; ordered field by field in the order of
/// the getters, texts by UTF-16 code units.
///
/// Example:
/// \code
///   ExtensionPrototype tags = ExtensionPrototype().setName(u"tags").setTypeName(u"String").setUpper(5);
/// \endcode
class ExtensionPrototype {
public:
    /// The upper bound that stands for "unlimited".
    static constexpr std::uint32_t unlimited = 4294967295u;

    std::uint32_t getLower() const noexcept { return lower_; }
    std::uint32_t getUpper() const noexcept { return upper_; }
    bool getIsOrdered() const noexcept { return isOrdered_; }
    bool getIsUnique() const noexcept { return isUnique_; }
    basalt::ustring const &getName() const noexcept { return name_; }
    basalt::ustring const &getTypeName() const noexcept { return typeName_; }

    ExtensionPrototype &setLower(std::uint32_t lower) noexcept { lower_ = lower; return *this; }
    ExtensionPrototype &setUpper(std::uint32_t upper) noexcept { upper_ = upper; return *this; }
    ExtensionPrototype &setIsOrdered(bool ordered) noexcept { isOrdered_ = ordered; return *this; }
    ExtensionPrototype &setIsUnique(bool unique) noexcept { isUnique_ = unique; return *this; }
    ExtensionPrototype &setName(basalt::ustring name) { name_ = std::move(name); return *this; }
    ExtensionPrototype &setTypeName(basalt::ustring typeName) { typeName_ = std::move(typeName); return *this; }

    /// -1, 0 or 1 as this prototype comes before, equals or follows `other`.
    int compareWith(ExtensionPrototype const &other) const noexcept;
    bool operator==(ExtensionPrototype const &other) const noexcept { return compareWith(other) == 0; }
    bool operator!=(ExtensionPrototype const &other) const noexcept { return compareWith(other) != 0; }
    bool operator<(ExtensionPrototype const &other) const noexcept { return compareWith(other) < 0; }

private:
    std::uint32_t lower_ = 0;
    std::uint32_t upper_ = 1;
    bool isOrdered_ = false;
    bool isUnique_ = true;
    basalt::ustring name_;
    basalt::ustring typeName_;
};

} // namespace kivra::meta
