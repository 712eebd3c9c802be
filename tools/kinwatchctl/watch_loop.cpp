#include "tools/kinwatchctl/watch_loop.hpp"

#include "tools/kinwatchctl/node_format.hpp"

#include <glib-unix.h>

#include <csignal>

namespace kw::ctl {

watch_loop::watch_loop(bus_client& client, std::ostream& out, std::ostream& err, bool json, unsigned limit)
    : m_client(client), m_out(out), m_err(err), m_json(json), m_limit(limit)
{
}

watch_loop::~watch_loop()
{
    remove_sources();
}

void watch_loop::remove_sources()
{
    GDBusConnection* connection = m_client.connection();
    for (guint* id : {&m_node_subscription, &m_owner_subscription}) {
        if (*id)
            g_dbus_connection_signal_unsubscribe(connection, *id);
        *id = 0;
    }
    if (m_closed_handler)
        g_signal_handler_disconnect(connection, m_closed_handler);
    m_closed_handler = 0;
    for (guint* id : {&m_sigint, &m_sigterm}) {
        if (*id)
            g_source_remove(*id);
        *id = 0;
    }
}

int watch_loop::run()
{
    // Subscribed before the baseline is taken, so no change falls between.
    GDBusConnection* connection = m_client.connection();
    m_node_subscription = g_dbus_connection_signal_subscribe(
        connection, bus_client::bus_name, bus_client::monitor_interface_name, nullptr, bus_client::object_path,
        nullptr, G_DBUS_SIGNAL_FLAGS_NONE, &watch_loop::on_node_signal, this, nullptr);
    m_owner_subscription = g_dbus_connection_signal_subscribe(
        connection, "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged", "/org/freedesktop/DBus",
        bus_client::bus_name, G_DBUS_SIGNAL_FLAGS_NONE, &watch_loop::on_owner_changed, this, nullptr);
    m_closed_handler = g_signal_connect(connection, "closed", G_CALLBACK(&watch_loop::on_closed), this);

    // Interrupts are taken before the first read, which a stuck service may
    // never answer.
    m_loop = adopt(g_main_loop_new(nullptr, FALSE));
    m_sigint = g_unix_signal_add(SIGINT, on_signal, this);
    m_sigterm = g_unix_signal_add(SIGTERM, on_signal, this);
    read_lists();
    g_main_loop_run(m_loop.get());
    // A read cut short by stop() still calls back once; nothing may be left
    // pointing at this loop.
    while (m_reading)
        g_main_context_iteration(nullptr, TRUE);
    remove_sources();
    // Removing the sources gave both signals their default action back. An
    // interrupt is often sent twice (a shell or a supervisor may send it to
    // the process and then to its group): a second one that arrives while
    // the process ends must not turn a clean end into death by signal.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGTERM, SIG_IGN);
    return m_status;
}

void watch_loop::stop(int status)
{
    m_status = status;
    g_cancellable_cancel(m_cancellable.get());
    if (m_loop)
        g_main_loop_quit(m_loop.get());
}

gboolean watch_loop::on_signal(gpointer self)
{
    static_cast<watch_loop*>(self)->stop(exit_ok);
    return G_SOURCE_CONTINUE;
}

void watch_loop::on_lists(GObject*, GAsyncResult* result, gpointer self)
{
    static_cast<watch_loop*>(self)->lists_read(result);
}

void watch_loop::on_closed(GDBusConnection*, gboolean, GError*, gpointer self)
{
    auto* loop = static_cast<watch_loop*>(self);
    loop->stop(bus_failure::not_running().report(loop->m_err, "watch the nodes"));
}

void watch_loop::on_node_signal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* member,
                                GVariant* parameters, gpointer self)
{
    static_cast<watch_loop*>(self)->node_signal(member ? member : "", parameters);
}

void watch_loop::on_owner_changed(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                                  GVariant* parameters, gpointer self)
{
    auto* loop = static_cast<watch_loop*>(self);
    const char* owner = nullptr;
    g_variant_get(parameters, "(&s&s&s)", nullptr, nullptr, &owner);
    // A new owner counts its generations anew: take its lists. A read on its
    // way may have reached the old owner.
    loop->m_synced = false;
    loop->m_read_again = loop->m_reading;
    if (owner && *owner)
        loop->read_lists();
    else
        loop->report_once(bus_failure::not_running());
}

