#include "src/tracking/monitor.hpp"

#include <arpa/inet.h>
#include <glib-unix.h>

#include <algorithm>

namespace kw {

monitor::monitor(private_tag, settings& config, monitor_environment environment, node_id own_node_id)
    : m_settings(config)
    , m_environment(std::move(environment))
    , m_own_node_id(own_node_id)
{
    m_changes.set_observer([this] { tell_state_listeners(); });
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

    if (environment.auth)
        environment.auth->set_own_id(*id);
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
    const auto hosts = static_cast<std::size_t>(std::max(m_settings.get_max_hosts(), 0));
    m_changes.set_bound(std::max(node_changes_floor, 4 * hosts));
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

    // Applied as they come: between two ticks at most the queue's bound for
    // every process period's worth of announce periods, or a flood would keep
    // the main thread busy.
    const unsigned period = m_environment.announce_period;
    if (m_environment.fast_join || period) {
        const std::size_t periods = period ? (process_period_seconds + period - 1) / period : 1;
        m_wake = receive_wake::create(*m_receive_queue, receive_queue_bound(m_settings.get_max_hosts()) * periods,
                                      [this](std::size_t limit) { return apply_woken(limit); });
        if (!m_wake)
            g_error("Failed to create receive queue wake-up");
    }

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
        period ? g_timeout_add(period * 1000, &monitor::announce_tick_trampoline, this)
               : g_timeout_add_seconds(announce_period_seconds, &monitor::announce_tick_trampoline, this);
    if (period)
        m_expiry_timer_id = g_timeout_add(expiry_period_ms, &monitor::expiry_tick_trampoline, this);
    // Challenges are made and answered at once, not at the next tick: a
    // sibling that restarted is accepted within a round trip.
    if (m_environment.auth)
        m_challenge_watch_id =
            g_unix_fd_add(m_environment.auth->wake_fd(), G_IO_IN, &monitor::challenges_trampoline, this);

    m_running = true;
    m_answer_due = false;
    m_last_news_us = long_ago;
    if (m_environment.fast_join || period)
        send_leave_and_announce();
    else
        send_announce();
    tell_state_listeners();
    return true;
}

void monitor::remove_timers()
{
    for (guint* id : {&m_process_timer_id, &m_announce_timer_id, &m_expiry_timer_id, &m_answer_timer_id,
                      &m_challenge_watch_id}) {
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
    m_wake.reset();
    note_high_water();
    drop_queued();
    m_receive_queue.reset();

    record_all_left();
    m_lost_nodes.reset();
    m_known_nodes.reset();
    m_running = false;
    m_changes.notify();
    tell_state_listeners();
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
                                               receive_checks {m_environment.auth, &m_statistics});
    if (!interface)
        return false;
    m_interfaces.emplace(name, std::move(interface));
    return true;
}

void monitor::interface_changed(const interface_state& state, const std::string& name)
{
    g_debug("MONITOR Interface(%s): state:%s, ipv4:%s, ipv6:%s", name.c_str(), state.up ? "up" : "down",
            state.ipv4_enabled ? "enabled" : "disabled", state.ipv6_enabled ? "enabled" : "disabled");
    if (!m_environment.interfaces.admits(name))
        return;

    if (!state.up) {
        m_chained.erase(name);
        if (m_interfaces.erase(name) > 0 && m_running)
            tell_state_listeners();
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
    // The start tells once, after all its interfaces.
    if (m_running)
        tell_state_listeners();
}

std::vector<interface_in_use> monitor::get_interfaces() const
{
    auto text = [](int family, const void* address, bool usable) {
        char buffer[INET6_ADDRSTRLEN] = {};
        return usable && inet_ntop(family, address, buffer, sizeof buffer) ? std::string(buffer) : std::string();
    };
    std::vector<interface_in_use> in_use;
    for (const auto& [name, interface] : m_interfaces) {
        const in_addr& ipv4 = interface->own_ipv4();
        const in6_addr& ipv6 = interface->own_ipv6();
        in_use.push_back({name, text(AF_INET, &ipv4, ipv4.s_addr != 0),
                          text(AF_INET6, &ipv6, !IN6_IS_ADDR_UNSPECIFIED(&ipv6))});
    }
    std::ranges::sort(in_use, {}, &interface_in_use::name);
    return in_use;
}

void monitor::add_state_listener(const void* owner, std::function<void()> listener)
{
    remove_state_listener(owner);
    m_state_listeners.emplace_back(owner, std::move(listener));
}

void monitor::remove_state_listener(const void* owner)
{
    std::erase_if(m_state_listeners, [owner](const auto& entry) { return entry.first == owner; });
}

void monitor::tell_state_listeners()
{
    // No listener adds or removes one while it is told.
    for (const auto& [owner, listener] : m_state_listeners)
        listener();
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
    int sent = 0;
    for (auto& [name, interface] : m_interfaces)
        sent += interface->send(message->copy());
    count_sent(message->get_type(), sent);
}

void monitor::send_announce(std::uint64_t nonce)
{
    if (!m_running)
        return;
    // The variants of one announcement share a sequence number, each with its own MAC.
    std::uint64_t sequence = m_environment.auth ? m_environment.auth->next_sequence() : 0;
    for (auto& [name, interface] : m_interfaces) {
        auto message = peer_message::announce_new(m_own_node_id, m_settings.get_group(), interface->own_ipv4(),
                                                  interface->own_ipv6());
        message->set_nonce(nonce);
        message->print();
        if (m_environment.auth)
            m_environment.auth->sign(*message, sequence);
        count_sent(ANNOUNCE, interface->send(std::move(message)));
    }
    announced();
}

// Whatever an ANNOUNCE was sent for, it answers too.
void monitor::announced()
{
    m_last_announce_us = m_environment.monotonic();
    m_answer_due = false;
    if (GSource* source = m_answer_timer_id ? g_main_context_find_source_by_id(nullptr, m_answer_timer_id) : nullptr)
        g_source_destroy(source);
    m_answer_timer_id = 0;
}

// A camera restarted without a LEAVE (a crash, a kill, a power cut) is still
// in its siblings' tables, where its start's ANNOUNCE would be a mere refresh
// that nobody answers and that a sibling's learnt period would count. A LEAVE
// first makes it news to them. Both go on one family per interface: the two
// families are received apart, and a sibling that heard the other family's
// ANNOUNCE before the LEAVE would learn the camera twice. The other family
// has its ANNOUNCE with the next one, an answer or a periodic one.
void monitor::send_leave_and_announce()
{
    if (m_interfaces.empty())
        return;
    auto leave = peer_message::leave_new(m_own_node_id, m_settings.get_group());
    leave->print();
    std::uint64_t sequence = 0;
    if (group_auth* auth = m_environment.auth) {
        auth->sign(*leave, auth->next_sequence());
        sequence = auth->next_sequence();
    }
    for (auto& [name, interface] : m_interfaces) {
        sa_family_t family = interface->send_once(leave->copy());
        if (family == AF_UNSPEC)
            continue;
        auto message = peer_message::announce_new(m_own_node_id, m_settings.get_group(), interface->own_ipv4(),
                                                  interface->own_ipv6());
        message->print();
        if (m_environment.auth)
            m_environment.auth->sign(*message, sequence);
        interface->send_once(std::move(message), family);
        count_sent(LEAVE, 1);
        count_sent(ANNOUNCE, 1);
    }
    announced();
}

// Datagrams queued for sending, one per running chain.
void monitor::count_sent(peer_message_type type, int datagrams)
{
    peer_statistics::counter& sent = type == ANNOUNCE     ? m_statistics.sent_announce
                                     : type == DISPATCHED ? m_statistics.sent_dispatched
                                     : type == LEAVE      ? m_statistics.sent_leave
                                                          : m_statistics.sent_challenge;
    peer_statistics::add(sent, static_cast<std::uint64_t>(datagrams));
}

void monitor::note_high_water()
{
    std::uint64_t now = m_receive_queue ? m_receive_queue->high_water() : 0;
    if (now > m_statistics.queue_high_water)
        m_statistics.queue_high_water = now;
}

void monitor::record_all_left()
{
    for (monitor_table* table : {m_known_nodes.get(), m_lost_nodes.get()})
        if (table)
            table->foreach([this](monitor_message_type& record) { m_changes.record(node_change::left, record); });
}

gboolean monitor::challenges_trampoline(gint, GIOCondition, gpointer self)
{
    static_cast<monitor*>(self)->send_challenges();
    return G_SOURCE_CONTINUE;
}

void monitor::send_challenges()
{
    if (!m_environment.auth)
        return;
    group_auth::work work = m_environment.auth->take_work();
    for (const group_auth::challenge& c : work.challenges)
        broadcast(peer_message::challenge_new(m_own_node_id, c.sender, m_settings.get_group(), c.nonce, c.mark));
    for (std::uint64_t nonce : work.answers)
        send_announce(nonce);
}

void monitor::send_leave()
{
    broadcast(peer_message::leave_new(m_own_node_id, m_settings.get_group()));
}

} // namespace kw
