#include "tests/support/dbus_daemon.hpp"

#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>

namespace kw::test {

namespace {

constexpr const char* address_variable = "DBUS_SYSTEM_BUS_ADDRESS";

// Like a system bus: every user may connect, but nobody owns names or calls methods unless a policy
// file allows it, replies and signals flow, and the bus driver answers all.
std::string bus_configuration(const std::string& socket_path, const std::string& policy_file)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <type>system</type>\n"
           "  <listen>unix:path=" +
           socket_path +
           "</listen>\n"
           "  <auth>EXTERNAL</auth>\n"
           "  <policy context=\"default\">\n"
           "    <allow user=\"*\"/>\n"
           "    <deny own=\"*\"/>\n"
           "    <deny send_type=\"method_call\"/>\n"
           "    <allow send_type=\"signal\"/>\n"
           "    <allow send_requested_reply=\"true\" send_type=\"method_return\"/>\n"
           "    <allow send_requested_reply=\"true\" send_type=\"error\"/>\n"
           "    <allow receive_type=\"method_call\"/>\n"
           "    <allow receive_type=\"method_return\"/>\n"
           "    <allow receive_type=\"error\"/>\n"
           "    <allow receive_type=\"signal\"/>\n"
           "    <allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus\"/>\n"
           "    <allow send_destination=\"org.freedesktop.DBus\"\n"
           "           send_interface=\"org.freedesktop.DBus.Introspectable\"/>\n"
           "    <allow send_destination=\"org.freedesktop.DBus\" send_interface=\"org.freedesktop.DBus.Peer\"/>\n"
           "  </policy>\n"
           "  <include>" +
           policy_file +
           "</include>\n"
           "</busconfig>\n";
}

// A daemon left behind by a test that crashed would outlive it otherwise.
void end_with_parent(gpointer)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
}

} // namespace

std::string dbus_daemon::default_policy_file()
{
    return KW_BUS_POLICY_FILE;
}

dbus_daemon::dbus_daemon(const std::string& policy_file)
{
    if (!start(policy_file)) {
        ADD_FAILURE() << "could not start a private dbus-daemon";
        return;
    }

    if (const char* saved = g_getenv(address_variable))
        m_saved_address = saved;
    g_setenv(address_variable, m_address.c_str(), TRUE);

    error_out error;
    m_system_bus = adopt(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out()));
    if (!m_system_bus) {
        ADD_FAILURE() << "no system bus connection: " << error.message();
        return;
    }
    // Ending the daemon at scope end must not end the test with it.
    g_dbus_connection_set_exit_on_close(m_system_bus.get(), FALSE);
}

bool dbus_daemon::start(const std::string& policy_file)
{
    if (!m_dir.ok())
        return false;
    // Tests connect as an unprivileged user too, who must reach the socket.
    g_chmod(m_dir.path().c_str(), 0755);
    std::string configuration = m_dir.write("bus.conf", bus_configuration(m_dir.file("bus_socket"), policy_file));

    g_ptr<GSubprocessLauncher> launcher = adopt(g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE));
    g_subprocess_launcher_set_child_setup(launcher.get(), &end_with_parent, nullptr, nullptr);
    std::string config_option = "--config-file=" + configuration;
    error_out error;
    m_process = adopt(g_subprocess_launcher_spawn(launcher.get(), error.out(), "dbus-daemon", "--nofork",
                                                  "--nosyslog", "--print-address", config_option.c_str(),
                                                  nullptr));
    if (!m_process) {
        ADD_FAILURE() << "cannot run dbus-daemon: " << error.message();
        return false;
    }

    // The address is printed once the socket listens; an end of output
    // instead means the daemon refused its configuration.
    g_ptr<GDataInputStream> output = adopt(g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_process.get())));
    g_ptr<char> line(g_data_input_stream_read_line(output.get(), nullptr, nullptr, error.out()));
    if (!line || line.get()[0] == '\0')
        return false;
    m_address = line.get();
    return true;
}

dbus_daemon::~dbus_daemon()
{
    if (m_system_bus) {
        // GIO hands out the same system bus connection while anything holds
        // it, and some holders let go only from the main context. Waiting for
        // the last one here gives a later bus in this process a connection
        // of its own.
        GWeakRef last;
        g_weak_ref_init(&last, m_system_bus.get());
        g_dbus_connection_close_sync(m_system_bus.get(), nullptr, nullptr);
        m_system_bus.reset();
        gint64 deadline = g_get_monotonic_time() + G_USEC_PER_SEC;
        while (g_get_monotonic_time() < deadline) {
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
        m_process.reset();
    }
    if (m_address.empty())
        return;
    if (m_saved_address)
        g_setenv(address_variable, m_saved_address->c_str(), TRUE);
    else
        g_unsetenv(address_variable);
}

g_ptr<GDBusConnection> dbus_daemon::connect() const
{
    error_out error;
    g_ptr<GDBusConnection> connection = adopt(g_dbus_connection_new_for_address_sync(
        m_address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, error.out()));
    if (!connection)
        ADD_FAILURE() << "cannot connect to " << m_address << ": " << error.message();
    return connection;
}

} // namespace kw::test