void watch_loop::report_once(const bus_failure& failure)
{
    std::string trouble = std::to_string(static_cast<int>(failure.what())) + " " + failure.message();
    if (trouble == m_reported)
        return;
    failure.report(m_err, "watch the nodes");
    m_err.flush();
    m_reported = trouble;
}

void watch_loop::node_signal(const std::string& member, GVariant* parameters)
{
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ta{sv})")))
        return;
    // Out of step (a read of the lists failed, say after the service came
    // back): the lists are read again, and they hold this change too. While
    // they are read, the signal waits for them.
    if (m_reading || !m_synced) {
        m_held.emplace_back(member, ref(parameters));
        read_lists();
        return;
    }
    std::uint64_t generation = 0;
    g_ptr<GVariant> dictionary;
    {
        GVariant* node = nullptr;
        g_variant_get(parameters, "(t@a{sv})", &generation, &node);
        dictionary = adopt(node);
    }
    // Older than the mirror: the lists already hold it. A gap: changes were
    // missed, so the lists are read again.
    if (generation <= m_generation)
        return;
    if (generation != m_generation + 1) {
        m_synced = false;
        read_lists();
        return;
    }
    m_generation = generation;
    node_watch::signalled kind = member == "NodeJoined" ? node_watch::signalled::joined
                                 : member == "NodeLost" ? node_watch::signalled::lost
                                                        : node_watch::signalled::left;
    gboolean reported = FALSE;
    bool has_reported = g_variant_lookup(dictionary.get(), "reported", "b", &reported);
    bool flag = reported;
    tell(m_watch.apply(kind, node_entry::from_dictionary(dictionary.get())), generation,
         has_reported ? &flag : nullptr);
}

void watch_loop::read_lists()
{
    if (m_reading || g_cancellable_is_cancelled(m_cancellable.get()))
        return;
    m_reading = true;
    m_client.monitor_nodes_begin(m_cancellable.get(), &watch_loop::on_lists, this);
}

void watch_loop::lists_read(GAsyncResult* result)
{
    m_reading = false;
    bus_failure failure;
    auto taken = m_client.monitor_nodes_finish(result, failure);
    if (g_cancellable_is_cancelled(m_cancellable.get()))
        return;
    if (std::exchange(m_read_again, false)) {
        read_lists();
        return;
    }
    if (!taken) {
        m_held.clear();
        if (!m_baseline)
            stop(failure.report(m_err, "watch the nodes"));
        else
            report_once(failure);
        return;
    }
    m_reported.clear();
    m_generation = taken->generation;
    m_synced = true;
    auto changes = m_watch.update(taken->known, taken->lost);
    if (!m_baseline) {
        m_baseline = true;
        m_err << "kinwatchctl: watching " << taken->known.size() << " known and " << taken->lost.size()
              << " lost nodes; interrupt to stop" << std::endl;
    }
    for (const auto& change : changes)
        tell(change, taken->generation);
    for (auto& [member, parameters] : std::exchange(m_held, {}))
        node_signal(member, parameters.get());
}

// "joined 02:00:00:00:00:02 10.78.0.2 fd78::2", or with --json
// {"change":"joined","generation":7,"mac":…,…,"reported":true}.
void watch_loop::tell(const node_watch::change& change, std::uint64_t generation, const bool* reported)
{
    if (m_limit && m_told >= m_limit)
        return;
    if (m_json) {
        std::string node = node_format::json_line(change.node);
        m_out << "{\"change\":" << node_format::json_string(change.what) << ",\"generation\":" << generation << ","
              << node.substr(1, node.size() - 2) << (reported ? (*reported ? ",\"reported\":true" : ",\"reported\":false") : "")
              << "}\n";
    } else {
        m_out << change.what << ' ' << change.node.mac << ' ' << change.node.ipv4 << ' ' << change.node.ipv6 << '\n';
    }
    m_out.flush();
    if (m_limit && ++m_told == m_limit)
        stop(exit_ok);
}

} // namespace kw::ctl
