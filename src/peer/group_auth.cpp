#include "src/peer/group_auth.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sodium.h>

#include <algorithm>
#include <cstring>

namespace kw {

namespace {

constexpr std::size_t head_length = PEER_MESSAGE_TRAILER_LENGTH - group_auth::mac_length;

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

std::unique_ptr<group_auth> group_auth::create(std::shared_ptr<const group_keys> keys, wall_clock clock)
{
    if (!keys)
        return nullptr;
    return std::make_unique<group_auth>(private_tag {}, std::move(keys), std::move(clock));
}

group_auth::group_auth(private_tag, std::shared_ptr<const group_keys> keys, wall_clock clock)
    : m_keys(std::move(keys))
    , m_clock(std::move(clock))
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
    m_sequence = std::max(m_sequence + 1, static_cast<std::uint64_t>(std::max<gint64>(m_clock(), 0)));
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
    if (data == nullptr || length <= ssize_t(PEER_MESSAGE_TRAILER_LENGTH))
        return refuse(no_trailer, source);
    const std::size_t plain = std::size_t(length) - PEER_MESSAGE_TRAILER_LENGTH;
    if (plain != PEER_MESSAGE_ANNOUNCE_LENGTH && plain != PEER_MESSAGE_DISPATCHED_LENGTH &&
        plain != PEER_MESSAGE_LEAVE_LENGTH)
        return refuse(no_trailer, source);

    std::shared_ptr<const group_keys> keys = this->keys();
    int index = keys->find(std::uint32_t(read_big_endian(data + plain, 4)));
    if (index < 0)
        return refuse(unknown_key, source);

    const std::uint8_t* mac = data + plain + head_length;
    unsigned char expected[crypto_auth_hmacsha256_BYTES];
    full_mac(expected, data, plain + head_length, *keys, index);
    bool genuine = sodium_memcmp(expected, mac, mac_length) == 0;
    sodium_memzero(expected, sizeof expected);
    if (!genuine)
        return refuse(bad_mac, source);

    // The sender's id lies at offset 6 of every kind of message.
    if (!accept_sequence(read_big_endian(data + 6, 6), read_big_endian(data + plain + 4, 8), mac, source))
        return nullptr;
    return peer_message::decode(data, ssize_t(plain));
}

bool group_auth::accept_sequence(node_id sender, std::uint64_t sequence, const std::uint8_t* mac,
                                 const sockaddr_storage& source)
{
    std::lock_guard lock(m_lock);
    sender_state& state = m_senders[sender];
    for (const auto& seen : state.recent) {
        if (seen.sequence == sequence && std::memcmp(seen.mac.data(), mac, mac_length) == 0) {
            ++m_duplicates;
            return false;
        }
    }
    // Equal to the highest with a MAC not seen yet: another interface's
    // variant of the same message, signed with the same number.
    if (sequence < state.highest) {
        ++m_refused[replayed];
        note_source(replayed, source);
        return false;
    }
    state.highest = sequence;
    auto& slot = state.recent[state.next++ % recent_count];
    slot.sequence = sequence;
    std::memcpy(slot.mac.data(), mac, mac_length);
    state.epoch = m_epoch;
    return true;
}

void group_auth::prune(const std::function<bool(node_id)>& keep)
{
    std::lock_guard lock(m_lock);
    std::erase_if(m_senders, [&](const auto& entry) {
        return entry.second.epoch + 1 < m_epoch && !keep(entry.first);
    });
    ++m_epoch;
}

void group_auth::warn_refusals(gint64 monotonic_now)
{
    static const char* const what[refusal_count] = {
        "datagrams without a trailer",
        "datagrams signed with an unknown key",
        "datagrams with a bad MAC",
        "replayed datagrams",
    };
    for (int reason = 0; reason < refusal_count; ++reason) {
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
