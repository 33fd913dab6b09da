#include <kivra/detail/DynamicDefaults.hpp>

#include <kivra/ElementImpl.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace kivra::detail {

boost::uuids::uuid randomDefaultUuid() { return ElementImpl::generateNewUuid(); }

// The clock raises "could not convert calendar time to local time" itself when the C
// library cannot give local time; the text is the one callers are told to expect.
boost::posix_time::ptime currentLocalTime() { return boost::posix_time::microsec_clock::local_time(); }

} // namespace kivra::detail
