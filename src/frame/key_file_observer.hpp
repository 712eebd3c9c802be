#pragma once

#include "platform/g_ptr.hpp"
#include "src/peer/group_auth.hpp"

#include <gio/gio.h>

#include <memory>
#include <string>

namespace kw {

// Follows the key file while the service runs, through a monitor on its
// directory, so that a file replaced by a rename (as editors and
// configuration tools do) is seen as well as one written in place. A change
// is read once the directory has been quiet for a moment: a valid file
// replaces the keys in use, an invalid one is refused with a warning and the
// keys in use stay. Main thread only.
class key_file_observer {
public:
    static constexpr guint settle_ms = 500;

    // Nullptr, after a warning, when the directory cannot be watched. The
    // group_auth must outlive the observer.
    static std::unique_ptr<key_file_observer> create(const std::string& path, group_auth& auth);

    key_file_observer(const key_file_observer&) = delete;
    key_file_observer& operator=(const key_file_observer&) = delete;
    ~key_file_observer();

    struct private_tag {
        explicit private_tag() = default;
    };
    key_file_observer(private_tag, const std::string& path, group_auth& auth);

private:
    static void on_changed_trampoline(GFileMonitor* file_monitor, GFile* file, GFile* other_file,
                                      GFileMonitorEvent event, gpointer self);
    static gboolean reload_trampoline(gpointer self);
    void on_changed(GFile* file, GFile* other_file);
    void reload();

    std::string m_path;
    std::string m_name;
    group_auth& m_auth;
    g_ptr<GFileMonitor> m_monitor;
    guint m_timer = 0;
};

} // namespace kw
