#include <kivra/meta/detail/Metaclasses.hpp>

#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
#include <kivra/meta/StructuredType.hpp>
#include <kivra/services/Hashers.hpp>

#include <mutex>
#include <unordered_map>

namespace kivra::meta::detail {

namespace {
// Never destroyed: handles in the slots may be read by destructors of other statics. Map
// nodes keep their addresses, so a slot can be handed out once and kept.
template <class H> H &slotOf(boost::uuids::uuid const &uuid) {
    static auto *slots = new std::unordered_map<boost::uuids::uuid, H, services::hashers::KivraHasher<boost::uuids::uuid>>;
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    return (*slots)[uuid];
}
} // namespace

Class &metaclassSlot(boost::uuids::uuid const &uuid) { return slotOf<Class>(uuid); }
Property &propertySlot(boost::uuids::uuid const &uuid) { return slotOf<Property>(uuid); }

namespace {
// Never destroyed, as the slots: the properties of generated packages live for the process.
struct DeclaredOwners {
    std::unordered_map<Property::Impl const *, Class> owners;
    std::mutex mutex;
};
DeclaredOwners &declaredOwners() {
    static auto *declared = new DeclaredOwners;
    return *declared;
}
} // namespace

void declareOwningClass(Property const &property, Class const &owner) {
    DeclaredOwners &declared = declaredOwners();
    std::lock_guard lock(declared.mutex);
    declared.owners[property.get()] = owner;
}

StructuredType owningTypeOf(Property const &property) {
    if (!property)
        return {};
    if (StructuredType owner = property->getOwningType(); owner.get())
        return owner;
    DeclaredOwners &declared = declaredOwners();
    std::lock_guard lock(declared.mutex);
    auto const found = declared.owners.find(property.get());
    return found == declared.owners.end() ? StructuredType() : StructuredType(found->second);
}

} // namespace kivra::meta::detail
