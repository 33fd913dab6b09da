#include <kivra/meta/DatatypeSerializers.hpp>
#include <kivra/meta/EnumPropertySerializers.hpp>

#include <kivra/Messages.hpp>
#include <kivra/meta/DataType.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/reflection/ReflectiveDataType.hpp>

#include <boost/optional/optional.hpp>

#include <basalt/i18n/Unicode.hpp>

#include <boost/lexical_cast.hpp>

#include <array>
#include <charconv>
#include <typeinfo>

namespace kivra::meta {

namespace {

/// The meta of a free-standing collection, which has no property to take its shape from.
class UnmanagedMeta : public ValueMeta {
public:
    UnmanagedMeta(Type const &type, ValueFlags flags) : ValueMeta(type, flags) { setUnmanaged(); }
};

basalt::ustring nameOf(Type const &type) { return type ? type->getQualifiedName() : basalt::ustring(); }

/// The same type, possibly seen through another handle: a description made again has
/// new elements under the old UUIDs.
bool sameType(Type const &a, Type const &b) { return a == b || (a && b && a->getUuid() == b->getUuid()); }

std::int32_t literalNumber(std::uint64_t native) { return static_cast<std::int32_t>(static_cast<std::int64_t>(native)); }

std::uint64_t nativeOf(std::int32_t number) { return static_cast<std::uint64_t>(static_cast<std::int64_t>(number)); }

bool hasPublicIdentifier(EnumLiteralEntry const &literal) {
    return literal.publicIdentifier && *literal.publicIdentifier;
}

} // namespace

// --- Data types ------------------------------------------------------------------------------

NativeDatatypeSerializer::NativeDatatypeSerializer(DataType type, PayloadFunctions const &functions)
    : type_(std::move(type)), functions_(&functions) {}

NativeDatatypeSerializer::~NativeDatatypeSerializer() = default;

Value NativeDatatypeSerializer::createEmptyOptionalValue() const { return Value(type_, boost::none); }

void const *NativeDatatypeSerializer::objectOf(Value const &value) const {
    bool const shaped = value.getFlags() == ValueFlags::Single ||
                        (value.getFlags() == ValueFlags::Optional && !value.hasPayload());
    if (!shaped || !sameType(value.getType(), type_) ||
        (value.hasPayload() && (value.isReflective() || value.getPayloadFunctions() != functions_)))
        raise<messages::CannotCastIncompatibleTypes>(nameOf(value.getType()));
    return value.getPayload();
}

Value NativeDatatypeSerializer::nativeForm(Value const &value) const {
    bool const shaped = value.getFlags() == ValueFlags::Single || value.getFlags() == ValueFlags::Optional;
    if (!shaped || !value.isReflective() || !sameType(value.getType(), type_))
        raise<messages::CannotCastIncompatibleTypes>(nameOf(value.getType()));
    if (!value.hasPayload())
        return createEmptyOptionalValue();
    boost::optional<Value> native = value.toReflectiveDataType().toNonReflectiveDataTypeValue();
    // A record of a data type that was described anew may name the old description.
    if (!native || native->isReflective())
        raise<messages::CannotCastIncompatibleTypes>(nameOf(value.getType()));
    return std::move(*native);
}

Value NativeDatatypeSerializer::adopt(void *object) const {
    return Value(ValueMeta(type_, ValueFlags::Single), object, functions_);
}

Value NativeDatatypeSerializer::adoptCollection(Type const &type, ValueFlags shape, void *container,
                                                PayloadFunctions const &functions) {
    return Value(UnmanagedMeta(type, shape), container, &functions);
}

void NativeDatatypeSerializer::raiseNoSuchProperty(Property const &property) const {
    raise<messages::NoSuchProperty>(property ? property->getName() : basalt::ustring(), nameOf(type_));
}

void NativeDatatypeSerializer::raiseUnordered() { raise<messages::InvalidValue>(); }

// --- Generated enums -------------------------------------------------------------------------

basalt::ustring GeneratedEnumPropertySerializer::toText(std::uint64_t const &native) const {
    std::int32_t const number = literalNumber(native);
    if (form_ == Form::Number) {
        std::array<char, 16> buffer;
        auto const end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number).ptr;
        return basalt::ustring(buffer.data(), end);
    }
    for (EnumLiteralEntry const &literal : literals_)
        if (literal.value == number)
            return form_ == Form::PublicId && hasPublicIdentifier(literal) ? literal.publicIdentifier : literal.name;
    return {};
}

std::uint64_t GeneratedEnumPropertySerializer::fromText(basalt::ustring const &text) const {
    if (form_ == Form::Number) {
        basalt::i18n::AsciiNarrowing const narrowing(text);
        if (!narrowing.ascii())
            throw boost::bad_lexical_cast(typeid(basalt::ustring), typeid(int));
        auto const bytes = narrowing.bytes();
        int const number = boost::lexical_cast<int>(bytes.data(), bytes.size());
        for (EnumLiteralEntry const &literal : literals_)
            if (literal.value == number)
                return nativeOf(number);
        throw std::bad_cast();
    }
    for (EnumLiteralEntry const &literal : literals_) {
        bool const byName = form_ == Form::Name || !hasPublicIdentifier(literal);
        if (text == (byName ? literal.name : literal.publicIdentifier))
            return nativeOf(literal.value);
    }
    throw std::bad_cast();
}

} // namespace kivra::meta
