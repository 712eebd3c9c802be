#pragma once

#include "platform/unique_fd.hpp"
#include "src/config/group_keys.hpp"
#include "src/peer/peer_message.hpp"

#include <glib.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace kw {

// The authenticated group (the -k option): the keys in force, this node's
// sequence numbers, what each sender has proven, and the datagrams refused.
//
// A keyed datagram is the plain one, byte for byte, followed by a trailer:
// the signing key's identifier (4 bytes), a sequence number (8 bytes), both
// big-endian, and the first 16 bytes of HMAC-SHA-256 over everything before
// the MAC. So its length is 60, 46 or 40, which a plain decoder refuses.
//
// Freshness needs no clocks that agree. A receiver takes a sender's datagram
// only above the highest number it took from it, its mark, and not too far
// ahead of the time passed since. When it holds no mark for the sender (it
// never heard it, forgot it, or restarted) or the number is below the mark,
// it takes nothing: it multicasts a CHALLENGE naming the sender, with a
// random nonce and its mark. The sender raises its own numbers above that
// mark and answers at once with an ANNOUNCE carrying the nonce (68 bytes);
// that answer sets the mark anew. A replay gets a challenge nobody answers.
//
// The main thread signs, prunes and sends what the receiving threads asked
// for (challenges to make, challenges to answer), woken through wake_fd().
// One short lock guards the keys and the freshness state; no socket call is
// made under it.
class group_auth {
public:
    // Counted with their last source. Unverified datagrams (from a sender
    // not proven fresh) are the normal first contact and are not warned of.
    enum refusal { no_trailer, unknown_key, bad_mac, replayed, over_limit, unverified };
    static constexpr int refusal_count = 6;
    static constexpr int warned_count = 5;
    static constexpr std::size_t mac_length = 16;
    // Challenges outstanding at once, and challenges answered per second, at
    // most: under a flood of new senders, what it costs stays this bounded.
    static constexpr std::size_t challenge_capacity = 256;
    // A sender is challenged at most this often.
    static constexpr GTimeSpan challenge_interval_us = G_TIME_SPAN_SECOND;
    // A sequence number may run ahead of the time passed here since the mark
    // was set by this much, plus a thousandth; beyond, it is challenged.
    static constexpr GTimeSpan ahead_slack_us = 2 * G_TIME_SPAN_SECOND;
    // Below the mark by less than this, a datagram is most likely a copy
    // (another family or interface) that came late: counted as a duplicate.
    static constexpr std::uint64_t late_copy_window = 1'000'000;
    static constexpr std::size_t recent_count = 4;
    static constexpr GTimeSpan warning_interval_us = 60 * G_TIME_SPAN_SECOND;
    // A node id no 48-bit hardware address gives.
    static constexpr node_id no_node = ~node_id {0};

    using clock = std::function<gint64()>;

    // A challenge to send, and what the main thread takes from the receivers.
    struct challenge {
        node_id sender;
        std::uint64_t nonce;
        std::uint64_t mark;
    };
    struct work {
        std::vector<challenge> challenges;
        std::vector<std::uint64_t> answers; // nonces of the challenges to answer
    };

    // The wall clock gives sequence numbers, the monotonic clock (read by
    // the receiving threads too) times challenges; both in microseconds.
    static std::unique_ptr<group_auth> create(std::shared_ptr<const group_keys> keys, clock wall = g_get_real_time,
                                              clock monotonic = g_get_monotonic_time);

    // The old keys are wiped once no thread uses them any more.
    void set_keys(std::shared_ptr<const group_keys> keys);
    std::shared_ptr<const group_keys> keys() const;
    // Whose challenges this node answers, and whose datagrams (our own,
    // heard on another port) pass unjudged to the tick, which drops them.
    void set_own_id(node_id id) { m_own_id = id; }

    // Main thread. The wall clock in microseconds, but always above the last
    // one given and above every mark a challenge told of.
    std::uint64_t next_sequence();
    // Main thread: attaches the trailer made with the first key.
    void sign(peer_message& message, std::uint64_t sequence) const;

