#include <kivra/meta/StandardTypes.hpp>

#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <array>
#include <cstdint>
#include <type_traits>
#include <typeinfo>

namespace kivra::meta {

namespace {

constexpr std::size_t rowCount = 0
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member) +1
#define KIVRA_OPAQUE_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member) +1
#include <kivra/meta/PrimitiveTypes.def>
    ;

// Filled while the registry is built, read only afterwards: building the registry once
// is all the synchronisation they need. Never destroyed, as the registry.
std::array<PrimitiveType, rowCount> &rows() {
    static auto *const table = new std::array<PrimitiveType, rowCount>;
    return *table;
}

template <class Native> char const *typeidNameOf() {
    if constexpr (std::is_void_v<Native>)
        return "";
    else
        return typeid(Native).name();
}

PrimitiveType makeType(MetaRegistry &registry, Model const &model, char const *uuid, char16_t const *name,
                       char const *cppName, char const *vantorName, char const *typeidName,
                       std::unique_ptr<detail::CollectionInstantiator> instantiator) {
    PrimitiveType type = PrimitiveType::create(model, parseUuidLiteral(uuid));
    type->setName(name);
    registry.registerType(type, std::move(instantiator));
    registry.registerTypeNames(type, cppName, vantorName, typeidName);
    return type;
}

} // namespace

namespace detail {
PrimitiveType const &standardType(StandardTypeRow row) {
    MetaRegistry::getInstance();
    return rows()[static_cast<std::size_t>(row)];
}
} // namespace detail

void StandardTypes::initializeTypes(MetaRegistry &registry) {
    auto locked = registry.getMetaRegistryModel();
    Model const &model = locked.get();
    auto &table = rows();
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    table[static_cast<std::size_t>(StandardTypeRow::Name)] =                                                           \
        makeType(registry, model, uuid, u"" #Name, cppName, vantorName, typeidNameOf<Native>(),                        \
                 std::make_unique<detail::CollectionInstantiatorImpl<Native, 7, 7>>());
#define KIVRA_OPAQUE_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                       \
    table[static_cast<std::size_t>(StandardTypeRow::Name)] =                                                           \
        makeType(registry, model, uuid, u"" #Name, cppName, vantorName, typeidNameOf<Native>(), nullptr);
#include <kivra/meta/PrimitiveTypes.def>
}

PrimitiveType StandardTypes::getIntegralType(bool isSigned, int bits) {
    switch (bits) {
    case 8: return isSigned ? integer8Meta.get() : uinteger8Meta.get();
    case 16: return isSigned ? integer16Meta.get() : uinteger16Meta.get();
    case 32: return isSigned ? integerMeta.get() : unlimitedNaturalMeta.get();
    case 64: return isSigned ? integer64Meta.get() : uinteger64Meta.get();
    default: return {};
    }
}

int StandardTypes::getSizeOfIntegralTypeInBits(PrimitiveType const &type) {
    if (!type)
        return 0;
    if (type == integer8Meta || type == uinteger8Meta)
        return 8;
    if (type == integer16Meta || type == uinteger16Meta)
        return 16;
    if (type == integerMeta || type == unlimitedNaturalMeta)
        return 32;
    if (type == integer64Meta || type == uinteger64Meta)
        return 64;
    return 0;
}

} // namespace kivra::meta
