#pragma once

#include "platform/g_ptr.hpp"
#include "src/config/settings.hpp"
#include "src/frame/key_file_observer.hpp"
#include "src/frame/package_observer.hpp"
#include "src/frame/systemd_notifier.hpp"
#include "src/hostnet/interface_filter.hpp"
#include "src/surfaces/dbus_api.hpp"
#include "src/tracking/monitor.hpp"

#include <memory>
#include <optional>

namespace kw {

// The process from its command line to its teardown: it owns everything the
// service builds at start-up and releases it in a fixed order.
class service {
public:
    service() = default;
    service(const service&) = delete;
    service& operator=(const service&) = delete;
    ~service();

    // Starts the service and runs its main loop; returns the exit status:
    // 0 after the loop has returned, 1 after a start-up failure.
    int run(int argc, char** argv);

private:
    // False when no configuration file was given (the help is printed then).
    // A malformed command line ends the process.
    bool parse_command_line(int* argc, char*** argv);
    // With -p: false, after a warning, when the value is not 1 to 55.
    bool read_announce_period();
    // With -k: the keys, or false after a warning naming the file and the problem.
    bool load_keys();
    // With -I: the filter, or false after a warning naming the option.
    bool parse_interfaces();
    // The service manager's STATUS line, from the monitor and the bus.
    void update_status();
    static gboolean trim_heap(gpointer);

    guint m_trim_timer_id = 0;
    bool m_no_daemon = false;
    bool m_fast_join = false;
    unsigned m_announce_period = 0; // 0: not given
    g_ptr<char> m_announce_period_text;
    g_ptr<char> m_config_file;
    g_ptr<char> m_ident;
    g_ptr<char> m_key_file;
    g_ptr<char> m_interfaces;
    interface_filter m_interface_filter;
    g_ptr<GMainLoop> m_main_loop;
    std::unique_ptr<systemd_notifier> m_notifier;
    std::optional<dbus_api::bus_state> m_bus_state;
    std::unique_ptr<group_auth> m_group_auth;
    std::unique_ptr<key_file_observer> m_key_file_observer;
    std::unique_ptr<settings> m_settings;
    std::unique_ptr<monitor> m_monitor;
    std::unique_ptr<package_observer> m_package_observer;
    std::unique_ptr<dbus_api> m_dbus_api;
};

} // namespace kw
