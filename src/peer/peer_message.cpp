#include "src/peer/peer_message.hpp"

#include <arpa/inet.h>
#include <glib.h>

#include <cstring>

namespace kw {

namespace {

std::size_t wire_length(peer_message_type type)
{
    switch (type) {
    case ANNOUNCE:
        return PEER_MESSAGE_ANNOUNCE_LENGTH;
    case DISPATCHED:
        return PEER_MESSAGE_DISPATCHED_LENGTH;
    case LEAVE:
        return PEER_MESSAGE_LEAVE_LENGTH;
    case CHALLENGE:
        return PEER_MESSAGE_CHALLENGE_LENGTH;
    }
    return 0;
}

// The group and identifier fields lie at unaligned offsets: byte by byte.
void write_u32(std::uint8_t* at, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        at[i] = static_cast<std::uint8_t>(value >> (24 - 8 * i));
}

std::uint32_t read_u32(const std::uint8_t* at)
{
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = (value << 8) | at[i];
    return value;
}

// Bits 63..48 are dropped without a test.
void write_node_id(std::uint8_t* at, node_id value)
{
    for (int i = 0; i < 6; ++i)
        at[i] = static_cast<std::uint8_t>(value >> (40 - 8 * i));
}

void write_u64(std::uint8_t* at, std::uint64_t value)
{
    for (int i = 0; i < 8; ++i)
        at[i] = static_cast<std::uint8_t>(value >> (56 - 8 * i));
}

node_id read_node_id(const std::uint8_t* at)
{
    node_id value = 0;
    for (int i = 0; i < 6; ++i)
        value = (value << 8) | at[i];
    return value;
}

} // namespace

peer_message::peer_message(private_tag, peer_message_type type, node_id id, std::uint32_t group)
    : m_type(type)
    , m_group(group)
    , m_node_id(id)
{
}

std::unique_ptr<peer_message> peer_message::announce_new(node_id id, std::uint32_t group, const in_addr& ipv4,
                                                         const in6_addr& ipv6)
{
    auto message = std::make_unique<peer_message>(private_tag {}, ANNOUNCE, id, group);
    message->m_ipv4 = ipv4;
    message->m_ipv6 = ipv6;
    return message;
}

std::unique_ptr<peer_message> peer_message::dispatched_new(node_id id, node_id dispatched_node_id,
                                                           std::uint32_t group)
{
    auto message = std::make_unique<peer_message>(private_tag {}, DISPATCHED, id, group);
    message->m_dispatched_node_id = dispatched_node_id;
    return message;
}

std::unique_ptr<peer_message> peer_message::leave_new(node_id id, std::uint32_t group)
{
    return std::make_unique<peer_message>(private_tag {}, LEAVE, id, group);
}

std::unique_ptr<peer_message> peer_message::challenge_new(node_id id, node_id target, std::uint32_t group,
                                                          std::uint64_t nonce, std::uint64_t mark)
{
    auto message = std::make_unique<peer_message>(private_tag {}, CHALLENGE, id, group);
    message->m_dispatched_node_id = target;
    message->m_nonce = nonce;
    message->m_mark = mark;
    return message;
}

std::unique_ptr<peer_message> peer_message::copy() const
{
    return std::make_unique<peer_message>(*this);
}

std::optional<std::vector<std::uint8_t>> peer_message::encode() const
{
    std::size_t length = wire_length(m_type);
    if (length == 0)
        return std::nullopt;

    std::vector<std::uint8_t> buffer(length, 0);
    buffer[0] = m_type;
    buffer[1] = m_version;
    write_u32(&buffer[2], m_group);
    write_node_id(&buffer[6], m_node_id);
    if (m_type == ANNOUNCE) {
        std::memcpy(&buffer[12], &m_ipv4, 4);
        std::memcpy(&buffer[16], &m_ipv6, 16);
    } else if (m_type == DISPATCHED || m_type == CHALLENGE) {
        write_node_id(&buffer[12], m_dispatched_node_id);
    }
    if (m_type == CHALLENGE) {
        write_u64(&buffer[18], m_nonce);
        write_u64(&buffer[26], m_mark);
    } else if (m_type == ANNOUNCE && m_nonce != 0) {
        buffer.resize(length + PEER_MESSAGE_NONCE_LENGTH);
        write_u64(&buffer[length], m_nonce);
    }
    if (m_trailer)
        buffer.insert(buffer.end(), m_trailer->begin(), m_trailer->end());
    return buffer;
}

std::unique_ptr<peer_message> peer_message::decode(const std::uint8_t* data, ssize_t length)
{
    if (data == nullptr || length < 1)
        return nullptr;

    std::uint8_t type = data[0];
    if (type > LEAVE || static_cast<std::size_t>(length) != wire_length(static_cast<peer_message_type>(type)))
        return nullptr;
    if (data[1] != PEER_MESSAGE_VERSION)
        return nullptr;

    auto message = std::make_unique<peer_message>(private_tag {}, static_cast<peer_message_type>(type),
                                                  read_node_id(&data[6]), read_u32(&data[2]));
    if (type == ANNOUNCE) {
        std::memcpy(&message->m_ipv4, &data[12], 4);
        std::memcpy(&message->m_ipv6, &data[16], 16);
    } else if (type == DISPATCHED) {
        message->m_dispatched_node_id = read_node_id(&data[12]);
    }
    return message;
}

std::optional<std::uint32_t> peer_message::peek_group(const std::uint8_t* data, ssize_t length)
{
    if (data == nullptr || length < 6)
        return std::nullopt;
    return read_u32(&data[2]);
}

void peer_message::print() const
{
    switch (m_type) {
    case ANNOUNCE: {
        char ipv4[INET_ADDRSTRLEN] = "";
        char ipv6[INET6_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &m_ipv4, ipv4, sizeof ipv4);
        inet_ntop(AF_INET6, &m_ipv6, ipv6, sizeof ipv6);
        g_debug("ANNOUNCE: %012llu, IPv4: %s, IPv6: %s", static_cast<unsigned long long>(m_node_id), ipv4, ipv6);
        break;
    }
    case DISPATCHED:
        g_debug("DISPATCHED: %012llu -> %012llu", static_cast<unsigned long long>(m_node_id),
                static_cast<unsigned long long>(m_dispatched_node_id));
        break;
    case LEAVE:
        g_debug("LEAVE: %012llu", static_cast<unsigned long long>(m_node_id));
        break;
    case CHALLENGE:
        g_debug("CHALLENGE: %012llu -> %012llu", static_cast<unsigned long long>(m_node_id),
                static_cast<unsigned long long>(m_dispatched_node_id));
        break;
    }
}

} // namespace kw
