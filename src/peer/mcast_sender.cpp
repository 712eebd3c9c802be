#include "src/peer/mcast_sender.hpp"

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

namespace kw {

std::unique_ptr<mcast_sender> mcast_sender::create(const std::string& interface, const std::string& group, int port,
                                                   int ttl)
{
    auto sender = std::make_unique<mcast_sender>(private_tag {});

    // No AI_NUMERICHOST: the group may be given as a name.
    addrinfo hints {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(group.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        g_warning("%s, getaddrinfo() failed", "mcast_sender_create");
        return nullptr;
    }
    sender->m_destination = adopt(found);

    const addrinfo* first = sender->m_destination.get();
    if (first->ai_family != AF_INET && first->ai_family != AF_INET6) {
        g_warning("Unsupported address family");
        return nullptr;
    }

    sender->m_socket.reset(::socket(first->ai_family, first->ai_socktype, first->ai_protocol));
    if (!sender->m_socket) {
        g_warning("socket() failed");
        return nullptr;
    }

    if (!sender->set_ttl(ttl))
        return nullptr;

    int fd = sender->m_socket.get();
    unsigned index = if_nametoindex(interface.c_str());
    if (sender->is_ipv4()) {
        ip_mreqn request {};
        request.imr_ifindex = static_cast<int>(index);
        if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &request, sizeof request) != 0) {
            g_warning("setsockopt() failed when setting IP_MULTICAST_IF: %s", g_strerror(errno));
            return nullptr;
        }
        int loop = 0;
        if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) != 0) {
            g_warning("setsockopt() failed when setting IP_MULTICAST_LOOP: %s", g_strerror(errno));
            return nullptr;
        }
    } else {
        // This failure has no message of its own.
        int ifindex = static_cast<int>(index);
        if (setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &ifindex, sizeof ifindex) != 0)
            return nullptr;
        int loop = 0;
        if (setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &loop, sizeof loop) != 0) {
            g_warning("setsockopt() failed when setting IPV6_MULTICAST_LOOP: %s", g_strerror(errno));
            return nullptr;
        }
    }

    // The socket stays unbound: the system picks the source address and port.
    return sender;
}

bool mcast_sender::is_ipv4() const
{
    return m_destination->ai_family == AF_INET;
}

bool mcast_sender::set_ttl(int ttl)
{
    if (ttl < 1 || ttl > 255) {
        g_warning("TTL: %d is out of range", ttl);
        return false;
    }
    if (is_ipv4()) {
        if (setsockopt(m_socket.get(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0) {
            g_warning("setsockopt() failed when setting IP_MULTICAST_TTL: %s", g_strerror(errno));
            return false;
        }
    } else if (setsockopt(m_socket.get(), IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &ttl, sizeof ttl) != 0) {
        g_warning("setsockopt() failed when setting IPV6_MULTICAST_HOPS: %s", g_strerror(errno));
        return false;
    }
    m_ttl = ttl;
    return true;
}

ssize_t mcast_sender::send(const void* buffer, std::size_t length)
{
    const addrinfo* destination = m_destination.get();
    return ::sendto(m_socket.get(), buffer, length, 0, destination->ai_addr, destination->ai_addrlen);
}

} // namespace kw
