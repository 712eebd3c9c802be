#pragma once

#include "platform/g_ptr.hpp"
#include "tests/support/process.hpp"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>

#include <string>

namespace kw::test {

// A private bus with the service's policy, the process's system bus while it lives (one at a time).
class dbus_daemon {
public:
    dbus_daemon() { start(nullptr); }
    ~dbus_daemon()
    {
        stop(SIGTERM);
        g_unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }

    bool ok() const { return !m_address.empty(); }
    // Kills the daemon and starts another at the same address, as a
    // restarted system bus would be.
    void restart()
    {
        std::string listen = "--address=" + m_address.substr(0, m_address.find(','));
        stop(SIGKILL);
        start(listen.c_str());
    }
    // SIGSTOP makes a bus that takes connections and answers nothing.
    void signal(int number) { g_subprocess_send_signal(m_process.get(), number); }
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
    void start(const char* listen)
    {
        m_address.clear();
        g_ptr<GSubprocessLauncher> launcher = adopt(g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE));
        g_subprocess_launcher_set_child_setup(launcher.get(), [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); },
                                              nullptr, nullptr);
        m_process = adopt(g_subprocess_launcher_spawn(launcher.get(), nullptr, "dbus-daemon", "--nofork", "--nosyslog",
                                                      "--print-address", "--config-file=" KW_BUS_CONFIG_FILE, listen,
                                                      nullptr));
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
    }
    void stop(int signal)
    {
        end_process(m_process.get(), signal);
    }

    g_ptr<GSubprocess> m_process;
    std::string m_address;
};

} // namespace kw::test
