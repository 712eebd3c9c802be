#pragma once

#include <glib.h>
#include <netinet/in.h>

#include <cstring>

namespace kw {

// What the link watcher reports for one interface. The addresses are kept in
// their socket-layer form so that a listener can hand them to a socket as is.
struct interface_state {
    gboolean up = FALSE;
    gboolean ipv4_enabled = FALSE;
    gboolean ipv6_enabled = FALSE;
    in_addr ipv4_address {};
    in6_addr ipv6_address {};

    // Equal when all five fields are, the address bytes included.
    bool operator==(const interface_state& other) const
    {
        return up == other.up && ipv4_enabled == other.ipv4_enabled && ipv6_enabled == other.ipv6_enabled &&
               std::memcmp(&ipv4_address, &other.ipv4_address, sizeof ipv4_address) == 0 &&
               std::memcmp(&ipv6_address, &other.ipv6_address, sizeof ipv6_address) == 0;
    }
};

} // namespace kw
