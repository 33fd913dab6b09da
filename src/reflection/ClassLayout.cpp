#include "reflection/ClassLayout.hpp"

#include <kivra/Messages.hpp>
#include <kivra/meta/Class.hpp>
#include <kivra/meta/Enum.hpp>
#include <kivra/meta/EnumLiteral.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/PropertySerializerRegistry.hpp>
#include <kivra/meta/StandardTypes.hpp>

#include <boost/optional/optional.hpp>
#include <boost/uuid/random_generator.hpp>

#include <exception>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace kivra::reflection::detail {

namespace {

bool isClassType(meta::Type const &type) { return dynamic_cast<meta::Class::Impl const *>(type.get()) != nullptr; }

bool isOwnerEnd(meta::Property::Impl const &property) {
    meta::Property::Impl const *opposite = property.peekOpposite();
    return opposite && opposite->getIsComposite();
}

Value startValueOf(meta::Property const &property, bool &dynamic) {
    try {
        if (property->hasDefaultValue())
            if (boost::optional<Value> parsed = readDefaultValue(property, dynamic))
                return *parsed;
    } catch (std::exception const &) {
        // A default that does not parse is no default.
    }
    return Value::createEmptyValue(property);
}

std::size_t alignUp(std::size_t offset, std::size_t alignment) { return (offset + alignment - 1) / alignment * alignment; }

} // namespace

boost::optional<Value> readDefaultValue(meta::Property const &property, bool &dynamic) {
    if (!property->hasDefaultValue())
        return boost::none;
    meta::Type const &type = property->getType();
    basalt::ustring const &text = *property->getDefaultValue();
    if (auto const *enumeration = dynamic_cast<meta::Enum::Impl const *>(type.get())) {
        for (meta::EnumLiteral const &literal : enumeration->getLiterals())
            if (literal->getName() == text)
                return Value::createEnumValue(literal);
        return boost::none;
    }
    if (type == meta::Type(meta::StandardTypes::uuidMeta) && text == u"random") {
        dynamic = true;
        return Value(type, boost::uuids::random_generator()());
    }
    return meta::PropertySerializerRegistry::getInstance().parseDefaultValue(type, text);
}

ClassLayout::ClassLayout(meta::Class const &start) : cls(start) {
    std::uint64_t highestIndex = 0;
    for (meta::Class::Impl const *level = start.get(); level; level = level->getSuperclass().get()) {
        propertyCount += level->getOwnedAttributes().size();
        for (meta::Property const &property : level->getOwnedAttributes()) {
            meta::Property::Impl const &p = *property.get();
            if (p.getIsDerived())
                continue;
            meta::Type const &type = p.getType();
            if (!type)
                raise<messages::CannotUsePropertyWithoutType>(p.getName());
            std::uint64_t const index = std::uint64_t(std::max(p.getPropertyIndex(), 0));
            if (index >= byIndex.size())
                byIndex.resize(index + 1);
            if (index > 0 && !byIndex[index])
                byIndex[index] = property;
            highestIndex = std::max(highestIndex, index);
            PropertySlot slot{property, p.peekOpposite(), SlotKind::Plain, 0, 0, false};
            std::size_t size = sizeof(void *);
            std::size_t alignment = alignof(void *);
            if (type == meta::Type(meta::StandardTypes::stringToStringMapMeta)) {
                // The map is the value, whatever the upper bound says.
                slot.kind = SlotKind::StringMap;
            } else if (!isClassType(type)) {
                if (p.getUpper() != 1) {
                    slot.kind = SlotKind::Primitives;
                } else {
                    slot.plain = std::uint32_t(startValues.size());
                    startValues.push_back(startValueOf(property, slot.dynamicDefault));
                    emptyValues.push_back(Value::createEmptyValue(property));
                    hasDynamicDefaults |= slot.dynamicDefault;
                    size = sizeof(Value);
                    alignment = alignof(Value);
                }
            } else {
                if (meta::Property::Impl const *opposite = p.peekOpposite())
                    if (meta::Property const key = opposite->getQualifiedBy(); key)
                        qualifierUsers[key.get()].push_back(property);
                if (isOwnerEnd(p))
                    slot.kind = SlotKind::ContainerEnd;
                else
                    slot.kind = p.getUpper() != 1 ? SlotKind::References : SlotKind::Reference;
            }
            if (slot.kind != SlotKind::ContainerEnd) {
                blockSize = alignUp(blockSize, alignment);
                slot.offset = std::uint32_t(blockSize);
                blockSize += size;
            }
            // A property seen twice along the chain keeps its most derived slot.
            if (byProperty.emplace(property.get(), std::uint32_t(slots.size())).second)
                slots.push_back(std::move(slot));
        }
    }
    propertyCount = std::max(propertyCount, highestIndex);
}

ClassLayout const &ClassLayout::of(meta::Class const &cls) {
    // Each thread asks the shared table once per class; the layouts live as long as the
    // process, as the metamodel does, so that any thread may destroy an element.
    thread_local std::unordered_map<meta::Class::Impl const *, ClassLayout const *> seen;
    if (auto const found = seen.find(cls.get()); found != seen.end())
        return *found->second;
    static std::mutex mutex;
    static auto *const shared = new std::unordered_map<meta::Class::Impl const *, std::unique_ptr<ClassLayout>>();
    ClassLayout const *layout;
    {
        std::lock_guard const lock(mutex);
        std::unique_ptr<ClassLayout> &entry = (*shared)[cls.get()];
        if (!entry) {
            try {
                entry.reset(new ClassLayout(cls));
            } catch (...) {
                shared->erase(cls.get());
                throw;
            }
        }
        layout = entry.get();
    }
    seen.emplace(cls.get(), layout);
    return *layout;
}

} // namespace kivra::reflection::detail
