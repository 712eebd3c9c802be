// The monitor's periodic work: the 5-second tick applies what the receivers
// queued and declares silent siblings lost, the 55-second tick announces.
// With fast join or --announce-period, messages are also applied as they
// come; with --announce-period, silent siblings are looked for every 250 ms.

#include "src/tracking/monitor.hpp"

#include <malloc.h>

namespace kw {

gboolean monitor::process_tick_trampoline(gpointer self)
{
    return static_cast<monitor*>(self)->process_tick() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

gboolean monitor::announce_tick_trampoline(gpointer self)
{
    return static_cast<monitor*>(self)->announce_tick() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

gboolean monitor::expiry_tick_trampoline(gpointer self)
{
    return static_cast<monitor*>(self)->expiry_tick() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

gboolean monitor::answer_trampoline(gpointer self)
{
    auto* engine = static_cast<monitor*>(self);
    engine->m_answer_timer_id = 0; // removes itself
    engine->send_announce();
    return G_SOURCE_REMOVE;
}

bool monitor::announce_tick()
{
    if (!m_interfaces.empty())
        send_announce();
    return true;
}

// An answer goes out at once, or as soon as answer_spacing_us has passed since
// the last ANNOUNCE: a hundred cameras starting together cause no storm, and
// one answer tells every newcomer of the moment.
void monitor::answer_if_due()
{
    if (!m_answer_due || m_answer_timer_id)
        return;
    const gint64 wait_us = m_last_announce_us + answer_spacing_us - m_environment.monotonic();
    if (wait_us <= 0)
        send_announce();
    else
        m_answer_timer_id =
            g_timeout_add(static_cast<guint>((wait_us + 999) / 1000), &monitor::answer_trampoline, this);
}

namespace {

// A tick that freed this many messages gives the heap back to the system.
constexpr std::size_t heap_trim_after = 256;

} // namespace

bool monitor::process_tick()
{
    if (!m_running)
        return true;
    peer_statistics::add(m_statistics.ticks);
    // A sender's replay state lives as long as a table holds it.
    if (group_auth* auth = m_environment.auth) {
        auth->prune([this](node_id id) { return m_known_nodes->lookup(id) || m_lost_nodes->lookup(id); });
        auth->warn_refusals(m_environment.monotonic());
    }
    if (m_wake)
        m_wake->refill();
    // Without an interface nothing is taken from the queue and nothing
    // expires; changes left over from a burst still go out at this pace.
    if (m_interfaces.empty()) {
        m_changes.notify();
        return true;
    }

    // A busy queue lock ends the drain early; the rest waits for the next tick.
    std::size_t taken = apply_deferred();
    taken += apply_queued(std::numeric_limits<std::size_t>::max(), refreshes::apply);

    if (std::uint32_t dropped = m_receive_queue->take_dropped()) {
        peer_statistics::add(m_statistics.queue_full, dropped);
        g_warning("Receive queue full, dropped %u messages", dropped);
    }
    note_high_water();

    expire_silent_nodes();
    answer_if_due();
    // Told after the tables have changed, all at once.
    m_changes.notify();
    // After a flood the freed messages would stay in the process's heap.
    if (taken >= heap_trim_after)
        malloc_trim(0);
    return true;
}

bool monitor::expiry_tick()
{
    if (!m_running || m_interfaces.empty())
        return true;
    // Silence is judged on everything heard so far.
    m_wake->drain();
    expire_silent_nodes();
    m_changes.notify();
    return true;
}

// Between ticks (receive_wake): with fast join alone, what teaches something
// new is applied now and a refresh waits for the tick, which applies it in
// its 5-s round as without the option; with --announce-period everything is
// applied now, since silence is measured from when a node was last heard.
std::size_t monitor::apply_woken(std::size_t limit)
{
    if (!m_running || m_interfaces.empty())
        return 0;
    std::size_t taken =
        apply_queued(limit, m_environment.announce_period ? refreshes::apply : refreshes::defer);
    answer_if_due();
    m_changes.notify();
    return taken;
}

std::size_t monitor::apply_queued(std::size_t limit, refreshes what)
{
    std::size_t taken = 0;
    while (taken < limit) {
        std::unique_ptr<peer_message> message = m_receive_queue->try_pop();
        if (!message)
            break;
        ++taken;
        if (!applies(*message))
            continue;
        if (what == refreshes::defer && message->get_type() == ANNOUNCE &&
            m_known_nodes->lookup(message->get_node_id()))
            m_deferred.push_back(std::move(message));
        else
            apply(std::move(message));
    }
    return taken;
}

// A deferred refresh whose node has left the known table since was overtaken
// by a LEAVE or a DISPATCHED applied at once; it must not bring the node back.
std::size_t monitor::apply_deferred()
{
    const std::size_t count = m_deferred.size();
    for (std::unique_ptr<peer_message>& message : m_deferred)
        if (m_known_nodes->lookup(message->get_node_id()))
            process_announce(*message);
    m_deferred.clear();
    return count;
}

void monitor::apply(std::unique_ptr<peer_message> message)
{
    switch (message->get_type()) {
    case ANNOUNCE:
        process_announce(*message);
        break;
    case DISPATCHED:
        process_dispatched(*message);
        break;
    case LEAVE:
        process_leave(*message);
        break;
    case CHALLENGE: // the receivers keep challenges for group_auth
        break;
    }
}

// A message of another group can still be queued when the group changes: a
// receiver may have read the old group just before. A message of our own id
// is our own datagram heard on another port of the same network, where
// switching multicast loopback off does not help. Neither may touch a table.
bool monitor::applies(const peer_message& message)
{
    if (message.get_group() != m_settings.get_group()) {
        peer_statistics::add(m_statistics.other_group);
        return false;
    }
    if (message.get_node_id() == m_own_node_id) {
        peer_statistics::add(m_statistics.own_id);
        return false;
    }
    return true;
}

// Main thread only: nobody else pops, so the length tells what pop() finds.
void monitor::drop_queued()
{
    m_deferred.clear();
    while (m_receive_queue->length() > 0)
        m_receive_queue->pop();
}

void monitor::process_announce(const peer_message& message)
{
    message.print();
    node_id id = message.get_node_id();
    const bool was_lost = m_lost_nodes->lookup(id);
    m_lost_nodes->remove(id);

    std::optional<monitor_message_type> record =
        monitor_message_type::create(message, m_environment.clock, m_environment.monotonic);
    if (!record)
        return;
    monitor_message_type* stored = nullptr;
    if (m_known_nodes->lookup(id, &stored)) {
        // A refresh keeps the first-seen time and what was learnt of the
        // node's period, and takes the rest from the newest ANNOUNCE, in
        // place: a sibling's announcements allocate nothing once it is known.
        record->set_first_seen(stored->get_first_seen());
        record->spacing() = stored->spacing();
        record->spacing().heard(record->get_last_heard(), stored->get_last_heard(), m_last_news_us);
        *stored = *record;
        stored->print();
        return;
    }

    // A node the full table cannot record raises no SiblingConnected: it
    // would otherwise be reported again at each of its announcements. One
    // that came back from the lost table is now in neither.
    if (!m_known_nodes->insert(id, *record)) {
        if (was_lost)
            m_changes.record(node_change::left, *record);
        return;
    }
    record->print();
    m_last_news_us = record->get_last_heard();
    m_events->send_connected(*record);
    peer_statistics::add(m_statistics.events_connected);
    m_changes.record(node_change::joined, *record);
    ask_answer();
}

void monitor::process_dispatched(const peer_message& message)
{
    message.print();
    m_last_news_us = m_environment.monotonic();
    if (message.get_dispatched_node_id() == m_own_node_id)
        ask_answer(); // declared lost while alive
    std::optional<monitor_message_type> record = m_known_nodes->steal(message.get_dispatched_node_id());
    if (!record) {
        g_warning("Failed to extract message from known nodes table");
        return;
    }
    // The sender of the DISPATCHED has raised SiblingDisconnected already.
    bool stored = m_lost_nodes->insert(message.get_dispatched_node_id(), *record);
    if (!stored)
        g_warning("Couldn't move message to lost nodes, table is full");
    m_changes.record(stored ? node_change::lost : node_change::left, *record);
}

void monitor::process_leave(const peer_message& message)
{
    message.print();
    for (monitor_table* table : {m_known_nodes.get(), m_lost_nodes.get()})
        if (std::optional<monitor_message_type> gone = table->steal(message.get_node_id()))
            m_changes.record(node_change::left, *gone);
}

void monitor::expire_silent_nodes()
{
    // One walk lists the silent nodes and counts the live (not stale) nodes
    // below our own id. Marking a node stale lowers that count, so each
    // reporter decision costs O(1) and the tick stays linear in the table.
    // Silence is measured on the monotonic clock (system_monotonic_now says
    // which and why), never on the wall clock that last seen shows: a step of
    // the wall clock neither loses a live sibling nor keeps a dead one.
    // With --announce-period each node has the limit learnt from its own
    // period (announce_spacing), never longer than the original one.
    const gint64 now = m_environment.monotonic();
    const bool own_limits = m_environment.announce_period != 0;
    std::size_t live_below = 0;
    std::vector<node_id> silent = m_known_nodes->filter_ids([&](const monitor_message_type& record) {
        if (!record.is_stale() && record.get_node_id() < m_own_node_id)
            ++live_below;
        const GTimeSpan limit = own_limits ? record.spacing().silence_limit_us(silence_limit_us) : silence_limit_us;
        return now - record.get_last_heard() > limit;
    });

    for (node_id id : silent) {
        monitor_message_type* record = nullptr;
        if (!m_known_nodes->lookup(id, &record))
            continue;
        if (!record->is_stale() && id < m_own_node_id)
            --live_below;
        record->set_stale(1);

        m_reporter = live_below == 0;
        if (!m_reporter)
            continue;

        m_events->send_disconnected(*record);
        peer_statistics::add(m_statistics.events_disconnected);
        m_changes.record(node_change::lost, *record, true);
        std::optional<monitor_message_type> lost = m_known_nodes->steal(id);
        // A full lost table drops the record silently; a mirror of the
        // tables drops it too.
        if (!m_lost_nodes->insert(id, *lost))
            m_changes.record(node_change::left, *lost);
        broadcast(peer_message::dispatched_new(m_own_node_id, id, m_settings.get_group()));
    }
}

} // namespace kw
