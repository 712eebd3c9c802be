#include "src/tracking/monitor_message_type.hpp"

#include "src/hostnet/mac_address.hpp"

#include <arpa/inet.h>

namespace kw {

monitor_message_type::monitor_message_type(private_tag, std::unique_ptr<peer_message> message,
                                           g_ptr<GDateTime> first_seen, g_ptr<GDateTime> last_seen,
                                           gint64 last_heard_us)
    : m_message(std::move(message))
    , m_first_seen(std::move(first_seen))
    , m_last_seen(std::move(last_seen))
    , m_last_heard_us(last_heard_us)
{
}

std::unique_ptr<monitor_message_type> monitor_message_type::create(std::unique_ptr<peer_message> message,
                                                                   const local_clock& clock,
                                                                   const monotonic_clock& monotonic)
{
    if (!message)
        return nullptr;
    g_ptr<GDateTime> first = clock();
    if (!first)
        return nullptr;
    g_ptr<GDateTime> last = ref(first.get());
    return std::make_unique<monitor_message_type>(private_tag {}, std::move(message), std::move(first),
                                                  std::move(last), monotonic());
}

std::unique_ptr<monitor_message_type> monitor_message_type::copy() const
{
    return std::make_unique<monitor_message_type>(private_tag {}, m_message->copy(), ref(m_first_seen.get()),
                                                  ref(m_last_seen.get()), m_last_heard_us);
}

void monitor_message_type::set_first_seen(g_ptr<GDateTime> time)
{
    if (time)
        m_first_seen = std::move(time);
}

void monitor_message_type::set_last_seen(g_ptr<GDateTime> time)
{
    if (time)
        m_last_seen = std::move(time);
}

std::string monitor_message_type::get_ipv4_string() const
{
    in_addr address {};
    m_message->get_ipv4(address);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

std::string monitor_message_type::get_ipv6_string() const
{
    in6_addr address {};
    m_message->get_ipv6(address);
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, &address, text, sizeof text);
    return text;
}

std::string monitor_message_type::get_mac_string() const
{
    return mac_address::format(m_message->get_node_id());
}

void monitor_message_type::print() const
{
    g_ptr<char> first(g_date_time_format(m_first_seen.get(), "%F %H:%M:%S"));
    g_ptr<char> last(g_date_time_format(m_last_seen.get(), "%F %H:%M:%S"));
    g_debug("ANNOUNCE: %012llu, First seen: %s, Last seen: %s",
            static_cast<unsigned long long>(m_message->get_node_id()), first ? first.get() : "",
            last ? last.get() : "");
}

} // namespace kw
