#pragma once
/// \file
/// The two defaults that are made anew for each element rather than written once:
/// "random" on a UUID property and "now" on a DateTime property.

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/uuid/uuid.hpp>

namespace kivra::detail {

/// A new random UUID, as the default "random" gives it.
boost::uuids::uuid randomDefaultUuid();

/// The current local time, as the default "now" gives it. Raises `std::runtime_error`
/// ("could not convert calendar time to local time") when the clock cannot be read as
/// local time.
boost::posix_time::ptime currentLocalTime();

} // namespace kivra::detail
