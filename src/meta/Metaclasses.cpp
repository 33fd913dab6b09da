#include <kivra/meta/detail/Metaclasses.hpp>
#include <kivra/services/Hashers.hpp>

#include <mutex>
#include <unordered_map>

namespace kivra::meta::detail {

Class &metaclassSlot(boost::uuids::uuid const &uuid) {
    // Never destroyed: handles in the slots may be read by destructors of other statics.
    static auto *slots = new std::unordered_map<boost::uuids::uuid, Class, services::hashers::KivraHasher<boost::uuids::uuid>>;
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    return (*slots)[uuid];
}

} // namespace kivra::meta::detail
