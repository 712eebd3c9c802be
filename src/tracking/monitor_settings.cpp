// The settings operations that the bus and the package observer use, and
// copies of the node tables.

#include "src/tracking/monitor.hpp"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>

namespace kw {

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
        record_all_left();
        create_tables();
        for (auto& [name, interface] : m_interfaces)
            interface->set_group(group);
        // Nothing heard in the old group may reach the new tables.
        drop_queued();
    }
    m_settings.set_group(group);
    bool saved = m_settings.save();
    m_changes.notify();
    return saved;
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

namespace {

// The same group written in another form ("FF05::78", "ff05:0::78").
bool same_address(int family, const std::string& text, const std::string& other)
{
    in6_addr one {}, two {};
    return inet_pton(family, text.c_str(), &one) == 1 && inet_pton(family, other.c_str(), &two) == 1 &&
           std::memcmp(&one, &two, sizeof one) == 0;
}

} // namespace

bool monitor::set_multicast_group(int family, const std::string& text)
{
    const bool ipv4 = family == AF_INET;
    std::string current;
    bool readable = ipv4 ? m_settings.get_ipv4_group(current) : m_settings.get_ipv6_group(current);
    if (!is_multicast_group(family, text) || !readable)
        return false;
    // Nothing changes, not even the stored text.
    if (same_address(family, text, current))
        return true;

    // The nodes stay known; only the chains of that family move to the new
    // group. Every new chain is made before an old one goes, so one that
    // cannot be made leaves every interface on the old group.
    if (m_running) {
        const auto which = ipv4 ? monitor_interface::ipv4 : monitor_interface::ipv6;
        for (auto& [name, interface] : m_interfaces) {
            if (!interface->prepare_address(which, text)) {
                for (auto& [other, prepared] : m_interfaces)
                    prepared->abandon_address(which);
                return false;
            }
        }
        send_leave();
        for (auto& [name, interface] : m_interfaces)
            interface->commit_address(which);
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

monitor::statistics_list monitor::get_statistics() const
{
    const peer_statistics& c = m_statistics;
    auto refused = [this](group_auth::refusal reason) {
        return m_environment.auth ? m_environment.auth->refused(reason) : 0;
    };
    std::uint64_t high_water = c.queue_high_water;
    if (m_receive_queue)
        high_water = std::max<std::uint64_t>(high_water, m_receive_queue->high_water());
    return {
        {"received_ipv4", c.received_ipv4},
        {"received_ipv6", c.received_ipv6},
        {"refused_undecodable", c.undecodable},
        {"refused_other_group", c.other_group},
        {"refused_other_interface", c.other_interface},
        {"refused_own_id", c.own_id},
        {"refused_queue_full", c.queue_full},
        {"refused_no_trailer", refused(group_auth::no_trailer)},
        {"refused_unknown_key", refused(group_auth::unknown_key)},
        {"refused_bad_mac", refused(group_auth::bad_mac)},
        {"refused_replayed", refused(group_auth::replayed)},
        {"refused_unverified", refused(group_auth::unverified)},
        {"refused_over_limit", refused(group_auth::over_limit)},
        {"duplicates", m_environment.auth ? m_environment.auth->duplicates() : 0},
        {"sent_announce", c.sent_announce},
        {"sent_dispatched", c.sent_dispatched},
        {"sent_leave", c.sent_leave},
        {"sent_challenge", c.sent_challenge},
        {"answered_challenges", m_environment.auth ? m_environment.auth->answered() : 0},
        {"events_connected", c.events_connected},
        {"events_disconnected", c.events_disconnected},
        {"ticks", c.ticks},
        {"queue_high_water", high_water},
    };
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
