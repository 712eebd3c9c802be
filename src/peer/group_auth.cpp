#include "src/peer/group_auth.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sodium.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cstring>

namespace kw {

namespace {

constexpr std::size_t head_length = PEER_MESSAGE_TRAILER_LENGTH - group_auth::mac_length;
constexpr std::size_t answer_length = PEER_MESSAGE_ANNOUNCE_LENGTH + PEER_MESSAGE_NONCE_LENGTH;
// A challenge may raise our numbers this far at most, so they never wrap.
constexpr std::uint64_t highest_raise = std::uint64_t {1} << 62;
// An unanswered challenge is forgotten after this long.
constexpr GTimeSpan pending_life_us = 10 * group_auth::challenge_interval_us;

std::uint64_t read_big_endian(const std::uint8_t* at, int bytes)
{
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i)
        value = (value << 8) | at[i];
    return value;
}

void write_big_endian(std::uint8_t* at, std::uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        at[i] = static_cast<std::uint8_t>(value >> (8 * (bytes - 1 - i)));
}

// What may come before the trailer: the plain kinds, an answer, a challenge.
bool known_layout(std::uint8_t type, std::size_t body)
{
    switch (type) {
    case ANNOUNCE:
        return body == PEER_MESSAGE_ANNOUNCE_LENGTH || body == answer_length;
    case DISPATCHED:
        return body == PEER_MESSAGE_DISPATCHED_LENGTH;
    case LEAVE:
        return body == PEER_MESSAGE_LEAVE_LENGTH;
    case CHALLENGE:
        return body == PEER_MESSAGE_CHALLENGE_LENGTH;
    }
    return false;
}

void full_mac(unsigned char* out, const std::uint8_t* data, std::size_t length, const group_keys& keys, int index)
{
    crypto_auth_hmacsha256(out, data, length, keys.key(std::size_t(index)));
}

std::string address_text(const sockaddr_storage& source)
{
    char text[INET6_ADDRSTRLEN] = "unknown";
    if (source.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(source).sin_addr, text, sizeof text);
    else if (source.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(source).sin6_addr, text, sizeof text);
    return text;
}

} // namespace

std::unique_ptr<group_auth> group_auth::create(std::shared_ptr<const group_keys> keys, clock wall, clock monotonic)
{
    if (!keys)
        return nullptr;
    auto auth = std::make_unique<group_auth>(private_tag {}, std::move(keys), std::move(wall), std::move(monotonic));
    if (!auth->m_wake)
        return nullptr;
    return auth;
}

group_auth::group_auth(private_tag, std::shared_ptr<const group_keys> keys, clock wall, clock monotonic)
    : m_keys(std::move(keys))
    , m_wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
    , m_monotonic(std::move(monotonic))
    , m_wall(std::move(wall))
{
}

void group_auth::set_keys(std::shared_ptr<const group_keys> keys)
{
    std::lock_guard lock(m_lock);
    m_keys.swap(keys);
    // The old keys go with the last copy, here or in a receiving thread.
}

std::shared_ptr<const group_keys> group_auth::keys() const
{
    std::lock_guard lock(m_lock);
    return m_keys;
}

std::uint64_t group_auth::next_sequence()
{
    m_sequence = std::max(m_sequence + 1, static_cast<std::uint64_t>(std::max<gint64>(m_wall(), 0)));
    return m_sequence;
}

void group_auth::sign(peer_message& message, std::uint64_t sequence) const
{
    std::shared_ptr<const group_keys> signing = keys();
    message.set_trailer(std::nullopt);
    std::vector<std::uint8_t> bytes = message.encode().value_or(std::vector<std::uint8_t> {});
    peer_trailer trailer {};
    write_big_endian(&trailer[0], signing->id(0), 4);
    write_big_endian(&trailer[4], sequence, 8);
    bytes.insert(bytes.end(), trailer.begin(), trailer.begin() + head_length);
    unsigned char mac[crypto_auth_hmacsha256_BYTES];
    full_mac(mac, bytes.data(), bytes.size(), *signing, 0);
    std::memcpy(&trailer[head_length], mac, mac_length);
    sodium_memzero(mac, sizeof mac);
    message.set_trailer(trailer);
}

std::nullptr_t group_auth::refuse(refusal reason, const sockaddr_storage& source)
{
    ++m_refused[reason];
    note_source(reason, source);
    return nullptr;
}

// Never waits: under a flood of refusals the receiving threads would queue
// on the lock for a text the tick reads once a minute; another thread's
// source, taken meanwhile, serves as well.
void group_auth::note_source(refusal reason, const sockaddr_storage& source)
{
    std::unique_lock lock(m_source_lock, std::try_to_lock);
    if (lock)
        m_last_source[reason] = source;
}

