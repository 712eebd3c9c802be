#pragma once

#include "platform/g_ptr.hpp"

#include <functional>

namespace kw {

// Where first-seen and last-seen times come from. The service uses the local
// wall clock; tests hand in a clock of their own.
using local_clock = std::function<g_ptr<GDateTime>()>;

// Where silence is measured: microseconds on a clock that never steps. Tests
// hand in a clock of their own, so that the two clocks can part.
using monotonic_clock = std::function<gint64()>;

// The current date-time in the local time zone.
inline g_ptr<GDateTime> system_local_now()
{
    return adopt(g_date_time_new_now_local());
}

// CLOCK_MONOTONIC, read through GLib. Silence is not measured on the wall
// clock, which an administrator, a time daemon or the first synchronisation
// after a boot at an old date may step by hours or years, losing every live
// sibling at once or keeping a dead one for as long as the step. Monotonic
// rather than boot time: the main loop's timers, the 5-second tick among
// them, run on this clock, so the limit and the tick are measured alike; and
// time spent suspended does not count, so a camera that wakes up gives its
// siblings a full limit to be heard again instead of declaring them all lost
// at its first tick.
inline gint64 system_monotonic_now()
{
    return g_get_monotonic_time();
}

} // namespace kw
