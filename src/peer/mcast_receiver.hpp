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
// multicast group on one named interface from create until destruction.
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

    // What recvfrom() returns. With a source buffer the sender's address is
    // written there, an IPv6 address cut to the 16 bytes of a sockaddr_in.
    ssize_t recv(void* buffer, std::size_t capacity, sockaddr_in* source = nullptr);

    struct private_tag {
        explicit private_tag() = default;
    };
    explicit mcast_receiver(private_tag) {}

private:
    bool is_ipv4() const;
    bool bind_wildcard(int port);
    bool join(const std::string& interface, const std::string& group);

    unique_fd m_socket;
    // Its first entry gives the family and the group address.
    g_ptr<addrinfo> m_group;
    // The requests the group was joined with, kept for leaving it.
    ip_mreqn m_ipv4_membership {};
    ipv6_mreq m_ipv6_membership {};
};

} // namespace kw
