#pragma once

#include "tools/kinwatchctl/bus_client.hpp"
#include "tools/kinwatchctl/node_watch.hpp"

#include <glib.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace kw::ctl {

// The watch command: follows the service's node signals and prints a line for
// every change, until SIGINT or SIGTERM, until it has printed the limit of
// changes, or until the bus goes away. It fetches both lists once at the start
// and again only when it missed changes: a gap in the generations, or the
// service's name gaining an owner (a restarted service counts anew). It never
// blocks on the service: the lists are read without waiting, so an interrupt
// ends it at once whatever it is waiting for.
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
    static void on_lists(GObject* source, GAsyncResult* result, gpointer self);

    void node_signal(const std::string& member, GVariant* parameters);
    // Asks for both lists, unless a read is on its way or the watch ends.
    void read_lists();
    // Tells what changed since the mirror (nothing for the first read, which
    // is the baseline), then the signals that came meanwhile. A failure is
    // told once; a failed first read ends the watch.
    void lists_read(GAsyncResult* result);
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
    bool m_baseline = false;
    // A read of the lists on its way, and the signals that came meanwhile:
    // the lists may or may not hold their changes, which their generations
    // tell once the lists are in.
    bool m_reading = false;
    bool m_read_again = false;
    std::vector<std::pair<std::string, g_ptr<GVariant>>> m_held;
    g_ptr<GCancellable> m_cancellable = adopt(g_cancellable_new());
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
