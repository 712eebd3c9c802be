#include "tools/kinwatchctl/watch_loop.hpp"

#include <glib-unix.h>

#include <csignal>

namespace kw::ctl {

watch_loop::watch_loop(bus_client& client, std::ostream& out, std::ostream& err, guint interval_ms)
    : m_client(client), m_out(out), m_err(err), m_interval_ms(interval_ms)
{
}

watch_loop::~watch_loop()
{
    remove_sources();
}

void watch_loop::remove_sources()
{
    for (guint* id : {&m_timer, &m_sigint, &m_sigterm}) {
        if (*id)
            g_source_remove(*id);
        *id = 0;
    }
}

int watch_loop::run()
{
    bus_failure failure;
    auto known = m_client.nodes(bus_client::node_list::known, failure);
    auto lost = known ? m_client.nodes(bus_client::node_list::lost, failure) : std::nullopt;
    if (!known || !lost)
        return failure.report(m_err, "watch the nodes");
    m_watch.update(*known, *lost);
    m_err << "kinwatchctl: watching " << known->size() << " known and " << lost->size()
          << " lost nodes; interrupt to stop" << std::endl;

    m_loop = adopt(g_main_loop_new(nullptr, FALSE));
    m_timer = g_timeout_add(m_interval_ms, on_tick, this);
    m_sigint = g_unix_signal_add(SIGINT, on_signal, this);
    m_sigterm = g_unix_signal_add(SIGTERM, on_signal, this);
    g_main_loop_run(m_loop.get());
    remove_sources();
    return m_status;
}

void watch_loop::stop(int status)
{
    m_status = status;
    if (m_loop)
        g_main_loop_quit(m_loop.get());
}

gboolean watch_loop::on_tick(gpointer self)
{
    auto* loop = static_cast<watch_loop*>(self);
    if (!loop->poll())
        loop->stop(exit_not_running);
    return G_SOURCE_CONTINUE;
}

gboolean watch_loop::on_signal(gpointer self)
{
    static_cast<watch_loop*>(self)->stop(exit_ok);
    return G_SOURCE_CONTINUE;
}

bool watch_loop::poll()
{
    bus_failure failure;
    auto known = m_client.nodes(bus_client::node_list::known, failure);
    auto lost = known ? m_client.nodes(bus_client::node_list::lost, failure) : std::nullopt;
    if (!known || !lost) {
        if (m_client.closed()) {
            failure.report(m_err, "watch the nodes");
            return false;
        }
        // The service may be restarted or re-enabled; keep watching and
        // tell each new kind of trouble once (same kind, same message).
        std::string trouble = std::to_string(static_cast<int>(failure.what())) + " " + failure.message();
        if (trouble != m_reported) {
            failure.report(m_err, "watch the nodes");
            m_err.flush();
            m_reported = trouble;
        }
        return true;
    }
    m_reported.clear();
    for (const auto& line : m_watch.update(*known, *lost))
        m_out << line << '\n';
    m_out.flush();
    return true;
}

} // namespace kw::ctl
