#pragma once
/// \file
/// The services that find elements by identifiers other than their UUID.

#include <kivra/Handles.hpp>
#include <kivra/io/ElementId.hpp>
#include <kivra/meta/Handles.hpp>

#include <basalt/ustring.hpp>

#include <memory>

namespace kivra::services {

/// Finds an element of a model from an identifier of one type.
class ElementIdResolver {
public:
    virtual ~ElementIdResolver() = default;
    /// The element, or an empty handle.
    virtual ModelElement resolve(Model const &model, meta::Class const &cls, io::ElementId const &id) = 0;

    /// The element of `model` that `id` names and whose class is exactly `cls`, or an
    /// empty handle. "uuid" ids are looked up in the model; other types ask the resolvers
    /// registered for them.
    static ModelElement doFindElement(Model const &model, meta::Class const &cls, io::ElementId const &id);
};

/// Adds a resolver of ids of `identifierType`. Thread-safe.
void registerElementIdResolver(basalt::ustring const &identifierType, std::shared_ptr<ElementIdResolver> resolver);

} // namespace kivra::services
