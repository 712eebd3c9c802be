#pragma once

#include "platform/g_ptr.hpp"

#include <functional>

namespace kw {

// Where first-seen, last-seen and silence times come from. The service uses
// the local wall clock; tests hand in a clock of their own.
using local_clock = std::function<g_ptr<GDateTime>()>;

// The current date-time in the local time zone.
inline g_ptr<GDateTime> system_local_now()
{
    return adopt(g_date_time_new_now_local());
}

} // namespace kw
