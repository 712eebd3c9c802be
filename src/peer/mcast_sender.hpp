#pragma once

#include "platform/g_ptr.hpp"
#include "platform/unique_fd.hpp"

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>

namespace kw {

// A UDP socket that sends to one multicast group and port, out through one
// named interface, with a chosen TTL (hop limit) and multicast loopback off,
// so the host never hears its own datagrams.
class mcast_sender {
public:
    // The group may be a numeric address or a name that is looked up; the
    // first address found selects the family. Logs each failure and returns
    // nullptr, having released what it built.
    static std::unique_ptr<mcast_sender> create(const std::string& interface, const std::string& group, int port,
                                                int ttl);

    mcast_sender(const mcast_sender&) = delete;
    mcast_sender& operator=(const mcast_sender&) = delete;
    ~mcast_sender() = default;

    // Accepts 1..255. After a refusal or a failure the old TTL stays in force.
    bool set_ttl(int ttl);
    int get_ttl() const { return m_ttl; }

    // What sendto() returns: the number of bytes sent, or -1.
    ssize_t send(const void* buffer, std::size_t length);

    struct private_tag {
        explicit private_tag() = default;
    };
    explicit mcast_sender(private_tag) {}

private:
    bool is_ipv4() const;

    unique_fd m_socket;
    int m_ttl = 0;
    // Its first entry gives the family and the destination address.
    g_ptr<addrinfo> m_destination;
};

} // namespace kw
