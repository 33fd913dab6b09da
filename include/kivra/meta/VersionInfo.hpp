#pragma once
/// \file
/// A package family with the least version of it that is needed.

#include <kivra/meta/Handles.hpp>

#include <basalt/ustring.hpp>

#include <cstdint>
#include <utility>

namespace kivra {
class Value;
} // namespace kivra

namespace kivra::meta {

/// The family of a package and the least version of it that a package imports: the
/// entries of a package's imported packages, keyed by family. A value type.
class VersionInfo {
public:
    VersionInfo() = default;
    VersionInfo(basalt::ustring family, basalt::ustring minVersion)
        : family_(std::move(family)), minVersion_(std::move(minVersion)) {}

    basalt::ustring const &getFamily() const noexcept { return family_; }
    basalt::ustring const &getMinVersion() const noexcept { return minVersion_; }
    void setFamily(basalt::ustring family) { family_ = std::move(family); }
    void setMinVersion(basalt::ustring minVersion) { minVersion_ = std::move(minVersion); }

    friend bool operator==(VersionInfo const &, VersionInfo const &) = default;
    /// By family, then by version, as texts of UTF-16 code units.
    friend bool operator<(VersionInfo const &a, VersionInfo const &b) noexcept {
        return a.family_ != b.family_ ? a.family_ < b.family_ : a.minVersion_ < b.minVersion_;
    }
    /// The hash of both texts, as hashed sets of values take it.
    friend std::uint64_t hashValue(VersionInfo const &info) noexcept;

    /// The data type `VersionInfo`, found by its UUID in the registry model; empty until
    /// the metamodel describes it.
    static DataType dataType();
    /// This object as a single value of the data type `VersionInfo`; the value holds a copy.
    Value toValue() const;
    /// The object a single value of the data type holds; an empty payload gives two empty
    /// texts. Raises `CannotCastIncompatibleTypes` with the value's type name for any other
    /// value.
    static VersionInfo fromValue(Value const &value);

private:
    basalt::ustring family_;
    basalt::ustring minVersion_;
};

} // namespace kivra::meta
