#include "src/frame/systemd_notifier.hpp"

#include <systemd/sd-daemon.h>

#include <algorithm>

namespace kw {

systemd_notifier::systemd_notifier(GMainContext* context) : m_enabled(g_getenv("NOTIFY_SOCKET") != nullptr)
{
    std::uint64_t period_us = 0;
    if (!m_enabled || sd_watchdog_enabled(0, &period_us) <= 0)
        return;
    auto interval_ms = static_cast<guint>(std::clamp<std::uint64_t>(period_us / 2000, 1, G_MAXUINT));
    m_watchdog = adopt(g_timeout_source_new(interval_ms));
    g_source_set_callback(m_watchdog.get(), &systemd_notifier::on_watchdog, this, nullptr);
    g_source_attach(m_watchdog.get(), context);
}

systemd_notifier::~systemd_notifier()
{
    if (m_watchdog)
        g_source_destroy(m_watchdog.get());
}

gboolean systemd_notifier::on_watchdog(gpointer self)
{
    static_cast<systemd_notifier*>(self)->send("WATCHDOG=1");
    return G_SOURCE_CONTINUE;
}

void systemd_notifier::ready()
{
    if (m_ready)
        return;
    m_ready = true;
    send("READY=1");
}

void systemd_notifier::set_status(const std::string& text)
{
    if (text == m_status)
        return;
    m_status = text;
    send("STATUS=" + text);
}

void systemd_notifier::send(const std::string& state)
{
    // A manager that is gone or refuses the message changes nothing here:
    // the service runs on either way.
    if (m_enabled)
        sd_notify(0, state.c_str());
}

} // namespace kw
