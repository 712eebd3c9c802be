#pragma once

#include <atomic>
#include <cstdint>

namespace kw {

class group_auth;

// What the receiving threads and the main thread count for an operator, from
// the service's start on. Each counter stands alone and is only read for
// display, so relaxed increments do: no lock is taken on the receive path.
struct peer_statistics {
    using counter = std::atomic<std::uint64_t>;

    static void add(counter& c, std::uint64_t n = 1) { c.fetch_add(n, std::memory_order_relaxed); }

    // Receiving threads: datagrams read that arrived on their own interface,
    // and those dropped before a message was made.
    counter received_ipv4 {0};
    counter received_ipv6 {0};
    counter undecodable {0};
    counter other_group {0};
    counter other_interface {0};
    // Main thread.
    counter own_id {0};
    counter queue_full {0};
    counter queue_high_water {0};
    counter sent_announce {0};
    counter sent_dispatched {0};
    counter sent_leave {0};
    counter sent_challenge {0};
    counter events_connected {0};
    counter events_disconnected {0};
    counter ticks {0};
};

// What a receiving thread applies to each datagram besides its group: the
// authenticated group's checks, and where it counts. Both belong to the
// engine and outlive every chain.
struct receive_checks {
    group_auth* auth = nullptr;
    peer_statistics* statistics = nullptr;
};

} // namespace kw