    // Receiving threads: the message of a keyed datagram that passes every
    // check, in this order: length, key identifier, MAC (in constant time),
    // freshness. A refusal is counted with its source; a copy of a message
    // accepted already is dropped and counted apart. A challenge is never
    // returned: one naming this node is kept for the main thread to answer,
    // others are dropped before any check, as are answers to others.
    std::unique_ptr<peer_message> decode(const std::uint8_t* data, ssize_t length, const sockaddr_storage& source);

    // Readable while work waits for the main thread.
    int wake_fd() const { return m_wake.get(); }
    // Main thread: what waits, at most challenge_capacity of each kind.
    work take_work();

    // Main thread, once per process tick: forgets the senders that keep()
    // refuses, except those accepted since the previous call, whose message
    // may still wait in the receive queue, and long unanswered challenges.
    void prune(const std::function<bool(node_id)>& keep);
    // Main thread: one warning per reason with refusals, at most once a
    // minute, with the count since the last one and the last source.
    void warn_refusals(gint64 monotonic_now);

    // Totals since creation; any thread.
    std::uint64_t refused(refusal reason) const { return m_refused[reason]; }
    std::uint64_t duplicates() const { return m_duplicates; }
    std::uint64_t answered() const { return m_answered; }
    std::size_t senders() const;
    std::size_t pending() const;

    struct private_tag {
        explicit private_tag() = default;
    };
    group_auth(private_tag, std::shared_ptr<const group_keys> keys, clock wall, clock monotonic);

private:
    // What a sender has proven: the highest number taken, when (on our
    // monotonic clock), the latest numbers taken, to know their copies.
    struct sender_state {
        std::uint64_t mark = 0;
        gint64 marked_at = 0;
        std::uint64_t recent[recent_count] {};
        std::uint32_t next = 0;
        std::uint32_t epoch = 0;
    };
    struct pending_challenge {
        std::uint64_t nonce = 0;
        gint64 sent_at = 0;
        bool queued = false;
    };

    std::nullptr_t refuse(refusal reason, const sockaddr_storage& source);
    void note_source(refusal reason, const sockaddr_storage& source);
    // Whether a challenge to the sender with that nonce waits for its answer.
    bool awaited(node_id sender, std::uint64_t nonce) const;
    bool fresh(node_id sender, std::uint64_t sequence, std::uint64_t nonce, const sockaddr_storage& source);
    void take(sender_state& state, std::uint64_t sequence, gint64 now);
    bool challenge_locked(node_id sender, gint64 now, const sockaddr_storage& source);
    bool make_room_locked(gint64 now);
    void note_challenge(const std::uint8_t* body, const sockaddr_storage& source);
    void wake();

    // Guards m_keys, m_senders, m_epoch, m_pending, m_room_at, m_due, m_answers,
    // m_answer_window, m_answers_in_window and m_raise_to.
    mutable std::mutex m_lock;
    std::shared_ptr<const group_keys> m_keys;
    std::unordered_map<node_id, sender_state> m_senders;
    std::uint32_t m_epoch = 0;
    std::unordered_map<node_id, pending_challenge> m_pending;
    // When the full table of pending challenges has a slot to give again.
    gint64 m_room_at = 0;
    std::vector<node_id> m_due;
    std::vector<std::uint64_t> m_answers;
    gint64 m_answer_window = 0;
    std::size_t m_answers_in_window = 0;
    std::uint64_t m_raise_to = 0;
    std::atomic<node_id> m_own_id {no_node};
    unique_fd m_wake;
    std::atomic<bool> m_woken {false};
    std::mutex m_source_lock; // guards m_last_source
    sockaddr_storage m_last_source[refusal_count] {};
    std::atomic<std::uint64_t> m_refused[refusal_count] {};
    std::atomic<std::uint64_t> m_duplicates {0};
    std::atomic<std::uint64_t> m_answered {0};
    const clock m_monotonic;
    // Main thread only.
    clock m_wall;
    std::uint64_t m_sequence = 0;
    gint64 m_quiet_until[warned_count] {};
    // The refusals told of by a warning already.
    std::uint64_t m_reported[warned_count] {};
};

} // namespace kw
