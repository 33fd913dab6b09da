#pragma once
// A comparable picture of a model: every element with its class, container and the
// values of all its indexed properties, keyed by UUID.

#include <kivra/Model.hpp>

#include <boost/uuid/uuid.hpp>

#include <map>
#include <string>
#include <vector>

namespace kivra::test {

struct ElementPicture {
    std::string type;
    boost::uuids::uuid container{};
    std::vector<std::string> values; // one text per indexed property, in index order

    bool operator==(ElementPicture const &) const = default;
};

struct ModelSnapshot {
    std::map<boost::uuids::uuid, ElementPicture> elements;
    std::vector<boost::uuids::uuid> topLevel; // sorted

    bool operator==(ModelSnapshot const &) const = default;
};

/// Takes the picture: property values are read reflectively, references as the UUID of
/// their target (or "invalid" for a destroyed one).
ModelSnapshot snapshot(Model const &model);

/// The first difference between two pictures, for test messages; empty when equal.
std::string describeDifference(ModelSnapshot const &expected, ModelSnapshot const &actual);

} // namespace kivra::test
