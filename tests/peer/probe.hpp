#pragma once

// Hears one group on one interface and tells the TTL (hop limit) of each datagram.

#include "src/peer/mcast_receiver.hpp"
#include "tests/support/netns.hpp"

#include <poll.h>

#include <cstring>
#include <optional>

namespace kw::test {

struct datagram {
    std::vector<std::uint8_t> bytes;
    int ttl = -1;
};

class probe {
public:
    static std::unique_ptr<probe> open(const std::string& interface, const std::string& group, int port)
    {
        auto result = std::make_unique<probe>();
        if (!(result->m_socket = mcast_receiver::create(interface, group, port)))
            return nullptr;
        int on = 1, off = 0, fd = result->m_socket->get_fd(), level = group.find(':') == std::string::npos ? IPPROTO_IP : IPPROTO_IPV6;
        // Else a wildcard socket also hears the groups other sockets joined.
        setsockopt(fd, level, level == IPPROTO_IP ? IP_MULTICAST_ALL : IPV6_MULTICAST_ALL, &off, sizeof off);
        setsockopt(fd, level, level == IPPROTO_IP ? IP_RECVTTL : IPV6_RECVHOPLIMIT, &on, sizeof on);
        return result;
    }
    // The next datagram, waiting up to 10 s.
    std::optional<datagram> receive()
    {
        datagram out {std::vector<std::uint8_t>(2048)};
        iovec data {out.bytes.data(), out.bytes.size()};
        alignas(cmsghdr) char control[256];
        msghdr header {nullptr, 0, &data, 1, control, sizeof control, 0};
        pollfd wait {m_socket->get_fd(), POLLIN, 0};
        ssize_t received = poll(&wait, 1, 10000) == 1 ? recvmsg(wait.fd, &header, 0) : -1;
        if (received < 0)
            return std::nullopt;
        out.bytes.resize(static_cast<std::size_t>(received));
        for (cmsghdr* c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c))
            if (c->cmsg_type == (c->cmsg_level == IPPROTO_IP ? IP_TTL : IPV6_HOPLIMIT))
                std::memcpy(&out.ttl, CMSG_DATA(c), sizeof out.ttl);
        return out;
    }
    // No datagram waits at this instant.
    bool idle() const
    {
        pollfd wait {m_socket->get_fd(), POLLIN, 0};
        return poll(&wait, 1, 0) == 0;
    }

private:
    std::unique_ptr<mcast_receiver> m_socket;
};

} // namespace kw::test
