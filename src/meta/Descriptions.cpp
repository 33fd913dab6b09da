#include <kivra/ElementMap.hpp>
#include <kivra/Model.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/MetaRegistry.hpp>
#include <kivra/meta/Operation.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StructuredType.hpp>
#include <kivra/reflection/ReflectiveBuilder.hpp>

#include <unordered_map>

namespace kivra::meta {

// --- Structured types ---------------------------------------------------------------------

Property StructuredType::Impl::getPropertyByName(basalt::ustring const &name) const {
    auto const &attributes = getOwnedAttributes();
    return attributes.containsKey(name) ? attributes.at(name) : Property();
}

std::vector<Operation> StructuredType::Impl::getOperationsByName(basalt::ustring const &name) const {
    return getOwnedOperations().find(name);
}

bool StructuredType::Impl::isATypeOf(Property const &property) const {
    return property.get() && property->isValid() && property->getOwningType().get() == this;
}

// --- Classes --------------------------------------------------------------------------------

Property Class::Impl::getPropertyByName(basalt::ustring const &name) const {
    for (Class::Impl const *cls = this; cls; cls = cls->getSuperclass().get())
        if (Property found = cls->StructuredType::Impl::getPropertyByName(name))
            return found;
    return {};
}

std::vector<Operation> Class::Impl::getOperationsByName(basalt::ustring const &name) const {
    for (Class::Impl const *cls = this; cls; cls = cls->getSuperclass().get())
        if (std::vector<Operation> found = cls->StructuredType::Impl::getOperationsByName(name); !found.empty())
            return found;
    return {};
}

bool Class::Impl::isATypeOf(Property const &property) const {
    if (!property.get() || !property->isValid())
        return false;
    StructuredType::Impl const *owner = property->getOwningType().get();
    for (Class::Impl const *cls = this; cls; cls = cls->getSuperclass().get())
        if (cls == owner)
            return true;
    return false;
}

namespace {

enum class PropertyKind { Primitive, OfClass, All };

std::vector<Property> collectProperties(Class::Impl const &start, PropertyKind kind) {
    std::vector<Property> result;
    for (Class::Impl const *cls = &start; cls; cls = cls->getSuperclass().get())
        for (Property const &property : cls->getOwnedAttributes()) {
            bool const ofClass = dynamic_cast<Class::Impl const *>(property->getType().get()) != nullptr;
            if (kind == PropertyKind::All || ofClass == (kind == PropertyKind::OfClass))
                result.push_back(property);
        }
    return result;
}

// Per thread, so that readers of the frozen metamodel take no lock. The handle in each
// entry keeps its class alive, so an address is never reused while it is a key.
std::vector<Property> cachedProperties(Class::Impl const &cls, PropertyKind kind) {
    struct Entry {
        Class holder;
        std::vector<Property> properties;
    };
    thread_local std::unordered_map<Class::Impl const *, Entry> caches[3];
    auto &cache = caches[static_cast<int>(kind)];
    if (auto const found = cache.find(&cls); found != cache.end())
        return found->second.properties;
    Entry entry{Class::fromImpl(const_cast<Class::Impl *>(&cls)), collectProperties(cls, kind)};
    return cache.emplace(&cls, std::move(entry)).first->second.properties;
}

} // namespace

std::vector<Property> Class::Impl::getAllProperties() const { return cachedProperties(*this, PropertyKind::All); }
std::vector<Property> Class::Impl::getAllClassProperties() const {
    return cachedProperties(*this, PropertyKind::OfClass);
}
std::vector<Property> Class::Impl::getAllPrimitiveProperties() const {
    return cachedProperties(*this, PropertyKind::Primitive);
}

std::unique_ptr<ModelElement::Builder> Class::Impl::instantiateBuilder(Model const &model) const {
    Class const self = Class::fromImpl(const_cast<Impl *>(this));
    if (std::unique_ptr<ModelElement::Builder> builder = MetaRegistry::getInstance()->instantiateBuilder(self, model))
        return builder;
    // A class without generated code makes reflective elements; an abstract one makes none.
    if (getIsAbstract())
        return nullptr;
    return std::make_unique<reflection::ReflectiveBuilder>(model, self);
}

ModelElement Class::Impl::instantiate(Model const &model, boost::uuids::uuid const &uuid) const {
    std::unique_ptr<ModelElement::Builder> builder = instantiateBuilder(model);
    return builder ? builder->create(uuid) : ModelElement();
}

// --- Enumerations ----------------------------------------------------------------------

EnumLiteral Enum::Impl::findLiteralByValue(std::int32_t value) const {
    for (EnumLiteral const &literal : getLiterals())
        if (literal->getValue() == value)
            return literal;
    return {};
}

EnumLiteral Enum::Impl::findLiteralByPublicIdentifier(basalt::ustring const &identifier) const {
    for (EnumLiteral const &literal : getLiterals())
        if (literal->getPublicIdentifier() && *literal->getPublicIdentifier() == identifier)
            return literal;
    return {};
}

} // namespace kivra::meta
