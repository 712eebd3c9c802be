#include "src/tracking/monitor_message_type.hpp"

#include "src/hostnet/mac_address.hpp"

#include <arpa/inet.h>

#include <ctime>

namespace kw {

static_assert(sizeof(monitor_message_type) == 104, "a record grows with every known sibling: keep it small");

std::optional<monitor_message_type> monitor_message_type::create(const peer_message& message,
                                                                 const local_clock& clock,
                                                                 const monotonic_clock& monotonic)
{
    if (message.get_type() != ANNOUNCE)
        return std::nullopt;
    g_ptr<GDateTime> now = clock();
    if (!now)
        return std::nullopt;
    monitor_message_type record;
    record.m_node_id = message.get_node_id();
    message.get_ipv4(record.m_ipv4);
    message.get_ipv6(record.m_ipv6);
    record.m_first_seen = record.m_last_seen = g_date_time_to_unix(now.get());
    record.m_last_heard_us = monotonic();
    return record;
}

std::string monitor_message_type::get_ipv4_string() const
{
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &m_ipv4, text, sizeof text);
    return text;
}

std::string monitor_message_type::get_ipv6_string() const
{
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, &m_ipv6, text, sizeof text);
    return text;
}

std::string monitor_message_type::get_mac_string() const
{
    return mac_address::format(m_node_id);
}

void monitor_message_type::print() const
{
    // The C library keeps the local time zone once read; GLib 2.74 looks
    // at /etc/localtime again (three system calls, about 10 µs) for every
    // local date-time it makes.
    auto local_text = [](gint64 unix_seconds) {
        std::time_t seconds = static_cast<std::time_t>(unix_seconds);
        std::tm local {};
        char text[32] = "";
        if (localtime_r(&seconds, &local))
            std::strftime(text, sizeof text, "%F %H:%M:%S", &local);
        return std::string(text);
    };
    g_debug("ANNOUNCE: %012llu, First seen: %s, Last seen: %s", static_cast<unsigned long long>(m_node_id),
            local_text(m_first_seen).c_str(), local_text(m_last_seen).c_str());
}

} // namespace kw
