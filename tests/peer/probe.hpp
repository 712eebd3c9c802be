#pragma once

// A plain UDP socket, made inside a test namespace, that hears one group on
// one interface and reports the TTL (hop limit) each datagram arrived with.

#include "platform/unique_fd.hpp"
#include "tests/support/netns.hpp"

#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>

#include <cstring>
#include <filesystem>
#include <fstream>
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
        int on = 1, off = 0, fd;
        ip_mreqn join4 {{}, {}, static_cast<int>(if_nametoindex(interface.c_str()))};
        ipv6_mreq join6 {{}, if_nametoindex(interface.c_str())};
        sockaddr_in6 any6 {AF_INET6, htons(static_cast<std::uint16_t>(port)), 0, in6addr_any, 0};
        sockaddr_in any4 {AF_INET, any6.sin6_port, {}, {}};
        if (inet_pton(AF_INET, group.c_str(), &join4.imr_multiaddr) == 1) {
            result->m_socket.reset(fd = socket(AF_INET, SOCK_DGRAM, 0));
            // Without it a wildcard socket also hears groups other sockets joined.
            if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                setsockopt(fd, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off) == 0 &&
                setsockopt(fd, IPPROTO_IP, IP_RECVTTL, &on, sizeof on) == 0 &&
                bind(fd, reinterpret_cast<sockaddr*>(&any4), sizeof any4) == 0 &&
                setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &join4, sizeof join4) == 0)
                return result;
        } else if (inet_pton(AF_INET6, group.c_str(), &join6.ipv6mr_multiaddr) == 1) {
            result->m_socket.reset(fd = socket(AF_INET6, SOCK_DGRAM, 0));
            if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
                setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_ALL, &off, sizeof off) == 0 &&
                setsockopt(fd, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, &on, sizeof on) == 0 &&
                bind(fd, reinterpret_cast<sockaddr*>(&any6), sizeof any6) == 0 &&
                setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &join6, sizeof join6) == 0)
                return result;
        }
        return nullptr;
    }

    // The next datagram, waiting up to 10 s.
    std::optional<datagram> receive()
    {
        datagram out {std::vector<std::uint8_t>(2048)};
        iovec data {out.bytes.data(), out.bytes.size()};
        alignas(cmsghdr) char control[256];
        msghdr header {nullptr, 0, &data, 1, control, sizeof control, 0};
        pollfd wait {m_socket.get(), POLLIN, 0};
        ssize_t received = poll(&wait, 1, 10000) == 1 ? recvmsg(m_socket.get(), &header, 0) : -1;
        if (received < 0)
            return std::nullopt;
        out.bytes.resize(static_cast<std::size_t>(received));
        for (cmsghdr* c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c))
            if (c->cmsg_type == (c->cmsg_level == IPPROTO_IP ? IP_TTL : IPV6_HOPLIMIT))
                std::memcpy(&out.ttl, CMSG_DATA(c), sizeof out.ttl);
        return out;
    }

    // True when no datagram is waiting at this instant.
    bool idle() const
    {
        pollfd wait {m_socket.get(), POLLIN, 0};
        return poll(&wait, 1, 0) == 0;
    }

private:
    unique_fd m_socket;
};

// Sending and receiving threads of this process, by the names the kernel
// keeps (15 characters). The test binaries' names must not begin the same.
inline int worker_threads()
{
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        count += name == "monitor_sender_" || name == "monitor_receive";
    }
    return count;
}

} // namespace kw::test
