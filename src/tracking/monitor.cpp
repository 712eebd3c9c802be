#include "src/tracking/monitor.hpp"

#include <arpa/inet.h>
#include <malloc.h>
#include <sys/socket.h>

namespace kw {

monitor::monitor(private_tag, settings& config, monitor_environment environment, node_id own_node_id)
    : m_settings(config)
    , m_environment(std::move(environment))
    , m_own_node_id(own_node_id)
{
}

std::unique_ptr<monitor> monitor::create(settings& config, monitor_environment environment)
{
    std::string interface;
    if (!config.get_interface(interface))
        return nullptr;

    // An interface without a hardware address counts as an unreadable one.
    std::optional<std::string> address = mac_address::read(interface, environment.sysfs_root);
    std::optional<node_id> id = address ? mac_address::parse(*address) : std::nullopt;
    if (!id)
        g_error("Failed to read mac address");

    auto engine = std::make_unique<monitor>(private_tag {}, config, std::move(environment), *id);
    if (config.get_enabled() && engine->m_environment.run_state.is_running() && !engine->start())
        return nullptr; // the destructor stores Enabled false
    return engine;
}

monitor::~monitor()
{
    // Stopped in any case: the interfaces borrow the receive queue, so they
    // are never left to the members' own destruction order.
    stop();
    if (m_settings.get_enabled()) {
        m_settings.set_enabled(false);
        m_settings.save();
    }
}

void monitor::create_tables()
{
    m_known_nodes = monitor_table::create(m_settings.get_max_hosts());
    if (!m_known_nodes)
        g_error("Failed to create known nodes message table");
    m_lost_nodes = monitor_table::create(m_settings.get_max_hosts());
    if (!m_lost_nodes)
        g_error("Failed to create lost nodes message table");
}

bool monitor::start()
{
    if (m_running)
        return true;

    create_tables();
    m_interfaces.clear();
    m_receive_queue = message_queue::create(receive_queue_bound(m_settings.get_max_hosts()));
    if (!m_receive_queue)
        g_error("Failed to create receive queue");

    // Storing the TTL again checks its range; every start rewrites the file.
    if (!m_settings.set_ttl(m_settings.get_ttl()) || !m_settings.save()) {
        m_receive_queue.reset();
        m_lost_nodes.reset();
        m_known_nodes.reset();
        return false;
    }

    m_events = sibling_events::create();
    if (!m_events)
        g_error("Failed to setup events");

    // The registration replays the interfaces already up, so they get their
    // monitor_interface before this call returns.
    m_link_watcher = link_watcher::create();
    if (m_link_watcher)
        m_watcher_listener_id = m_link_watcher->add_listener(&monitor::on_interface_changed, this);
    if (!m_link_watcher || m_watcher_listener_id == link_watcher::no_listener) {
        m_watcher_listener_id = link_watcher::no_listener;
        m_link_watcher.reset();
        g_error("Failed to setup netlink");
    }

    // Second-granularity timers fire at the same instant of the second in
    // every process on a host, so a sibling's answer would land just after
    // the newcomer's own tick and wait a whole period. With fast join the
    // tick keeps the phase of this start instead.
    m_process_timer_id = m_environment.fast_join
                             ? g_timeout_add(process_period_seconds * 1000, &monitor::process_tick_trampoline, this)
                             : g_timeout_add_seconds(process_period_seconds, &monitor::process_tick_trampoline, this);
    m_announce_timer_id =
        g_timeout_add_seconds(announce_period_seconds, &monitor::announce_tick_trampoline, this);

    m_running = true;
    m_answer_due = false;
    m_answered = false;
    send_announce();
    return true;
}

void monitor::remove_timers()
{
    for (guint* id : {&m_process_timer_id, &m_announce_timer_id}) {
        if (*id == 0)
            continue;
        if (GSource* source = g_main_context_find_source_by_id(nullptr, *id))
            g_source_destroy(source);
        *id = 0;
    }
}

void monitor::stop()
{
    if (!m_running)
        return;

    // The chains still exist: each sending thread sends the LEAVE before it ends.
    send_leave();
    remove_timers();

    if (m_link_watcher) {
        if (m_watcher_listener_id != link_watcher::no_listener)
            m_link_watcher->remove_listener(m_watcher_listener_id);
        m_watcher_listener_id = link_watcher::no_listener;
        m_link_watcher.reset();
    }
    m_events.reset();

    // Stops and joins every chain's threads before the queue they push to goes.
    m_interfaces.clear();
    m_chained.clear();
    drop_queued();
    m_receive_queue.reset();

    m_lost_nodes.reset();
    m_known_nodes.reset();
    m_running = false;
}

void monitor::on_interface_changed(std::uint32_t, const interface_state& state, const char* name, void* self)
{
    static_cast<monitor*>(self)->interface_changed(state, name ? name : "");
}

bool monitor::add_interface(const std::string& name)
{
    std::string ipv4_group;
    std::string ipv6_group;
    if (!m_settings.get_ipv4_group(ipv4_group)) {
        g_warning("Failed to get IPv4 multicast group");
        return false;
    }
    if (!m_settings.get_ipv6_group(ipv6_group)) {
        g_warning("Failed to get IPv6 multicast group");
        return false;
    }
    auto interface = monitor_interface::create(name, ipv4_group, ipv6_group, m_settings.get_port(),
                                               m_settings.get_ttl(), *m_receive_queue, m_settings.get_group(),
                                               m_environment.auth);
    if (!interface)
        return false;
    m_interfaces.emplace(name, std::move(interface));
    return true;
}

void monitor::interface_changed(const interface_state& state, const std::string& name)
{
    g_debug("MONITOR Interface(%s): state:%s, ipv4:%s, ipv6:%s", name.c_str(), state.up ? "up" : "down",
            state.ipv4_enabled ? "enabled" : "disabled", state.ipv6_enabled ? "enabled" : "disabled");

    if (!state.up) {
        m_interfaces.erase(name);
        m_chained.erase(name);
        return;
    }

    if (!m_interfaces.contains(name) && !add_interface(name)) {
        g_warning("Could not setup interface: %s", name.c_str());
        return;
    }
    monitor_interface& interface = *m_interfaces.at(name);

    // A chain that fails here logs its own warnings and is tried again at the
    // interface's next notification.
    bool chained = false;
    if (state.ipv4_enabled) {
        interface.setup_ipv4();
        chained = interface.start_ipv4();
    } else {
        interface.stop_ipv4();
        interface.teardown_ipv4();
    }

    if (state.ipv6_enabled) {
        interface.setup_ipv6();
        chained = interface.start_ipv6() || chained;
    } else {
        interface.stop_ipv6();
        interface.teardown_ipv6();
    }
    // Each interface announces its own addresses, so a sibling on one network
    // is never told the address of another.
    interface.set_own_addresses(state.ipv4_address, state.ipv6_address);

    // The start's own ANNOUNCE covers the interfaces replayed at registration.
    if (!chained) {
        m_chained.erase(name);
    } else if (m_chained.insert(name).second && m_running) {
        ask_answer();
        answer_if_due();
    }
}

void monitor::broadcast(std::unique_ptr<peer_message> message)
{
    if (!m_running || !message)
        return;
    message->print();
    // Signed once: every copy, on every interface and family, carries the
    // same sequence number, so receivers tell copies from replays.
    if (m_environment.auth)
        m_environment.auth->sign(*message, m_environment.auth->next_sequence());
    for (auto& [name, interface] : m_interfaces)
        interface->send(message->copy());
}

void monitor::send_announce()
{
    if (!m_running)
        return;
    // The variants of one announcement share a sequence number, each with its own MAC.
    std::uint64_t sequence = m_environment.auth ? m_environment.auth->next_sequence() : 0;
    for (auto& [name, interface] : m_interfaces) {
        auto message = peer_message::announce_new(m_own_node_id, m_settings.get_group(), interface->own_ipv4(),
                                                  interface->own_ipv6());
        message->print();
        if (m_environment.auth)
            m_environment.auth->sign(*message, sequence);
        interface->send(std::move(message));
    }
}

void monitor::send_leave()
{
    broadcast(peer_message::leave_new(m_own_node_id, m_settings.get_group()));
}

gboolean monitor::process_tick_trampoline(gpointer self)
{
    return static_cast<monitor*>(self)->process_tick() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

gboolean monitor::announce_tick_trampoline(gpointer self)
{
    return static_cast<monitor*>(self)->announce_tick() ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
}

bool monitor::announce_tick()
{
    if (!m_interfaces.empty())
        send_announce();
    return true;
}

void monitor::answer_if_due()
{
    if (!m_answer_due || m_answered)
        return;
    m_answer_due = false;
    m_answered = true;
    send_announce();
}

namespace {

// A tick that freed this many messages gives the heap back to the system.
constexpr std::size_t heap_trim_after = 256;

} // namespace

bool monitor::process_tick()
{
    m_answered = false;
    if (!m_running)
        return true;
    // A sender's replay state lives as long as a table holds it.
    if (group_auth* auth = m_environment.auth) {
        auth->prune([this](node_id id) { return m_known_nodes->lookup(id) || m_lost_nodes->lookup(id); });
        auth->warn_refusals(m_environment.monotonic());
    }
    // Without an interface nothing is taken from the queue and nothing expires.
    if (m_interfaces.empty())
        return true;

    // A busy queue lock ends the drain early; the rest waits for the next tick.
    std::size_t taken = 0;
    while (std::unique_ptr<peer_message> message = m_receive_queue->try_pop()) {
        ++taken;
        if (!applies(*message))
            continue;
        switch (message->get_type()) {
        case ANNOUNCE:
            process_announce(std::move(message));
            break;
        case DISPATCHED:
            process_dispatched(*message);
            break;
        case LEAVE:
            process_leave(*message);
            break;
        }
    }

    if (std::uint32_t dropped = m_receive_queue->take_dropped())
        g_warning("Receive queue full, dropped %u messages", dropped);

    expire_silent_nodes();
    answer_if_due();
    // After a flood the freed messages would stay in the process's heap.
    if (taken >= heap_trim_after)
        malloc_trim(0);
    return true;
}

// A message of another group can still be queued when the group changes: a
// receiver may have read the old group just before. A message of our own id
// is our own datagram heard on another port of the same network, where
// switching multicast loopback off does not help. Neither may touch a table.
bool monitor::applies(const peer_message& message) const
{
    return message.get_group() == m_settings.get_group() && message.get_node_id() != m_own_node_id;
}

// Main thread only: nobody else pops, so the length tells what pop() finds.
void monitor::drop_queued()
{
    while (m_receive_queue->length() > 0)
        m_receive_queue->pop();
}

void monitor::process_announce(std::unique_ptr<peer_message> message)
{
    message->print();
    node_id id = message->get_node_id();
    m_lost_nodes->remove(id);

    monitor_message_type* old = nullptr;
    if (m_known_nodes->lookup(id, &old)) {
        // A refresh is a new record that keeps the old first-seen time.
        g_ptr<GDateTime> first_seen = ref(old->get_first_seen());
        m_known_nodes->remove(id);
        auto record = monitor_message_type::create(std::move(message), m_environment.clock, m_environment.monotonic);
        if (!record)
            return;
        record->set_first_seen(std::move(first_seen));
        monitor_message_type* stored = record.get();
        if (m_known_nodes->insert(id, record))
            stored->print();
        return;
    }

    auto record = monitor_message_type::create(std::move(message), m_environment.clock, m_environment.monotonic);
    if (!record)
        return;
    monitor_message_type* stored = record.get();
    // A node the full table cannot record raises no SiblingConnected: it
    // would otherwise be reported again at each of its announcements.
    if (!m_known_nodes->insert(id, record))
        return;
    stored->print();
    m_events->send_connected(*stored);
    ask_answer();
}

void monitor::process_dispatched(const peer_message& message)
{
    message.print();
    if (message.get_dispatched_node_id() == m_own_node_id)
        ask_answer(); // declared lost while alive
    std::unique_ptr<monitor_message_type> record = m_known_nodes->steal(message.get_dispatched_node_id());
    if (!record) {
        g_warning("Failed to extract message from known nodes table");
        return;
    }
    // The sender of the DISPATCHED has raised SiblingDisconnected already.
    if (!m_lost_nodes->insert(message.get_dispatched_node_id(), record))
        g_warning("Couldn't move message to lost nodes, table is full");
}

void monitor::process_leave(const peer_message& message)
{
    message.print();
    m_known_nodes->remove(message.get_node_id());
    m_lost_nodes->remove(message.get_node_id());
}

void monitor::expire_silent_nodes()
{
    // One walk lists the silent nodes and counts the live (not stale) nodes
    // below our own id. Marking a node stale lowers that count, so each
    // reporter decision costs O(1) and the tick stays linear in the table.
    // Silence is measured on the monotonic clock (system_monotonic_now says
    // which and why), never on the wall clock that last seen shows: a step of
    // the wall clock neither loses a live sibling nor keeps a dead one.
    const gint64 now = m_environment.monotonic();
    std::size_t live_below = 0;
    std::vector<node_id> silent = m_known_nodes->filter_ids([&](const monitor_message_type& record) {
        if (!record.is_stale() && record.get_message().get_node_id() < m_own_node_id)
            ++live_below;
        return now - record.get_last_heard() > silence_limit_us;
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
        std::unique_ptr<monitor_message_type> lost = m_known_nodes->steal(id);
        m_lost_nodes->insert(id, lost); // a full lost table drops the record silently
        broadcast(peer_message::dispatched_new(m_own_node_id, id, m_settings.get_group()));
    }
}

bool monitor::get_enabled() const
{
    return m_settings.get_enabled();
}

bool monitor::set_enabled(bool enabled)
{
    if (enabled == m_settings.get_enabled())
        return true;

    if (!enabled) {
        stop();
        m_settings.set_enabled(false);
        m_settings.save();
        return true;
    }

    m_settings.set_enabled(true);
    bool result = m_environment.run_state.is_running() ? start() : true;
    m_settings.save();
    return result;
}

bool monitor::get_ttl(unsigned& ttl) const
{
    ttl = static_cast<unsigned>(m_settings.get_ttl());
    return true;
}

bool monitor::set_ttl(unsigned ttl)
{
    // A value that does not fit the setting's range is out of range anyway.
    int value = ttl > 255 ? 256 : static_cast<int>(ttl);
    if (m_running) {
        for (auto& [name, interface] : m_interfaces)
            if (!interface->set_ttl(value))
                return false;
    }
    if (!m_settings.set_ttl(value))
        return false;
    return m_settings.save();
}

bool monitor::get_group(std::uint32_t& group) const
{
    group = m_settings.get_group();
    return true;
}

bool monitor::set_group(std::uint32_t group)
{
    if (group == m_settings.get_group())
        return true;

    // A stopped monitor stores and writes the new group number like every
    // other setting, so it is in force at the next start.
    if (m_running && m_settings.get_enabled()) {
        send_leave(); // still carries the old group
        create_tables();
        for (auto& [name, interface] : m_interfaces)
            interface->set_group(group);
        // Nothing heard in the old group may reach the new tables.
        drop_queued();
    }
    m_settings.set_group(group);
    return m_settings.save();
}

bool monitor::get_ipv4_group(std::string& text) const
{
    return m_settings.get_ipv4_group(text);
}

bool monitor::get_ipv6_group(std::string& text) const
{
    return m_settings.get_ipv6_group(text);
}

bool monitor::set_ipv4_group(const std::string& text)
{
    return set_multicast_group(AF_INET, text);
}

bool monitor::set_ipv6_group(const std::string& text)
{
    return set_multicast_group(AF_INET6, text);
}

bool monitor::set_multicast_group(int family, const std::string& text)
{
    const bool ipv4 = family == AF_INET;
    std::string current;
    bool readable = ipv4 ? m_settings.get_ipv4_group(current) : m_settings.get_ipv6_group(current);
    if (!is_multicast_group(family, text) || !readable)
        return false;
    if (text == current)
        return true;

    // The nodes stay known; only the chains of that family move to the new group.
    if (m_running) {
        send_leave();
        for (auto& [name, interface] : m_interfaces) {
            bool moved = ipv4 ? interface->set_ipv4_address(text) : interface->set_ipv6_address(text);
            if (!moved)
                return false;
        }
    }
    if (ipv4)
        m_settings.set_ipv4_group(text);
    else
        m_settings.set_ipv6_group(text);
    return m_settings.save();
}

monitor::node_list monitor::copy_nodes(monitor_table* table)
{
    node_list nodes;
    if (table)
        table->foreach([&](monitor_message_type& record) { nodes.push_back(record.copy()); });
    return nodes;
}

monitor::node_list monitor::get_known_nodes() const
{
    return copy_nodes(m_known_nodes.get());
}

monitor::node_list monitor::get_lost_nodes() const
{
    return copy_nodes(m_lost_nodes.get());
}

bool monitor::is_multicast_group(int family, const std::string& text)
{
    if (family == AF_INET) {
        in_addr address {};
        if (inet_pton(AF_INET, text.c_str(), &address) != 1)
            return false;
        std::uint8_t first = reinterpret_cast<const std::uint8_t*>(&address)[0];
        return first >= 224 && first <= 239;
    }
    if (family == AF_INET6) {
        in6_addr address {};
        return inet_pton(AF_INET6, text.c_str(), &address) == 1 && address.s6_addr[0] == 0xff;
    }
    return false;
}

} // namespace kw
