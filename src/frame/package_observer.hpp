#pragma once

#include "platform/g_ptr.hpp"
#include "src/frame/package.hpp"

#include <gio/gio.h>

#include <memory>
#include <string>

namespace kw {

class monitor;

// Follows the package's run state with directory monitors on the top
// directory and on the package directory, and starts or stops the monitor
// when it changes, as long as the settings say Enabled. Main thread only:
// GIO delivers the signals on the default main context.
class package_observer {
    struct private_tag {
        explicit private_tag() = default;
    };

public:
    // The signature of a "changed" signal handler of a GFileMonitor.
    using change_handler = void (*)(GFileMonitor* file_monitor, GFile* file, GFile* other_file,
                                    GFileMonitorEvent event, gpointer observer);

    // Nullptr, after a warning, when the top directory cannot be watched. A
    // missing package directory is not a failure: it is watched once the top
    // directory reports it. Reads no run state and neither starts nor stops
    // the monitor, which must outlive the observer.
    static std::unique_ptr<package_observer> create(monitor& engine, const package& run_state = package {});

    package_observer(private_tag, monitor& engine, const package& run_state);
    package_observer(const package_observer&) = delete;
    package_observer& operator=(const package_observer&) = delete;
    ~package_observer();

    // A monitor of the directory at the path with the handler connected to
    // its "changed" signal, or nullptr: silently when nothing exists there,
    // after a warning when GIO cannot watch it.
    static g_ptr<GFileMonitor> directory_monitor_new(const std::string& path, change_handler handler,
                                                     package_observer* observer);

    // Starts the monitor when running, stops it otherwise; nothing while the
    // settings say Enabled is false.
    void apply(bool running);

    void on_top_changed(GFileMonitor* file_monitor, GFile* file, GFile* other_file, GFileMonitorEvent event);
    void on_package_changed(GFileMonitor* file_monitor, GFile* file, GFile* other_file, GFileMonitorEvent event);

    // Present only while the package directory exists and is watched.
    GFileMonitor* get_package_directory_monitor() const { return m_package_directory_monitor.get(); }

private:
    static void on_top_changed_trampoline(GFileMonitor* file_monitor, GFile* file, GFile* other_file,
                                          GFileMonitorEvent event, gpointer self);
    static void on_package_changed_trampoline(GFileMonitor* file_monitor, GFile* file, GFile* other_file,
                                              GFileMonitorEvent event, gpointer self);

    void reread();
    void release_directory_monitor(g_ptr<GFileMonitor>& directory_monitor);

    monitor& m_monitor;
    g_ptr<GFileMonitor> m_package_directory_monitor;
    g_ptr<GFileMonitor> m_top_directory_monitor;
    std::string m_package_directory;
    std::string m_top_directory;
    std::string m_running_file;
};

} // namespace kw
