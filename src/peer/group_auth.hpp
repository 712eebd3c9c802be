#pragma once

#include "src/config/group_keys.hpp"
#include "src/peer/peer_message.hpp"

#include <glib.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace kw {

// The authenticated group (the -k option): the keys in force, this node's
// sequence numbers, every sender's replay state and the datagrams refused.
//
// A keyed datagram is the plain one, byte for byte, followed by a trailer:
// the signing key's identifier (4 bytes), a sequence number (8 bytes), both
// big-endian, and the first 16 bytes of HMAC-SHA-256 over everything before
// the MAC. So its length is 60, 46 or 40, which a plain decoder refuses.
//
// The main thread signs and prunes; every receiving thread checks. A short
// lock guards the keys and the replay state; no socket call is made under it.
class group_auth {
public:
    enum refusal { no_trailer, unknown_key, bad_mac, replayed };
    static constexpr int refusal_count = 4;
    static constexpr std::size_t mac_length = 16;
    // The (sequence, MAC) pairs remembered per sender, so the copies of a
    // message on the other family or interface are told from replays.
    static constexpr std::size_t recent_count = 16;
    static constexpr GTimeSpan warning_interval_us = 60 * G_TIME_SPAN_SECOND;

    using wall_clock = std::function<gint64()>;

    // The clock gives microseconds since the epoch.
    static std::unique_ptr<group_auth> create(std::shared_ptr<const group_keys> keys,
                                              wall_clock clock = g_get_real_time);

    // The old keys are wiped once no thread uses them any more.
    void set_keys(std::shared_ptr<const group_keys> keys);
    std::shared_ptr<const group_keys> keys() const;

    // Main thread. The wall clock in microseconds, but always above the last
    // one given, so numbers never repeat and grow across restarts.
    std::uint64_t next_sequence();
    // Main thread: attaches the trailer made with the first key.
    void sign(peer_message& message, std::uint64_t sequence) const;

    // Receiving threads: the message of a keyed datagram that passes every
    // check, in this order: length, key identifier, MAC (in constant time),
    // sequence number. A refusal is counted with its source; a copy of a
    // message accepted already is dropped and counted apart.
    std::unique_ptr<peer_message> decode(const std::uint8_t* data, ssize_t length, const sockaddr_storage& source);

    // Main thread, once per process tick: forgets the senders that keep()
    // refuses, except those accepted since the previous call, whose message
    // may still wait in the receive queue.
    void prune(const std::function<bool(node_id)>& keep);
    // Main thread: one warning per reason with refusals, at most once a
    // minute, with the count since the last one and the last source.
    void warn_refusals(gint64 monotonic_now);

    // Totals since creation; any thread.
    std::uint64_t refused(refusal reason) const { return m_refused[reason]; }
    std::uint64_t duplicates() const { return m_duplicates; }

    struct private_tag {
        explicit private_tag() = default;
    };
    group_auth(private_tag, std::shared_ptr<const group_keys> keys, wall_clock clock);

private:
    struct sender_state {
        std::uint64_t highest = 0;
        struct seen {
            std::uint64_t sequence = 0;
            std::array<std::uint8_t, mac_length> mac {};
        } recent[recent_count];
        std::size_t next = 0;
        std::uint64_t epoch = 0;
    };

    std::nullptr_t refuse(refusal reason, const sockaddr_storage& source);
    void note_source(refusal reason, const sockaddr_storage& source);
    bool accept_sequence(node_id sender, std::uint64_t sequence, const std::uint8_t* mac,
                         const sockaddr_storage& source);

    mutable std::mutex m_lock; // guards m_keys, m_senders and m_epoch
    std::shared_ptr<const group_keys> m_keys;
    std::unordered_map<node_id, sender_state> m_senders;
    std::uint64_t m_epoch = 0;
    std::mutex m_source_lock; // guards m_last_source
    sockaddr_storage m_last_source[refusal_count] {};
    std::atomic<std::uint64_t> m_refused[refusal_count] {};
    std::atomic<std::uint64_t> m_duplicates {0};
    // Main thread only.
    wall_clock m_clock;
    std::uint64_t m_sequence = 0;
    gint64 m_quiet_until[refusal_count] {};
    // The refusals told of by a warning already.
    std::uint64_t m_reported[refusal_count] {};
};

} // namespace kw
