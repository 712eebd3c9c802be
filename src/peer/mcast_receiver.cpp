#include "src/peer/mcast_receiver.hpp"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace kw {

std::unique_ptr<mcast_receiver> mcast_receiver::create(const std::string& interface, const std::string& group,
                                                       int port)
{
    // Every failure below returns nullptr, and the destructor of the half-built
    // receiver cleans up; once the socket is open that includes an attempt to
    // leave the group, whose failure is logged after the first one.
    auto receiver = std::make_unique<mcast_receiver>(private_tag {});

    addrinfo hints {};
    hints.ai_flags = AI_PASSIVE | AI_NUMERICHOST;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_protocol = IPPROTO_UDP;
    addrinfo* found = nullptr;
    if (getaddrinfo(group.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
        g_warning("%s, getaddrinfo() failed", "mcast_receiver_create");
        return nullptr;
    }
    receiver->m_group = adopt(found);

    const addrinfo* first = receiver->m_group.get();
    receiver->m_socket.reset(::socket(first->ai_family, first->ai_socktype, first->ai_protocol));
    if (!receiver->m_socket) {
        g_warning("socket() failed");
        return nullptr;
    }

    // Lets the receivers of several interfaces, and other processes, share the port.
    int reuse = 1;
    if (setsockopt(receiver->m_socket.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0) {
        g_warning("setsockopt() failed when setting SO_REUSEADDR: %s", g_strerror(errno));
        return nullptr;
    }

    if (!receiver->bind_wildcard(port) || !receiver->join(interface, group) || !receiver->hear_own_interface_only())
        return nullptr;
    return receiver;
}

mcast_receiver::~mcast_receiver()
{
    if (!m_socket)
        return;
    int result;
    if (is_ipv4()) {
        // The ip_mreq form: group and local address, without the index.
        result = setsockopt(m_socket.get(), IPPROTO_IP, IP_DROP_MEMBERSHIP, &m_ipv4_membership, sizeof(ip_mreq));
    } else {
        result = setsockopt(m_socket.get(), IPPROTO_IPV6, IPV6_LEAVE_GROUP, &m_ipv6_membership,
                            sizeof m_ipv6_membership);
    }
    if (result != 0)
        g_warning("Failed to leave multicast group: %s", g_strerror(errno));
}

bool mcast_receiver::is_ipv4() const
{
    return m_group->ai_family == AF_INET;
}

// Bound to the wildcard address, never to the group address.
bool mcast_receiver::bind_wildcard(int port)
{
    int result;
    if (is_ipv4()) {
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        result = ::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } else {
        sockaddr_in6 address {};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(static_cast<std::uint16_t>(port));
        address.sin6_addr = in6addr_any;
        result = ::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    if (result != 0) {
        g_warning("bind() failed: %s", g_strerror(errno));
        return false;
    }
    return true;
}

bool mcast_receiver::join(const std::string& interface, const std::string& group)
{
    // Index 0 would let the kernel choose an interface: a link gone meanwhile
    // must fail the chain instead.
    unsigned index = if_nametoindex(interface.c_str());
    m_ifindex = index;
    if (index == 0) {
        g_warning("No interface %s to join %s on", interface.c_str(), group.c_str());
        return false;
    }
    if (is_ipv4()) {
        ip_mreqn request {};
        request.imr_multiaddr.s_addr = inet_addr(group.c_str());
        request.imr_ifindex = static_cast<int>(index);
        if (setsockopt(m_socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0) {
            g_warning("setsockopt() failed when setting IP_ADD_MEMBERSHIP(%s): %s", group.c_str(),
                      g_strerror(errno));
            return false;
        }
        m_ipv4_membership = request;
    } else {
        ipv6_mreq request {};
        request.ipv6mr_multiaddr = reinterpret_cast<const sockaddr_in6*>(m_group->ai_addr)->sin6_addr;
        request.ipv6mr_interface = index;
        if (setsockopt(m_socket.get(), IPPROTO_IPV6, IPV6_JOIN_GROUP, &request, sizeof request) != 0) {
            g_warning("setsockopt() failed to set IPV6_JOIN_GROUP: %s", g_strerror(errno));
            return false;
        }
        m_ipv6_membership = request;
    }
    return true;
}

bool mcast_receiver::hear_own_interface_only()
{
    // Without it the socket also hears groups that other sockets joined. Its
    // failure costs only work (older kernels lack it for IPv6): the arrival
    // interface is checked anyway.
    int off = 0;
    int on = 1;
    int level = is_ipv4() ? IPPROTO_IP : IPPROTO_IPV6;
    setsockopt(m_socket.get(), level, is_ipv4() ? IP_MULTICAST_ALL : IPV6_MULTICAST_ALL, &off, sizeof off);
    if (setsockopt(m_socket.get(), level, is_ipv4() ? IP_PKTINFO : IPV6_RECVPKTINFO, &on, sizeof on) != 0) {
        g_warning("setsockopt() failed when setting %s: %s", is_ipv4() ? "IP_PKTINFO" : "IPV6_RECVPKTINFO",
                  g_strerror(errno));
        return false;
    }
    return true;
}

ssize_t mcast_receiver::receive(void* buffer, std::size_t capacity, sockaddr_storage* source)
{
    iovec data {buffer, capacity};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo)) + CMSG_SPACE(sizeof(in_pktinfo))];
    msghdr header {};
    header.msg_name = source;
    header.msg_namelen = source ? sizeof *source : 0;
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    ssize_t received = ::recvmsg(m_socket.get(), &header, MSG_DONTWAIT);
    if (received < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK ? none_waiting : -1;

    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
        unsigned arrival = m_ifindex;
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
            in_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            arrival = static_cast<unsigned>(info.ipi_ifindex);
        } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
            in6_pktinfo info;
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            arrival = info.ipi6_ifindex;
        }
        // An unknown interface name joined by index 0; then any arrival goes.
        if (m_ifindex != 0 && arrival != m_ifindex)
            return other_interface;
    }
    return received;
}

} // namespace kw
