#pragma once
// A comparable picture of a model: every element with its class, container and the
// values of all its indexed properties, keyed by UUID; on demand also which objects
// they are, for comparing a model with itself at another time.

#include <kivra/Model.hpp>
#include <kivra/Value.hpp>

#include <basalt/ustring.hpp>

#include <boost/uuid/uuid.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kivra::test {

/// What a picture tells elements apart by: two models are compared by UUID; one model
/// before and after a roll-back also by object, since one UUID may name two objects.
enum class Identity { Uuid, Object };

struct ElementPicture {
    std::string type;
    boost::uuids::uuid container{};
    std::vector<std::string> values; // one text per indexed property, in index order
    std::uintptr_t object = 0;       // with Identity::Object only
    std::uintptr_t containerObject = 0;

    bool operator==(ElementPicture const &) const = default;
};

struct ModelSnapshot {
    std::map<boost::uuids::uuid, ElementPicture> elements;
    std::vector<boost::uuids::uuid> topLevel; // sorted

    bool operator==(ModelSnapshot const &) const = default;
};

/// Takes the picture: property values are read reflectively, references as the UUID of
/// their target (or "invalid" for a destroyed one), followed by its address with
/// Identity::Object; then the values of the model's `extensions` of these names that an
/// element has.
ModelSnapshot snapshot(Model const &model, Identity identity = Identity::Uuid,
                       std::vector<basalt::ustring> const &extensions = {});

/// A value as a picture shows it.
std::string describeValue(Value const &value, Identity identity = Identity::Uuid);

/// The first difference between two pictures, for test messages; empty when equal.
std::string describeDifference(ModelSnapshot const &expected, ModelSnapshot const &actual);

} // namespace kivra::test
