#include <kivra/meta/StandardTypes.hpp>

#include <kivra/UuidLiteral.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/PrimitiveType.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <typeinfo>

namespace kivra::meta {

#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member) PrimitiveType StandardTypes::member;
#include <kivra/meta/PrimitiveTypes.def>

namespace {

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

void StandardTypes::initializeTypes(MetaRegistry &registry) {
    auto locked = registry.getMetaRegistryModel();
    Model const &model = locked.get();
#define KIVRA_PRIMITIVE(Name, uuid, Native, cppName, vantorName, member)                                              \
    member = makeType(registry, model, uuid, u"" #Name, cppName, vantorName, typeid(Native).name(),                \
                      std::make_unique<detail::CollectionInstantiatorImpl<Native, 7, 7>>());
#define KIVRA_OPAQUE_PRIMITIVE(Name, uuid, cppName, vantorName)                                                        \
    makeType(registry, model, uuid, u"" #Name, cppName, vantorName, "", nullptr);
#include <kivra/meta/PrimitiveTypes.def>
}

PrimitiveType StandardTypes::getIntegralType(bool isSigned, int bits) {
    MetaRegistry::getInstance(); // the members are filled when the registry is built
    switch (bits) {
    case 8: return isSigned ? integer8Meta : uinteger8Meta;
    case 16: return isSigned ? integer16Meta : uinteger16Meta;
    case 32: return isSigned ? integerMeta : unlimitedNaturalMeta;
    case 64: return isSigned ? integer64Meta : uinteger64Meta;
    default: return {};
    }
}

int StandardTypes::getSizeOfIntegralTypeInBits(PrimitiveType const &type) {
    MetaRegistry::getInstance();
    if (!type.get())
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
