#include "src/frame/package_observer.hpp"

#include "src/tracking/monitor.hpp"

#include <glib/gstdio.h>
#include <unistd.h>

namespace kw {

namespace {

// Bit masks over the GFileMonitorEvent values: DELETED, UNMOUNTED and MOVED
// stop the monitor; CHANGED and CREATED read the run-state file again. The
// stopping set is tested first, and every value from 8 on is ignored.
constexpr unsigned stopping_events = 0xC4;
constexpr unsigned rereading_events = 0x09;
constexpr unsigned first_ignored_event = 8;

enum class reaction { none, stop, reread };

reaction reaction_to(GFileMonitorEvent event)
{
    auto value = static_cast<unsigned>(event);
    if (value >= first_ignored_event)
        return reaction::none;
    unsigned bit = 1u << value;
    if (bit & stopping_events)
        return reaction::stop;
    if (bit & rereading_events)
        return reaction::reread;
    return reaction::none;
}

std::string path_of(GFile* file)
{
    return take_string(g_file_get_path(file));
}

} // namespace

package_observer::package_observer(private_tag, monitor& engine, const package& run_state)
    : m_monitor(engine)
    , m_package_directory(run_state.package_directory())
    , m_top_directory(run_state.top_directory())
    , m_running_file(run_state.running_file())
{
}

std::unique_ptr<package_observer> package_observer::create(monitor& engine, const package& run_state)
{
    auto observer = std::make_unique<package_observer>(private_tag {}, engine, run_state);

    observer->m_top_directory_monitor =
        directory_monitor_new(observer->m_top_directory, &on_top_changed_trampoline, observer.get());
    if (!observer->m_top_directory_monitor) {
        g_warning("Failed to create ombrix directory monitor for %s", observer->m_top_directory.c_str());
        return nullptr;
    }

    observer->m_package_directory_monitor =
        directory_monitor_new(observer->m_package_directory, &on_package_changed_trampoline, observer.get());
    return observer;
}

package_observer::~package_observer()
{
    release_directory_monitor(m_package_directory_monitor);
    release_directory_monitor(m_top_directory_monitor);
}

g_ptr<GFileMonitor> package_observer::directory_monitor_new(const std::string& path, change_handler handler,
                                                            package_observer* observer)
{
    // Only existence counts here; GIO reports what cannot be watched.
    if (g_access(path.c_str(), F_OK) != 0)
        return nullptr;

    auto file = adopt(g_file_new_for_path(path.c_str()));
    error_out error;
    auto directory_monitor =
        adopt(g_file_monitor_directory(file.get(), G_FILE_MONITOR_NONE, nullptr, error.out()));
    if (!directory_monitor) {
        g_warning("Failed to create monitor for %s: %s", path.c_str(), error.message());
        return nullptr;
    }

    g_signal_connect_data(directory_monitor.get(), "changed", G_CALLBACK(handler), observer, nullptr,
                          static_cast<GConnectFlags>(0));
    return directory_monitor;
}

void package_observer::release_directory_monitor(g_ptr<GFileMonitor>& directory_monitor)
{
    if (!directory_monitor)
        return;
    // GIO may hold its own reference for a while; without the handler no
    // late event can reach this observer.
    g_signal_handlers_disconnect_by_data(directory_monitor.get(), this);
    directory_monitor.reset();
}

void package_observer::apply(bool running)
{
    if (!m_monitor.get_enabled())
        return;
    // A failed start is reported by the monitor itself and leaves it stopped.
    if (running)
        m_monitor.start();
    else
        m_monitor.stop();
}

void package_observer::reread()
{
    apply(package::file_is_running(m_running_file));
}

void package_observer::on_top_changed_trampoline(GFileMonitor* file_monitor, GFile* file, GFile* other_file,
                                                 GFileMonitorEvent event, gpointer self)
{
    static_cast<package_observer*>(self)->on_top_changed(file_monitor, file, other_file, event);
}

void package_observer::on_package_changed_trampoline(GFileMonitor* file_monitor, GFile* file, GFile* other_file,
                                                     GFileMonitorEvent event, gpointer self)
{
    static_cast<package_observer*>(self)->on_package_changed(file_monitor, file, other_file, event);
}

void package_observer::on_top_changed(GFileMonitor*, GFile* file, GFile*, GFileMonitorEvent event)
{
    if (!file)
        return;
    reaction action = reaction_to(event);
    if (action == reaction::none || path_of(file) != m_package_directory)
        return;

    if (action == reaction::stop) {
        apply(false);
        release_directory_monitor(m_package_directory_monitor);
        return;
    }
    // Watch the directory before reading, so that a run-state file written
    // in between is not missed.
    if (!m_package_directory_monitor)
        m_package_directory_monitor =
            directory_monitor_new(m_package_directory, &on_package_changed_trampoline, this);
    reread();
}

void package_observer::on_package_changed(GFileMonitor*, GFile* file, GFile*, GFileMonitorEvent event)
{
    if (!file)
        return;
    reaction action = reaction_to(event);
    if (action == reaction::none)
        return;

    // Only the run-state file and the directory itself count. A deletion
    // stops the monitor without reading the run-state file, so counting any
    // entry would let an unrelated file's removal (or the temporary file of
    // an atomic rewrite) stop a package that still says "Running".
    std::string path = path_of(file);
    if (path != m_running_file && path != m_package_directory)
        return;

    if (action == reaction::stop)
        apply(false);
    else
        reread();
}

} // namespace kw
