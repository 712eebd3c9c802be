#pragma once

#include "tools/kinwatchctl/bus_client.hpp"
#include "tools/kinwatchctl/node_watch.hpp"

#include <glib.h>

#include <cstdint>
#include <ostream>
#include <string>

namespace kw::ctl {

// The watch command: follows the service's node signals and prints a line for
// every change, until SIGINT or SIGTERM, until it has printed the limit of
// changes, or until the bus goes away. It fetches both lists once at the start
// and again only when it missed changes: a gap in the generations, or the
// service's name gaining an owner (a restarted service counts anew).
class watch_loop {
public:
    // limit 0: no limit.
    watch_loop(bus_client& client, std::ostream& out, std::ostream& err, bool json = false, unsigned limit = 0);
    watch_loop(const watch_loop&) = delete;
    watch_loop& operator=(const watch_loop&) = delete;
    ~watch_loop();

    // Subscribes, takes the baseline, then runs until stopped; the exit status.
    int run();
    // Ends run() with the given status; safe from inside a callback.
    void stop(int status);

private:
    static void on_node_signal(GDBusConnection* connection, const gchar* sender, const gchar* path,
                               const gchar* interface, const gchar* member, GVariant* parameters, gpointer self);
    static void on_owner_changed(GDBusConnection* connection, const gchar* sender, const gchar* path,
                                 const gchar* interface, const gchar* member, GVariant* parameters, gpointer self);
    static void on_closed(GDBusConnection* connection, gboolean remote_peer_vanished, GError* error, gpointer self);
    static gboolean on_signal(gpointer self);

    void node_signal(const char* member, GVariant* parameters);
    // Fetches both lists and tells what changed since the mirror; false, the
    // failure told once, when the service does not answer.
    bool resynchronise();
    // Tells a failure, unless it is the one told last.
    void report_once(const bus_failure& failure);
    void tell(const node_watch::change& change, std::uint64_t generation, const bool* reported = nullptr);
    void remove_sources();

    bus_client& m_client;
    std::ostream& m_out;
    std::ostream& m_err;
    const bool m_json;
    const unsigned m_limit;
    unsigned m_told = 0;
    node_watch m_watch;
    // The generation of the mirror; meaningful only while synced.
    std::uint64_t m_generation = 0;
    bool m_synced = false;
    g_ptr<GMainLoop> m_loop;
    guint m_node_subscription = 0;
    guint m_owner_subscription = 0;
    gulong m_closed_handler = 0;
    guint m_sigint = 0;
    guint m_sigterm = 0;
    int m_status = exit_ok;
    // The last failure told to the operator, so that a failure that lasts is
    // told once.
    std::string m_reported;
};

} // namespace kw::ctl
