#pragma once

#include "src/tracking/monitor_message_type.hpp"

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

namespace kw {

// One change of the node tables as a client that mirrors them needs it.
struct node_change {
    enum kind_t {
        joined, // into the known table: new, or back from the lost table
        lost,   // moved to the lost table, by this node's report or a DISPATCHED
        left,   // out of both tables: a LEAVE, a full lost table, a group change, a stop
    };
    kind_t kind;
    // One more than the change before; counts every change since the start.
    std::uint64_t generation;
    // A copy of the record as it was at the change.
    monitor_message_type node;
    // For lost: this node declared it lost (and raised the event).
    bool reported = false;
};

// The changes of the node tables, numbered, kept for a listener until it takes
// them. The generation counts whether or not anyone listens; the changes are
// kept only while a listener is set, and at most a bound of them: a listener
// that falls further behind finds a gap in the generations and must fetch the
// tables again. Main thread only.
class node_changes {
public:
    using listener = std::function<void()>;

    explicit node_changes(std::size_t bound) : m_bound(bound) {}

    // Called by notify() when changes wait; none to stop listening, which
    // also forgets what waits.
    void set_listener(listener ready);
    void set_bound(std::size_t bound) { m_bound = bound; }
    // Called by notify() when the generation moved since its last call,
    // whether or not a listener is set.
    void set_observer(std::function<void()> observer) { m_observer = std::move(observer); }

    void record(node_change::kind_t kind, const monitor_message_type& node, bool reported = false);
    // Tells the listener, if any change waits, and the observer.
    void notify();
    // The oldest changes, at most count of them.
    std::vector<node_change> take(std::size_t count);

    std::uint64_t generation() const { return m_generation; }
    std::size_t waiting() const { return m_waiting.size(); }

private:
    std::size_t m_bound;
    std::uint64_t m_generation = 0;
    std::deque<node_change> m_waiting;
    listener m_listener;
    std::function<void()> m_observer;
    std::uint64_t m_observed_generation = 0;
};

} // namespace kw
