#include "src/tracking/monitor_table.hpp"

namespace kw {

monitor_table::monitor_table(private_tag, std::int32_t max_size)
    : m_max_size(max_size)
{
}

std::unique_ptr<monitor_table> monitor_table::create(std::int32_t max_size)
{
    return std::make_unique<monitor_table>(private_tag {}, max_size);
}

std::int32_t monitor_table::get_size() const
{
    std::lock_guard lock(m_node_mutex);
    return static_cast<std::int32_t>(m_nodes.size());
}

bool monitor_table::insert(node_id id, const monitor_message_type& record)
{
    monitor_message_type* stored = nullptr;
    bool replaced = false;
    {
        std::lock_guard lock(m_node_mutex);
        // The maximum size is not range-checked where it is configured; a
        // negative one refuses everything, as 0 does.
        if (static_cast<std::int64_t>(m_nodes.size()) >= m_max_size)
            return false;
        auto [entry, added] = m_nodes.insert_or_assign(id, record);
        replaced = !added;
        stored = &entry->second;
    }
    notify(replaced ? MONITOR_TABLE_REPLACED : MONITOR_TABLE_ADDED, *stored);
    return true;
}

std::optional<monitor_message_type> monitor_table::steal(node_id id)
{
    std::lock_guard lock(m_node_mutex);
    auto entry = m_nodes.find(id);
    if (entry == m_nodes.end())
        return std::nullopt;
    monitor_message_type record = entry->second;
    m_nodes.erase(entry);
    return record;
}

void monitor_table::remove(node_id id)
{
    if (std::optional<monitor_message_type> record = steal(id))
        notify(MONITOR_TABLE_REMOVED, *record);
}

bool monitor_table::lookup(node_id id, monitor_message_type** out)
{
    monitor_message_type* found = nullptr;
    {
        std::lock_guard lock(m_node_mutex);
        auto entry = m_nodes.find(id);
        if (entry != m_nodes.end())
            found = &entry->second;
    }
    if (out)
        *out = found;
    return found != nullptr;
}

std::vector<node_id> monitor_table::filter_ids(const predicate& accept) const
{
    std::vector<node_id> ids;
    std::lock_guard lock(m_node_mutex);
    for (const auto& [id, record] : m_nodes)
        if (accept(record))
            ids.push_back(id);
    return ids;
}

void monitor_table::foreach(const walk_function& function)
{
    std::lock_guard lock(m_node_mutex);
    for (auto& [id, record] : m_nodes)
        function(record);
}

int monitor_table::add_observer(observer_function function, void* user_data)
{
    std::lock_guard lock(m_observer_mutex);
    int id = m_next_observer_id++;
    m_observers.emplace(id, observer_entry {function, user_data});
    return id;
}

void monitor_table::remove_observer(int observer_id)
{
    std::lock_guard lock(m_observer_mutex);
    m_observers.erase(observer_id);
}

void monitor_table::notify(monitor_table_event event, monitor_message_type& record)
{
    std::lock_guard lock(m_observer_mutex);
    // An observer may add or remove observers while it is called, so walk
    // over the ids of this moment and skip those that have gone since.
    std::vector<int> ids;
    ids.reserve(m_observers.size());
    for (const auto& [id, entry] : m_observers)
        ids.push_back(id);
    for (int id : ids) {
        auto entry = m_observers.find(id);
        if (entry == m_observers.end())
            continue;
        observer_entry observer = entry->second;
        observer.function(id, event, record, observer.user_data);
    }
}

} // namespace kw