std::unique_ptr<peer_message> group_auth::decode(const std::uint8_t* data, ssize_t length,
                                                 const sockaddr_storage& source)
{
    const std::size_t body =
        length > ssize_t(PEER_MESSAGE_TRAILER_LENGTH) ? std::size_t(length) - PEER_MESSAGE_TRAILER_LENGTH : 0;
    if (data == nullptr || !known_layout(data[0], body))
        return refuse(no_trailer, source);
    // The sender's id lies at offset 6 of every kind of message. A challenge
    // naming another node and an answer to another node's challenge are none
    // of our business and cost no MAC: when a whole group starts at once,
    // every camera hears every other's.
    const node_id sender = read_big_endian(data + 6, 6);
    const std::uint64_t nonce = body == answer_length ? read_big_endian(data + PEER_MESSAGE_ANNOUNCE_LENGTH, 8) : 0;
    if (data[0] == CHALLENGE ? read_big_endian(data + 12, 6) != m_own_id : nonce != 0 && !awaited(sender, nonce))
        return nullptr;

    std::shared_ptr<const group_keys> keys = this->keys();
    int index = keys->find(std::uint32_t(read_big_endian(data + body, 4)));
    if (index < 0)
        return refuse(unknown_key, source);

    const std::uint8_t* mac = data + body + head_length;
    unsigned char expected[crypto_auth_hmacsha256_BYTES];
    full_mac(expected, data, body + head_length, *keys, index);
    bool genuine = sodium_memcmp(expected, mac, mac_length) == 0;
    sodium_memzero(expected, sizeof expected);
    if (!genuine)
        return refuse(bad_mac, source);

    if (data[0] == CHALLENGE) {
        note_challenge(data, source);
        return nullptr;
    }
    // Our own datagrams, heard on another port, are the tick's to drop.
    if (sender != m_own_id && !fresh(sender, read_big_endian(data + body + 4, 8), nonce, source))
        return nullptr;
    return peer_message::decode(data, ssize_t(nonce != 0 ? PEER_MESSAGE_ANNOUNCE_LENGTH : body));
}

bool group_auth::awaited(node_id sender, std::uint64_t nonce) const
{
    std::lock_guard lock(m_lock);
    auto pending = m_pending.find(sender);
    return pending != m_pending.end() && pending->second.nonce == nonce;
}

bool group_auth::fresh(node_id sender, std::uint64_t sequence, std::uint64_t nonce, const sockaddr_storage& source)
{
    const gint64 now = m_monotonic();
    refusal reason = unverified;
    bool late = false, woken = false;
    {
        std::lock_guard lock(m_lock);
        auto pending = m_pending.find(sender);
        if (nonce != 0 && pending != m_pending.end() && pending->second.nonce == nonce) {
            // The answer to our challenge: the sender is alive, and its mark starts anew.
            m_pending.erase(pending);
            sender_state& state = m_senders[sender];
            state = sender_state {};
            take(state, sequence, now);
            return true;
        }
        auto known = m_senders.find(sender);
        if (known != m_senders.end()) {
            sender_state& state = known->second;
            const auto since = static_cast<std::uint64_t>(std::max<gint64>(now - state.marked_at, 0));
            if (sequence > state.mark && sequence - state.mark <= since + since / 1000 + ahead_slack_us) {
                take(state, sequence, now);
                return true;
            }
            if (std::ranges::find(state.recent, sequence) != std::end(state.recent)) {
                ++m_duplicates;
                return false;
            }
            // Below the mark: a copy that came late, a replay, or a sender
            // whose numbers went back. Only a challenge tells.
            if (sequence < state.mark) {
                late = state.mark - sequence < late_copy_window;
                reason = replayed;
            }
        }
        if (late)
            ++m_duplicates;
        else
            refuse(reason, source);
        woken = challenge_locked(sender, now, source);
    }
    if (woken)
        wake();
    return false;
}

void group_auth::take(sender_state& state, std::uint64_t sequence, gint64 now)
{
    state.mark = sequence;
    state.marked_at = now;
    state.recent[state.next++ % recent_count] = sequence;
    state.epoch = m_epoch;
}

// One challenge per sender and interval; at most challenge_capacity waiting
// for an answer. True when the main thread has a challenge to send.
bool group_auth::challenge_locked(node_id sender, gint64 now, const sockaddr_storage& source)
{
    auto found = m_pending.find(sender);
    if (found != m_pending.end() && now - found->second.sent_at < challenge_interval_us)
        return false;
    if (found == m_pending.end()) {
        if (m_pending.size() >= challenge_capacity && !make_room_locked(now)) {
            refuse(over_limit, source);
            return false;
        }
        found = m_pending.emplace(sender, pending_challenge {}).first;
    }
    pending_challenge& challenge = found->second;
    do
        randombytes_buf(&challenge.nonce, sizeof challenge.nonce);
    while (challenge.nonce == 0); // 0 says an ANNOUNCE answers nothing
    challenge.sent_at = now;
    if (!challenge.queued) {
        challenge.queued = true;
        m_due.push_back(sender);
    }
    return true;
}

