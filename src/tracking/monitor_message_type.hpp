#pragma once

#include "src/peer/peer_message.hpp"
#include "src/tracking/announce_spacing.hpp"
#include "src/tracking/local_clock.hpp"

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kw {

// The record of one sibling node: its id and the addresses of its latest
// ANNOUNCE, when it was first and last seen on the wall clock, when it was
// last heard on the monotonic clock, and whether it has been marked silent.
//
// A plain value of 104 bytes that the tables hold in place, with no object
// of its own behind it: a group of a thousand siblings costs a thousand of
// these and their table entries, and refreshing a record allocates nothing.
class monitor_message_type {
public:
    // The record of the ANNOUNCE's sender with its addresses. First seen and
    // last seen are the clock's time, last heard the monotonic clock's
    // reading, the stale mark 0. Nothing when the message is no ANNOUNCE or
    // the clock gives no time.
    static std::optional<monitor_message_type> create(const peer_message& message,
                                                      const local_clock& clock = system_local_now,
                                                      const monotonic_clock& monotonic = system_monotonic_now);

    // A full, independent record; its stale mark is 0.
    monitor_message_type copy() const
    {
        monitor_message_type record = *this;
        record.m_stale = 0;
        return record;
    }

    node_id get_node_id() const { return m_node_id; }
    void get_ipv4(in_addr& out) const { out = m_ipv4; }
    void get_ipv6(in6_addr& out) const { out = m_ipv6; }

    // Seconds since the epoch, as the bus shows them; the log shows them in
    // the local time zone.
    gint64 get_first_seen() const { return m_first_seen; }
    gint64 get_last_seen() const { return m_last_seen; }
    void set_first_seen(gint64 unix_seconds) { m_first_seen = unix_seconds; }
    void set_last_seen(gint64 unix_seconds) { m_last_seen = unix_seconds; }

    std::string get_ipv4_string() const;
    std::string get_ipv6_string() const;
    std::string get_mac_string() const;

    // Microseconds of the monotonic clock when the latest ANNOUNCE was processed.
    gint64 get_last_heard() const { return m_last_heard_us; }

    // How often the node announces; a refresh hands it on to the new record.
    announce_spacing& spacing() { return m_spacing; }
    const announce_spacing& spacing() const { return m_spacing; }

    void set_stale(std::int32_t stale) { m_stale = stale; }
    std::int32_t is_stale() const { return m_stale; }

    // One debug line with the node id and both times.
    void print() const;

private:
    monitor_message_type() = default;

    node_id m_node_id = 0;
    gint64 m_first_seen = 0;
    gint64 m_last_seen = 0;
    gint64 m_last_heard_us = 0;
    in6_addr m_ipv6 {};
    in_addr m_ipv4 {};
    announce_spacing m_spacing;
    std::int32_t m_stale = 0;
};

} // namespace kw
