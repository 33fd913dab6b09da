#include <kivra/meta/detail/Metaclasses.hpp>

#include <kivra/meta/Class.hpp>
#include <kivra/meta/Property.hpp>
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

} // namespace kivra::meta::detail
