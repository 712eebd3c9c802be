#pragma once

#include "src/peer/peer_message.hpp"
#include "src/tracking/monitor_message_type.hpp"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

namespace kw {

enum monitor_table_event : int {
    MONITOR_TABLE_ADDED = 0,
    MONITOR_TABLE_REPLACED = 1,
    MONITOR_TABLE_REMOVED = 2,
};

// A bounded map from node id to node record, with change observers. The
// records are held in place, one allocation per entry (the record and its
// key), and stay where they are until they leave: a pointer from lookup()
// is valid while the entry stays. Every operation takes the table's own
// locks, which are recursive: a predicate, a walk function or an observer may
// call back into the same table on the same thread. The node lock and the
// observer lock are never held together.
class monitor_table {
public:
    using observer_function = void (*)(int observer_id, monitor_table_event event, monitor_message_type& record,
                                       void* user_data);
    using predicate = std::function<bool(const monitor_message_type& record)>;
    using walk_function = std::function<void(monitor_message_type& record)>;

    static std::unique_ptr<monitor_table> create(std::int32_t max_size);

    monitor_table(const monitor_table&) = delete;
    monitor_table& operator=(const monitor_table&) = delete;
    // Destroys every record still held, without notifying anyone.
    ~monitor_table() = default;

    std::int32_t get_max_size() const { return m_max_size; }
    std::int32_t get_size() const;

    // Stores a copy of the record under the id, replacing any record there,
    // then tells the observers ADDED or REPLACED with the stored record. A
    // full table refuses with false, also for an id already present.
    bool insert(node_id id, const monitor_message_type& record);

    // Takes the record out without notification.
    std::optional<monitor_message_type> steal(node_id id);

    // Tells the observers REMOVED with the record, then destroys it. A missing
    // id notifies nobody.
    void remove(node_id id);

    // The table's own record (not a copy) goes to out, or nullptr. It may be
    // changed in place.
    bool lookup(node_id id, monitor_message_type** out = nullptr);

    // The ids of the records the predicate accepts, in no defined order. The
    // predicate runs under the node lock and must not insert or remove.
    std::vector<node_id> filter_ids(const predicate& accept) const;

    // Calls the function for every record under the node lock; it may change
    // a record but must not insert or remove.
    void foreach(const walk_function& function);

    // Ids count up from 0. An observer must not remove the record it is told about.
    int add_observer(observer_function function, void* user_data);
    void remove_observer(int observer_id);

    struct private_tag {
        explicit private_tag() = default;
    };
    monitor_table(private_tag, std::int32_t max_size);

private:
    struct observer_entry {
        observer_function function;
        void* user_data;
    };

    void notify(monitor_table_event event, monitor_message_type& record);

    mutable std::recursive_mutex m_node_mutex; // guards m_nodes
    mutable std::recursive_mutex m_observer_mutex; // guards m_observers and m_next_observer_id
    std::unordered_map<node_id, monitor_message_type> m_nodes;
    std::map<int, observer_entry> m_observers;
    const std::int32_t m_max_size;
    int m_next_observer_id = 0;
};

} // namespace kw
