#pragma once

#include "platform/g_ptr.hpp"
#include "platform/unique_fd.hpp"

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

namespace kw {

// A UDP socket bound to the wildcard address and a port, member of one
// multicast group on one named interface from create until destruction. It
// hears only datagrams that arrive on that interface: the kernel hands a
// wildcard socket the group's datagrams from every interface where any socket
// joined it (IPv6 even with IPV6_MULTICAST_ALL off), so each datagram's
// arrival interface is checked.
class mcast_receiver {
public:
    // The group must be a numeric address; no name is looked up. Logs each
    // failure and returns nullptr, having released what it built.
    static std::unique_ptr<mcast_receiver> create(const std::string& interface, const std::string& group, int port);

    mcast_receiver(const mcast_receiver&) = delete;
    mcast_receiver& operator=(const mcast_receiver&) = delete;
    // Leaves the group, logging a failure, and closes the socket.
    ~mcast_receiver();

    int get_fd() const { return m_socket.get(); }

    // What receive() gives besides a length, 0 or -1 (an error).
    static constexpr ssize_t none_waiting = -2;
    static constexpr ssize_t other_interface = -3;

    // Takes one datagram without waiting, and its source address when asked.
    // A datagram that arrived on another interface is consumed and dropped.
    ssize_t receive(void* buffer, std::size_t capacity, sockaddr_storage* source = nullptr);

    struct private_tag {
        explicit private_tag() = default;
    };
    explicit mcast_receiver(private_tag) {}

    // The group's family is IPv4; otherwise it is IPv6.
    bool is_ipv4() const;

private:
    bool bind_wildcard(int port);
    bool join(const std::string& interface, const std::string& group);
    bool hear_own_interface_only();

    unique_fd m_socket;
    // Its first entry gives the family and the group address.
    g_ptr<addrinfo> m_group;
    // The requests the group was joined with, kept for leaving it.
    ip_mreqn m_ipv4_membership {};
    ipv6_mreq m_ipv6_membership {};
    unsigned m_ifindex = 0;
};

} // namespace kw
