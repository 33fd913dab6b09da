#pragma once
/// \file
/// The process-wide table of property serializers, by type and flavour.

#include <kivra/meta/Handles.hpp>

#include <basalt/ustring.hpp>

#include <boost/optional/optional_fwd.hpp>

#include <functional>
#include <memory>
#include <string_view>

namespace kivra {
class Value;
}

namespace kivra::meta {

class PropertySerializer;
class DatatypeSerializer;

/// Holds the serializers of every type, one or more per type told apart by a flavour: ""
/// is the normal text form, others ("numeric", "Rel8", ...) a second form of the same
/// type. Serializers stay owned here; a pointer handed out is valid until its type is
/// unregistered. Every operation may come from any thread: lookups share the registry's
/// lock, changes take it alone, and the `MetaRegistry` mutex is never taken while it is
/// held.
///
/// Example:
/// \code
///   auto &serializers = meta::PropertySerializerRegistry::getInstance();
///   meta::PropertySerializer const *real = serializers.getPropertySerializer(meta::StandardTypes::realMeta, "");
///   Value half = real->parseValue(u"0.5", meta::StandardTypes::realMeta);
/// \endcode
class PropertySerializerRegistry {
public:
    /// Answers whether a visit goes on to the next serializer.
    using Visitor = std::function<bool(PropertySerializer const &serializer)>;

    /// The registry, with the serializers of the standard types; built on the first call.
    static PropertySerializerRegistry &getInstance();

    PropertySerializerRegistry(PropertySerializerRegistry const &) = delete;
    PropertySerializerRegistry &operator=(PropertySerializerRegistry const &) = delete;

    /// Takes `serializer` for (type, flavour). Raises `DuplicateTypeInRegistry` with the
    /// type's qualified name when that pair has one; `serializer` is then destroyed.
    void registerPropertySerializer(Type const &type, std::unique_ptr<PropertySerializer> serializer,
                                    std::string_view flavour);
    /// Takes the serializer of a data type. Raises `DuplicateTypeInRegistry` when it has one.
    void registerDatatypeSerializer(DataType const &type, std::unique_ptr<DatatypeSerializer> serializer);
    /// Destroys the serializer of (type, flavour); nothing when there is none.
    void unregisterPropertySerializer(Type const &type, std::string_view flavour);
    /// Destroys every flavour of the type, and its data type serializer.
    void unregisterSerializers(Type const &type);

    /// The serializer registered for exactly this type and flavour; null when none.
    PropertySerializer const *getPropertySerializerForTypeOnly(Type const &type, std::string_view flavour) const;
    /// The serializer for values of `type` in `flavour`: an enum of a model outside the
    /// registry meets the serializers of reflective enums, and a primitive type copied
    /// into another model meets those of the registry's type of the same name. Null when
    /// none; the caller decides whether that is an error.
    PropertySerializer const *getPropertySerializer(Type const &type, std::string_view flavour) const;
    /// The data type's serializer; null when none.
    DatatypeSerializer const *getDatatypeSerializer(DataType const &type) const;
    /// Calls `visitor` with every serializer of `type`, whatever its flavour, until it
    /// answers false; then, when the registry knows another type of the same qualified
    /// name, with that type's. The lock is not held while `visitor` runs.
    void visitPropertySerializers(Type const &type, Visitor const &visitor) const;

    /// The value of a default text written in any flavour of `type`: the first flavour
    /// that parses it wins, so "1,5" is a `Real` 1.5 and "1" a `Boolean` true. None when
    /// no flavour parses it.
    boost::optional<Value> parseDefaultValue(Type const &type, basalt::ustring const &text) const;

private:
    struct Tables;

    PropertySerializerRegistry();
    ~PropertySerializerRegistry();
    void initialize();

    std::unique_ptr<Tables> tables_;
};

} // namespace kivra::meta
