#pragma once

#include "platform/g_ptr.hpp"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>

#include <string>

namespace kw::test {

// A private bus with the service's policy (system-bus.conf), reached as the
// system bus while it lives; GIO keeps one per process, so one at a time.
class dbus_daemon {
public:
    dbus_daemon()
    {
        g_ptr<GSubprocessLauncher> launcher = adopt(g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE));
        g_subprocess_launcher_set_child_setup(launcher.get(), [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); },
                                              nullptr, nullptr);
        m_process = adopt(g_subprocess_launcher_spawn(launcher.get(), nullptr, "dbus-daemon", "--nofork", "--nosyslog",
                                                      "--print-address", "--config-file=" KW_BUS_CONFIG_FILE, nullptr));
        // The address comes once it listens, an end of output if it refused.
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
            // Some holders let go only from the main context; until the last
            // does, GIO would hand a later bus this connection.
            GWeakRef last;
            g_weak_ref_init(&last, m_system_bus.get());
            g_dbus_connection_close_sync(m_system_bus.get(), nullptr, nullptr);
            m_system_bus.reset();
            for (gint64 end = g_get_monotonic_time() + G_USEC_PER_SEC;
                 g_get_monotonic_time() < end && adopt(static_cast<GDBusConnection*>(g_weak_ref_get(&last)));)
                if (!g_main_context_iteration(nullptr, FALSE))
                    g_usleep(1000);
            g_weak_ref_clear(&last);
        }
        if (m_process) {
            g_subprocess_send_signal(m_process.get(), SIGTERM);
            g_subprocess_wait(m_process.get(), nullptr, nullptr);
        }
        g_unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }

    bool ok() const { return m_system_bus != nullptr; }
    // A connection of its own, as another program on the bus would have.
    g_ptr<GDBusConnection> connect() const
    {
        auto connection = adopt(g_dbus_connection_new_for_address_sync(
            m_address.c_str(),
            GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr));
        EXPECT_TRUE(connection) << "cannot connect to " << m_address;
        return connection;
    }

private:
    g_ptr<GSubprocess> m_process;
    std::string m_address;
    g_ptr<GDBusConnection> m_system_bus;
};

} // namespace kw::test
