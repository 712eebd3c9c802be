#pragma once

#include "platform/g_ptr.hpp"

#include <glib.h>

#include <string>

namespace kw {

// Tells the service manager how the service is doing, through libsystemd's
// sd_notify: READY=1 once, a STATUS= line whenever the status text changes,
// and, when the manager asks for a watchdog (WATCHDOG_USEC), WATCHDOG=1 from
// a timer of the main loop at half the period it gives. The pings come from
// the loop itself, so a loop that is stuck stops them and the manager ends
// and restarts the service. Without NOTIFY_SOCKET nothing is sent and no
// timer runs. Main thread only.
class systemd_notifier {
public:
    // The timer goes on the given context, the global default when null.
    explicit systemd_notifier(GMainContext* context = nullptr);
    systemd_notifier(const systemd_notifier&) = delete;
    systemd_notifier& operator=(const systemd_notifier&) = delete;
    // Removes the timer.
    ~systemd_notifier();

    // The first call sends READY=1; later ones do nothing.
    void ready();
    // Sends the text when it is not the one sent last.
    void set_status(const std::string& text);

private:
    static gboolean on_watchdog(gpointer self);
    void send(const std::string& state);

    bool m_enabled = false;
    bool m_ready = false;
    std::string m_status;
    g_ptr<GSource> m_watchdog;
};

} // namespace kw
