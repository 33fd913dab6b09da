#pragma once
// Small metamodels that the registry's tests describe at run time, each under names of
// its own, since all tests share the one registry of the process; and an enum described
// in a model of its own.

#include <kivra/meta/AbstractMetaPackage.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Package.hpp>
#include <kivra/meta/Property.hpp>

#include <boost/optional/optional.hpp>
#include <boost/uuid/uuid.hpp>

#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

namespace kivra::meta::test {

inline MetaRegistry &registry() { return *MetaRegistry::getInstance(); }

inline unsigned nextNumber() {
    static std::atomic<unsigned> counter = 0;
    return ++counter;
}

/// `stem` followed by a number that no other call gives.
inline basalt::ustring uniqueName(std::u16string_view stem) {
    std::string const digits = std::to_string(nextNumber());
    return basalt::ustring(stem) + basalt::ustring(digits.begin(), digits.end());
}
inline std::string uniqueName(std::string_view stem) { return std::string(stem) + std::to_string(nextNumber()); }

/// A fresh UUID text of version 3 form.
inline std::string uniqueUuidText() {
    char text[37];
    std::snprintf(text, sizeof text, "%08x-0000-3000-8000-%012x", 0x5eed0000u, nextNumber());
    return text;
}

/// A property of `type` in the registry model, outside any class.
inline Property makeProperty(basalt::ustring const &name, Type const &type, bool ordered) {
    auto locked = registry().getMetaRegistryModel();
    Transaction transaction = locked->beginTransaction();
    Property property = Property::create(locked.get());
    property->setName(name);
    property->setType(type);
    property->setUpper(std::uint32_t(-1));
    property->setIsOrdered(ordered);
    transaction.commit();
    return property;
}

/// How a `SamplePackage` is made.
struct SamplePackageOptions {
    basalt::ustring version = u"1";
    /// A class without a package, named by its bare name, made after the others.
    basalt::ustring strayClass{};
    /// Receives the UUIDs of the elements as they are made.
    std::vector<boost::uuids::uuid> *made = nullptr;
    /// The builder factory of the first class.
    MetaRegistry::BuilderFactory factory{};
};

/// A root package of `family` with one class per name, described as generated packages
/// are: under the registry's lock, in one transaction.
class SamplePackage : public AbstractMetaPackage {
public:
    using Options = SamplePackageOptions;

    /// The qualified name that `SamplePackage` gives the class `name` of `family`.
    static basalt::ustring nameOf(basalt::ustring const &family, basalt::ustring const &name) {
        return family + u'_' + name;
    }

    SamplePackage(basalt::ustring const &family, std::vector<basalt::ustring> const &names, Options options = {}) {
        begin();
        package = createPackage(family, MetaRegistry::composeUri(options.version, family));
        note(package, options);
        for (basalt::ustring const &name : names) {
            Class const cls = createClass(nameOf(family, name), "", false, uniqueUuidText().c_str());
            note(cls, options);
            registry().registerType(cls, nullptr, classes.empty() ? options.factory : MetaRegistry::BuilderFactory());
            classes.push_back(cls);
        }
        if (!options.strayClass.empty()) {
            Class const stray = createClass(options.strayClass, "", false, uniqueUuidText().c_str());
            note(stray, options);
            registry().registerType(stray);
        }
        finish();
    }

    Package package;
    std::vector<Class> classes;

private:
    static void note(ModelElement const &element, Options const &options) {
        if (options.made)
            options.made->push_back(element->getUuid());
    }
};

/// An enum with literals in a model of its own: green 2, red -1 "R", blue 7 "B".
struct Colours {
    Colours() {
        auto literal = [this](char16_t const *name, std::int32_t number, boost::optional<basalt::ustring> publicId) {
            EnumLiteral const literal = EnumLiteral::create(model);
            literal->setName(name);
            literal->setValue(number);
            literal->setPublicIdentifier(publicId);
            Property const &literals = Enum::Impl::literalsProperty();
            literal->basicSetContainer(colour.get(), literals ? literals : holder, 0);
            held.push_back(literal);
        };
        holder->setName(u"literals");
        literal(u"red", -1, basalt::ustring(u"R"));
        literal(u"green", 2, boost::none);
        literal(u"blue", 7, basalt::ustring(u"B"));
    }
    Model model = Model::createTransientModel();
    Enum colour = Enum::create(model);
    Property holder = Property::create(model);
    /// The enum's map of literals would keep them; a test keeps its own handles.
    std::vector<EnumLiteral> held;
};

} // namespace kivra::meta::test
