#pragma once

#include "platform/g_ptr.hpp"

namespace kw::test {

// Counts the references held on chosen date-times. The test binary stands in
// for g_date_time_ref and g_date_time_unref, counts the calls made on the
// date-times handed to counted(), and passes every call on to GLib.

// Takes over a new date-time (one reference, now the caller's) and counts
// its references from here on.
g_ptr<GDateTime> counted(GDateTime* fresh);

// References now held on a counted date-time; 0 once the last is released.
int references(GDateTime* time);

} // namespace kw::test