// Frees the slots of challenges left unanswered for an interval; those not
// sent yet stay, so the list for the main thread stays within the capacity.
// A full table with nothing to free is not looked at again before it may be.
bool group_auth::make_room_locked(gint64 now)
{
    if (now < m_room_at)
        return false;
    gint64 oldest = now;
    std::erase_if(m_pending, [&](const auto& entry) {
        const pending_challenge& challenge = entry.second;
        if (!challenge.queued && now - challenge.sent_at >= challenge_interval_us)
            return true;
        oldest = std::min(oldest, challenge.sent_at);
        return false;
    });
    m_room_at = oldest + challenge_interval_us;
    return m_pending.size() < challenge_capacity;
}

// A genuine challenge naming this node: its nonce is answered (at most
// challenge_capacity a second), and our numbers go above its mark, so that
// the challenger's later checks pass without another challenge.
void group_auth::note_challenge(const std::uint8_t* data, const sockaddr_storage& source)
{
    const node_id own = m_own_id;
    const std::uint64_t nonce = read_big_endian(data + 18, 8);
    if (data[1] != PEER_MESSAGE_VERSION || read_big_endian(data + 6, 6) == own || nonce == 0)
        return;
    const std::uint64_t mark = read_big_endian(data + 26, 8);
    const gint64 now = m_monotonic();
    {
        std::lock_guard lock(m_lock);
        m_raise_to = std::max(m_raise_to, std::min(mark, highest_raise));
        if (now - m_answer_window >= G_TIME_SPAN_SECOND) {
            m_answer_window = now;
            m_answers_in_window = 0;
        }
        if (std::ranges::find(m_answers, nonce) != m_answers.end())
            return;
        if (m_answers_in_window >= challenge_capacity || m_answers.size() >= challenge_capacity) {
            refuse(over_limit, source);
            return;
        }
        ++m_answers_in_window;
        m_answers.push_back(nonce);
    }
    wake();
}

// A write only when the main thread has not been woken since it last took
// its work, so a flood costs no system call per datagram.
void group_auth::wake()
{
    const std::uint64_t one = 1;
    if (!m_woken.exchange(true))
        while (::write(m_wake.get(), &one, sizeof one) < 0 && errno == EINTR) {
        }
}

group_auth::work group_auth::take_work()
{
    m_woken = false;
    std::uint64_t count = 0;
    while (::read(m_wake.get(), &count, sizeof count) < 0 && errno == EINTR) {
    }
    work taken;
    std::uint64_t raise = 0;
    {
        std::lock_guard lock(m_lock);
        for (node_id sender : m_due) {
            auto found = m_pending.find(sender);
            if (found == m_pending.end() || !found->second.queued)
                continue;
            found->second.queued = false;
            auto known = m_senders.find(sender);
            const std::uint64_t mark = known != m_senders.end() ? known->second.mark : 0;
            taken.challenges.push_back({sender, found->second.nonce, mark});
        }
        m_due.clear();
        taken.answers.swap(m_answers);
        raise = m_raise_to;
    }
    m_sequence = std::max(m_sequence, raise);
    m_answered += taken.answers.size();
    return taken;
}

void group_auth::prune(const std::function<bool(node_id)>& keep)
{
    const gint64 now = m_monotonic();
    std::lock_guard lock(m_lock);
    std::erase_if(m_senders, [&](const auto& entry) {
        return entry.second.epoch + 1 < m_epoch && !keep(entry.first);
    });
    std::erase_if(m_pending, [&](const auto& entry) {
        return !entry.second.queued && now - entry.second.sent_at >= pending_life_us;
    });
    ++m_epoch;
}

std::size_t group_auth::senders() const
{
    std::lock_guard lock(m_lock);
    return m_senders.size();
}

std::size_t group_auth::pending() const
{
    std::lock_guard lock(m_lock);
    return m_pending.size();
}

void group_auth::warn_refusals(gint64 monotonic_now)
{
    static const char* const what[warned_count] = {
        "datagrams without a trailer",
        "datagrams signed with an unknown key",
        "datagrams with a bad MAC",
        "replayed datagrams",
        "datagrams over the challenge limits",
    };
    for (int reason = 0; reason < warned_count; ++reason) {
        std::uint64_t total = m_refused[reason];
        if (monotonic_now < m_quiet_until[reason] || total == m_reported[reason])
            continue;
        auto count = static_cast<unsigned long long>(total - m_reported[reason]);
        m_reported[reason] = total;
        std::string source;
        {
            std::lock_guard lock(m_source_lock);
            source = address_text(m_last_source[reason]);
        }
        g_warning("Refused %llu %s, last from %s", count, what[reason], source.c_str());
        m_quiet_until[reason] = monotonic_now + warning_interval_us;
    }
}

} // namespace kw
