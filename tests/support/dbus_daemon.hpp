#pragma once

#include "platform/g_ptr.hpp"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>

#include <string>

namespace kw::test {

// A private message bus set up like the system bus, with the service's own
// policy (see system-bus.conf). While it lives, DBUS_SYSTEM_BUS_ADDRESS
// points at it, so G_BUS_TYPE_SYSTEM reaches it. GIO keeps one system bus
// connection per process, so only one of these may live at a time.
class dbus_daemon {
public:
    dbus_daemon()
    {
        g_ptr<GSubprocessLauncher> launcher = adopt(g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE));
        // A daemon left behind by a test that crashed would outlive it otherwise.
        g_subprocess_launcher_set_child_setup(launcher.get(), [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); },
                                              nullptr, nullptr);
        m_process = adopt(g_subprocess_launcher_spawn(launcher.get(), nullptr, "dbus-daemon", "--nofork", "--nosyslog",
                                                      "--print-address", "--config-file=" KW_BUS_CONFIG_FILE, nullptr));
        // The address comes once the socket listens; an end of output instead
        // means the daemon refused its configuration.
        g_ptr<GDataInputStream> output =
            adopt(m_process ? g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_process.get())) : nullptr);
        g_ptr<char> line(output ? g_data_input_stream_read_line(output.get(), nullptr, nullptr, nullptr) : nullptr);
        if (!line || !*line) {
            ADD_FAILURE() << "could not start a private dbus-daemon";
            return;
        }
        m_address = line.get();
        g_setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), TRUE);
        m_system_bus = adopt(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
        if (m_system_bus)
            g_dbus_connection_set_exit_on_close(m_system_bus.get(), FALSE);
    }
    ~dbus_daemon()
    {
        if (m_system_bus) {
            // GIO hands out the same system bus connection while anything holds
            // it, and some holders let go only from the main context. Waiting
            // for the last one gives a later bus a connection of its own.
            GWeakRef last;
            g_weak_ref_init(&last, m_system_bus.get());
            g_dbus_connection_close_sync(m_system_bus.get(), nullptr, nullptr);
            m_system_bus.reset();
            for (gint64 end = g_get_monotonic_time() + G_USEC_PER_SEC; g_get_monotonic_time() < end;) {
                if (!adopt(static_cast<GDBusConnection*>(g_weak_ref_get(&last))))
                    break;
                if (!g_main_context_iteration(nullptr, FALSE))
                    g_usleep(1000);
            }
            g_weak_ref_clear(&last);
        }
        if (m_process) {
            g_subprocess_send_signal(m_process.get(), SIGTERM);
            g_subprocess_wait(m_process.get(), nullptr, nullptr);
        }
        g_unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }

    bool ok() const { return m_system_bus != nullptr; }
    const std::string& address() const { return m_address; }
    // A connection of its own, as another program on the bus would have.
    g_ptr<GDBusConnection> connect() const
    {
        auto flags = GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        error_out error;
        g_ptr<GDBusConnection> connection =
            adopt(g_dbus_connection_new_for_address_sync(m_address.c_str(), flags, nullptr, nullptr, error.out()));
        if (!connection)
            ADD_FAILURE() << "cannot connect to " << m_address << ": " << error.message();
        return connection;
    }

private:
    g_ptr<GSubprocess> m_process;
    std::string m_address;
    // The process's shared connection, set not to end the process with the bus.
    g_ptr<GDBusConnection> m_system_bus;
};

} // namespace kw::test
