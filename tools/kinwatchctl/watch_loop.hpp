#pragma once

#include "tools/kinwatchctl/bus_client.hpp"
#include "tools/kinwatchctl/node_watch.hpp"

#include <glib.h>

#include <ostream>
#include <string>

namespace kw::ctl {

// The watch command: reads both node lists every interval on the default
// main context and prints what changed, until SIGINT or SIGTERM quits the
// loop or the bus goes away.
class watch_loop {
public:
    static constexpr guint default_interval_ms = 5000;

    watch_loop(bus_client& client, std::ostream& out, std::ostream& err,
               guint interval_ms = default_interval_ms);
    watch_loop(const watch_loop&) = delete;
    watch_loop& operator=(const watch_loop&) = delete;
    ~watch_loop();

    // Takes the baseline, then runs until stopped; the exit status.
    int run();
    // Ends run() with the given status; safe from inside a callback.
    void stop(int status);

private:
    static gboolean on_tick(gpointer self);
    static gboolean on_signal(gpointer self);

    // One reading; false when the watch cannot go on.
    bool poll();
    void remove_sources();

    bus_client& m_client;
    std::ostream& m_out;
    std::ostream& m_err;
    guint m_interval_ms;
    node_watch m_watch;
    g_ptr<GMainLoop> m_loop;
    guint m_timer = 0;
    guint m_sigint = 0;
    guint m_sigterm = 0;
    int m_status = exit_ok;
    // The last failure told to the operator, so that a failure that lasts is
    // told once rather than every interval.
    std::string m_reported;
};

} // namespace kw::ctl
