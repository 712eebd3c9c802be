#include "src/frame/service.hpp"

#include "platform/qvsd_daemon.hpp"
#include "src/frame/package.hpp"
#include "src/frame/package_observer.hpp"
#include "src/frame/systemd_notifier.hpp"
#include "src/surfaces/dbus_api.hpp"
#include "src/tracking/monitor.hpp"

#include <malloc.h>

namespace kw {

namespace {

// How often the heap's free pages go back to the system.
constexpr guint trim_interval_s = 5;

} // namespace

service::~service()
{
    if (m_trim_timer_id != 0)
        g_source_remove(m_trim_timer_id);
    m_config_file.reset();
    m_ident.reset();
    // The package observer outlives the monitor it watches for, but no event
    // reaches it any more: the main loop has stopped. The settings record
    // goes last because the monitor's release reads it and may write it.
    m_dbus_api.reset();
    if (m_monitor)
        m_monitor->remove_state_listener(this);
    m_monitor.reset();
    m_package_observer.reset();
    m_settings.reset();
    // Wipes the keys; the monitor and the observer that used them are gone.
    m_key_file_observer.reset();
    m_group_auth.reset();
    m_key_file.reset();
    m_notifier.reset();
    m_main_loop.reset();
}

bool service::parse_command_line(int* argc, char*** argv)
{
    gboolean no_daemon = FALSE;
    gboolean fast_join = FALSE;
    char* config_file = nullptr;
    char* ident = nullptr;
    char* key_file = nullptr;
    char* interfaces = nullptr;
    char* announce_period = nullptr;
    const GOptionEntry entries[] = {
        {"no-daemon", 'n', 0, G_OPTION_ARG_NONE, &no_daemon, "Do not run in background", nullptr},
        {"config_file", 'c', 0, G_OPTION_ARG_STRING, &config_file, "Specify configuration file, -c <filename>",
         nullptr},
        {"ident", 'i', 0, G_OPTION_ARG_STRING, &ident, "The name of the process, -i <ident>", nullptr},
        {"fast-join", 'f', 0, G_OPTION_ARG_NONE, &fast_join, "Answer a newly heard sibling with an ANNOUNCE at once",
         nullptr},
        {"key-file", 'k', 0, G_OPTION_ARG_FILENAME, &key_file, "Authenticate the group with the keys in FILE",
         "FILE"},
        {"interfaces", 'I', 0, G_OPTION_ARG_STRING, &interfaces,
         "Use only the interfaces PATTERNS admits (shell patterns, comma-separated, ! to exclude)", "PATTERNS"},
        {"announce-period", 'p', 0, G_OPTION_ARG_STRING, &announce_period,
         "Announce every SECONDS (1 to 55) and judge each sibling by its own period", "SECONDS"},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    };

    auto context = adopt(g_option_context_new("Kinwatch"));
    g_option_context_add_main_entries(context.get(), entries, nullptr);
    error_out error;
    bool parsed = g_option_context_parse(context.get(), argc, argv, error.out());
    m_no_daemon = no_daemon;
    m_fast_join = fast_join;
    m_config_file = adopt(config_file);
    m_ident = adopt(ident);
    m_key_file = adopt(key_file);
    m_interfaces = adopt(interfaces);
    m_announce_period_text = adopt(announce_period);

    if (parsed && !m_config_file) {
        g_ptr<char> help(g_option_context_get_help(context.get(), TRUE, nullptr));
        g_printerr("%s", help.get());
    }
    context.reset();

    if (!parsed)
        g_error("%s", error.message());
    return m_config_file != nullptr;
}

int service::run(int argc, char** argv)
{
    if (!parse_command_line(&argc, &argv) || !read_announce_period())
        return 1;
    // The background process works in "/", so a relative path given on the
    // command line must be resolved here, where the caller's directory still
    // applies; every later load and save then uses the same file.
    m_config_file = adopt(g_canonicalize_filename(m_config_file.get(), nullptr));
    if (m_key_file)
        m_key_file = adopt(g_canonicalize_filename(m_key_file.get(), nullptr));
    if (m_interfaces && !parse_interfaces())
        return 1;

    // Still attached to the caller here, so a failure shows where it was started.
    if (!package().create_top_directory()) {
        g_warning("Failed to create ombrix top directory");
        return 1;
    }

    int option = 18;
    char* daemon_error = nullptr;
    int mode = m_no_daemon ? QVSD_DAEMON_FOREGROUND : QVSD_DAEMON_BACKGROUND;
    if (qvsd_daemon(m_ident.get(), &option, "kinwatch", "kinwatch", mode, &daemon_error) != 0) {
        g_ptr<char> owned_error(daemon_error);
        g_error("Failed to put process in the background: %s", owned_error.get());
    }

    m_main_loop = adopt(g_main_loop_new(nullptr, FALSE));
    // Its watchdog timer runs from here on, with the main loop.
    m_notifier = std::make_unique<systemd_notifier>();

    // In the process that runs: a memory lock does not survive a fork, and a
    // file monitor runs a GLib thread. Whoever started the service still
    // waits (until qvsd_daemon_ready), so a refused key file ends the start
    // with status 1 and its warning on the caller's standard error.
    if (m_key_file && !load_keys())
        return 1;
    if (m_group_auth && !(m_key_file_observer = key_file_observer::create(m_key_file.get(), *m_group_auth)))
        return 1;

    m_settings = settings::create(m_config_file.get());
    if (!m_settings) {
        g_warning("Failed to read configuration");
        return 1;
    }

    // Starts itself when Enabled is set and the package runs.
    monitor_environment environment;
    environment.fast_join = m_fast_join;
    environment.announce_period = m_announce_period;
    environment.auth = m_group_auth.get();
    environment.interfaces = m_interface_filter;
    m_monitor = monitor::create(*m_settings, std::move(environment));
    if (!m_monitor) {
        g_warning("Failed to set up monitor");
        return 1;
    }
    m_monitor->add_state_listener(this, [this] { update_status(); });
    update_status();

    m_package_observer = package_observer::create(*m_monitor);
    if (!m_package_observer) {
        g_warning("Failed to setup Ombrix observer");
        return 1;
    }

    // Connects to the bus in the background; the object is registered and
    // the name requested from the main loop, again after every loss of the
    // bus. Without a bus the service runs on without its object. The
    // service is ready at the first outcome: the monitor, if it is to run,
    // runs already, and a service that waited for a bus that is missing
    // would be killed by the manager for a start that never ends.
    auto on_bus = [this](dbus_api::bus_state state) {
        m_bus_state = state;
        update_status();
        m_notifier->ready();
    };
    m_dbus_api = dbus_api::create(*m_monitor, m_settings->get_enabled(), on_bus);
    if (!m_dbus_api) {
        g_warning("Failed to setup DBus API");
        return 1;
    }

    // A burst (new siblings, a flood, a tick's signals) leaves free memory
    // among live records, which free() never gives back: only the heap's top
    // is. Every few seconds, with the tick, the free pages go back wherever
    // they lie.
    m_trim_timer_id = g_timeout_add_seconds(trim_interval_s, &service::trim_heap, nullptr);

    // Nothing in the service quits the loop; it normally ends by a signal,
    // and then no teardown runs.
    qvsd_daemon_ready(mode);
    g_main_loop_run(m_main_loop.get());
    m_main_loop.reset();
    return 0;
}

gboolean service::trim_heap(gpointer)
{
    malloc_trim(0);
    return G_SOURCE_CONTINUE;
}

// Read as text, so that a bad value ends the start with status 1 and a line
// that names the option, where the option parser would abort.
bool service::read_announce_period()
{
    const char* text = m_announce_period_text.get();
    if (!text)
        return true;
    guint64 seconds = 0;
    if (!g_ascii_string_to_unsigned(text, 10, 1, 55, &seconds, nullptr)) {
        g_warning("--announce-period must be a whole number of seconds from 1 to 55, not \"%s\"", text);
        return false;
    }
    m_announce_period = static_cast<unsigned>(seconds);
    return true;
}

// Before the service goes to the background, so the refusal reaches whoever
// started it.
bool service::parse_interfaces()
{
    std::string error;
    std::optional<interface_filter> filter = interface_filter::parse(m_interfaces.get(), error);
    if (!filter) {
        g_warning("Invalid -I/--interfaces: %s", error.c_str());
        return false;
    }
    m_interface_filter = std::move(*filter);
    return true;
}

// "3 known, 1 lost, 2 interfaces" while the monitor runs, else why it does
// not; then where the bus stands unless the name is owned.
void service::update_status()
{
    std::string text;
    if (m_monitor->is_running()) {
        std::size_t interfaces = m_monitor->get_interface_count();
        text = std::to_string(m_monitor->get_known_nodes_table()->get_size()) + " known, " +
               std::to_string(m_monitor->get_lost_nodes_table()->get_size()) + " lost, " +
               std::to_string(interfaces) + (interfaces == 1 ? " interface" : " interfaces");
    } else {
        text = m_settings->get_enabled() ? "monitor off: the package is not running" : "monitor off: not enabled";
    }
    if (m_bus_state == dbus_api::bus_state::name_taken)
        text += "; the bus name is owned by another process";
    else if (m_bus_state == dbus_api::bus_state::unreachable)
        text += "; no system bus, retrying";
    m_notifier->set_status(text);
}

// From the path resolved where the service was started.
bool service::load_keys()
{
    std::string error;
    m_group_auth = group_auth::create(group_keys::load(m_key_file.get(), error));
    if (!m_group_auth)
        g_warning("%s", error.c_str());
    return m_group_auth != nullptr;
}

} // namespace kw
