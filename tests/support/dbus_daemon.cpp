#include "tests/support/dbus_daemon.hpp"

#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>

namespace kw::test {

namespace {

// Like a system bus: everyone may connect, nobody owns a name or calls a
// method unless the service's policy allows it; replies, signals and the
// bus driver are open.
constexpr const char* configuration = R"(<busconfig>
  <type>system</type>
  <listen>unix:path=%s/bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus"/>
  </policy>
  <include>%s</include>
</busconfig>
)";

// A daemon left behind by a test that crashed would outlive it otherwise.
void end_with_parent(gpointer)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
}

} // namespace

dbus_daemon::dbus_daemon()
{
    if (!start()) {
        ADD_FAILURE() << "could not start a private dbus-daemon";
        return;
    }
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), TRUE);
    error_out error;
    m_system_bus = adopt(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out()));
    if (!m_system_bus) {
        ADD_FAILURE() << "no system bus connection: " << error.message();
        return;
    }
    g_dbus_connection_set_exit_on_close(m_system_bus.get(), FALSE);
}

bool dbus_daemon::start()
{
    if (!m_dir.ok())
        return false;
    // Tests connect as an unprivileged user too, who must reach the socket.
    g_chmod(m_dir.path().c_str(), 0755);
    g_ptr<char> text(g_strdup_printf(configuration, m_dir.path().c_str(), KW_BUS_POLICY_FILE));
    std::string config_option = "--config-file=" + m_dir.write("bus.conf", text.get());

    g_ptr<GSubprocessLauncher> launcher = adopt(g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE));
    g_subprocess_launcher_set_child_setup(launcher.get(), &end_with_parent, nullptr, nullptr);
    error_out error;
    m_process = adopt(g_subprocess_launcher_spawn(launcher.get(), error.out(), "dbus-daemon", "--nofork",
                                                  "--nosyslog", "--print-address", config_option.c_str(), nullptr));
    if (!m_process)
        return false;
    // The address is printed once the socket listens; an end of output
    // instead means the daemon refused its configuration.
    g_ptr<GDataInputStream> output = adopt(g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_process.get())));
    g_ptr<char> line(g_data_input_stream_read_line(output.get(), nullptr, nullptr, nullptr));
    if (line && *line)
        m_address = line.get();
    return !m_address.empty();
}

dbus_daemon::~dbus_daemon()
{
    if (m_system_bus) {
        // GIO hands out the same system bus connection while anything holds
        // it, and some holders let go only from the main context. Waiting for
        // the last one gives a later bus in this process a connection of its own.
        GWeakRef last;
        g_weak_ref_init(&last, m_system_bus.get());
        g_dbus_connection_close_sync(m_system_bus.get(), nullptr, nullptr);
        m_system_bus.reset();
        for (gint64 deadline = g_get_monotonic_time() + G_USEC_PER_SEC; g_get_monotonic_time() < deadline;) {
            g_ptr<GDBusConnection> alive = adopt(static_cast<GDBusConnection*>(g_weak_ref_get(&last)));
            if (!alive)
                break;
            alive.reset();
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

g_ptr<GDBusConnection> dbus_daemon::connect() const
{
    error_out error;
    g_ptr<GDBusConnection> connection = adopt(g_dbus_connection_new_for_address_sync(
        m_address.c_str(),
        GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                             G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error.out()));
    if (!connection)
        ADD_FAILURE() << "cannot connect to " << m_address << ": " << error.message();
    return connection;
}

} // namespace kw::test
