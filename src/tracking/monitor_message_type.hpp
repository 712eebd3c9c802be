#pragma once

#include "platform/g_ptr.hpp"
#include "src/peer/peer_message.hpp"
#include "src/tracking/announce_spacing.hpp"
#include "src/tracking/local_clock.hpp"

#include <cstdint>
#include <memory>
#include <string>

namespace kw {

// The record of one sibling node: its latest ANNOUNCE, when it was first and
// last seen, when it was last heard on the monotonic clock, and whether it
// has been marked silent. The record owns its message and one reference to
// each of its two date-times (which may be the same object).
class monitor_message_type {
public:
    // Takes over an ANNOUNCE message. First seen and last seen are one
    // date-time from the clock, held twice; last heard is the monotonic
    // clock's reading; the stale mark is 0. Gives nullptr when there is no
    // message or the clock gives no time.
    static std::unique_ptr<monitor_message_type> create(std::unique_ptr<peer_message> message,
                                                        const local_clock& clock = system_local_now,
                                                        const monotonic_clock& monotonic = system_monotonic_now);

    monitor_message_type(const monitor_message_type&) = delete;
    monitor_message_type& operator=(const monitor_message_type&) = delete;
    ~monitor_message_type() = default;

    // A record over a copy of the message that shares this record's
    // date-times (one more reference each) and its last heard; its stale
    // mark is 0.
    std::unique_ptr<monitor_message_type> copy() const;

    const peer_message& get_message() const { return *m_message; }

    // The record keeps its reference; the caller takes one if it keeps the time.
    GDateTime* get_first_seen() const { return m_first_seen.get(); }
    GDateTime* get_last_seen() const { return m_last_seen.get(); }

    // The caller's reference passes to the record; a null time is ignored,
    // since a record always holds both times.
    void set_first_seen(g_ptr<GDateTime> time);
    void set_last_seen(g_ptr<GDateTime> time);

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

    struct private_tag {
        explicit private_tag() = default;
    };
    monitor_message_type(private_tag, std::unique_ptr<peer_message> message, g_ptr<GDateTime> first_seen,
                         g_ptr<GDateTime> last_seen, gint64 last_heard_us);

private:
    std::unique_ptr<peer_message> m_message;
    g_ptr<GDateTime> m_first_seen;
    g_ptr<GDateTime> m_last_seen;
    gint64 m_last_heard_us;
    announce_spacing m_spacing;
    std::int32_t m_stale = 0;
};

} // namespace kw
