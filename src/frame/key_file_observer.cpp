#include "src/frame/key_file_observer.hpp"

namespace kw {

std::unique_ptr<key_file_observer> key_file_observer::create(const std::string& path, group_auth& auth)
{
    auto observer = std::make_unique<key_file_observer>(private_tag {}, path, auth);
    auto directory = adopt(g_file_new_for_path(take_string(g_path_get_dirname(path.c_str())).c_str()));
    error_out error;
    observer->m_monitor =
        adopt(g_file_monitor_directory(directory.get(), G_FILE_MONITOR_WATCH_MOVES, nullptr, error.out()));
    if (!observer->m_monitor) {
        g_warning("Failed to create monitor for %s: %s", path.c_str(), error.message());
        return nullptr;
    }
    g_signal_connect_data(observer->m_monitor.get(), "changed", G_CALLBACK(&on_changed_trampoline),
                          observer.get(), nullptr, static_cast<GConnectFlags>(0));
    return observer;
}

key_file_observer::key_file_observer(private_tag, const std::string& path, group_auth& auth)
    : m_path(path)
    , m_name(take_string(g_path_get_basename(path.c_str())))
    , m_auth(auth)
{
}

key_file_observer::~key_file_observer()
{
    if (m_monitor)
        g_signal_handlers_disconnect_by_data(m_monitor.get(), this);
    if (m_timer != 0)
        g_source_remove(m_timer);
}

void key_file_observer::on_changed_trampoline(GFileMonitor*, GFile* file, GFile* other_file, GFileMonitorEvent,
                                              gpointer self)
{
    static_cast<key_file_observer*>(self)->on_changed(file, other_file);
}

gboolean key_file_observer::reload_trampoline(gpointer self)
{
    auto* observer = static_cast<key_file_observer*>(self);
    observer->m_timer = 0;
    observer->reload();
    return G_SOURCE_REMOVE;
}

// Any event naming the file, as itself or as the target of a rename, waits
// for the writer to finish: a rewrite in place comes as several events.
void key_file_observer::on_changed(GFile* file, GFile* other_file)
{
    bool named = false;
    for (GFile* f : {file, other_file})
        named = named || (f && take_string(g_file_get_basename(f)) == m_name);
    if (!named)
        return;
    if (m_timer != 0)
        g_source_remove(m_timer);
    m_timer = g_timeout_add(settle_ms, &reload_trampoline, this);
}

void key_file_observer::reload()
{
    std::string error;
    std::shared_ptr<const group_keys> keys = group_keys::load(m_path, error);
    if (!keys) {
        g_warning("%s; the keys in use stay", error.c_str());
        return;
    }
    g_message("Group keys loaded from %s: %zu", m_path.c_str(), keys->size());
    m_auth.set_keys(std::move(keys));
}

} // namespace kw
