#include <kivra/ModelElement.hpp>
#include <kivra/services/Hashers.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

namespace kivra::services::hashers {

std::size_t KivraHasher<boost::posix_time::ptime>::operator()(boost::posix_time::ptime const &time) const {
    std::string const text = boost::posix_time::to_iso_string(time);
    return static_cast<std::size_t>(fnv1a(text.data(), text.size()));
}

} // namespace kivra::services::hashers

std::size_t std::hash<kivra::ModelElement>::operator()(kivra::ModelElement const &element) const noexcept {
    return element.get() ? kivra::services::hashers::KivraHasher<boost::uuids::uuid>()(element->getUuid()) : 0;
}
