#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace kw {

// A 48-bit hardware address, first octet in bits 47..40; bits 63..48 are zero.
using node_id = std::uint64_t;

enum peer_message_type : std::uint8_t {
    ANNOUNCE = 0,
    DISPATCHED = 1,
    LEAVE = 2,
    // Keyed groups only (see group_auth): the plain decoder refuses it.
    CHALLENGE = 3,
};

inline constexpr std::uint8_t PEER_MESSAGE_VERSION = 1;

// Wire lengths, selected by the type byte.
inline constexpr std::size_t PEER_MESSAGE_ANNOUNCE_LENGTH = 32;
inline constexpr std::size_t PEER_MESSAGE_DISPATCHED_LENGTH = 18;
inline constexpr std::size_t PEER_MESSAGE_LEAVE_LENGTH = 12;
// The head, the challenged node, a nonce and the challenger's mark for it.
inline constexpr std::size_t PEER_MESSAGE_CHALLENGE_LENGTH = 34;
// What an ANNOUNCE that answers a challenge carries after its 32 bytes.
inline constexpr std::size_t PEER_MESSAGE_NONCE_LENGTH = 8;
// What an authenticated group appends to each datagram (see group_auth).
inline constexpr std::size_t PEER_MESSAGE_TRAILER_LENGTH = 28;
using peer_trailer = std::array<std::uint8_t, PEER_MESSAGE_TRAILER_LENGTH>;

// One ANNOUNCE, DISPATCHED, LEAVE or CHALLENGE message. All kinds share the
// head (type, version, group, node id); the fields of the other kinds stay zero.
// A message has one owner at a time: pushing it on a queue hands it over.
class peer_message {
public:
    static std::unique_ptr<peer_message> announce_new(node_id id, std::uint32_t group, const in_addr& ipv4,
                                                      const in6_addr& ipv6);
    static std::unique_ptr<peer_message> dispatched_new(node_id id, node_id dispatched_node_id,
                                                        std::uint32_t group);
    static std::unique_ptr<peer_message> leave_new(node_id id, std::uint32_t group);
    // Asks the target to prove it is alive by signing the nonce; the mark is
    // the highest sequence number the challenger accepted from it, or 0.
    static std::unique_ptr<peer_message> challenge_new(node_id id, node_id target, std::uint32_t group,
                                                       std::uint64_t nonce, std::uint64_t mark);

    // Returns nullptr when the datagram is not acceptable: only type 0 with 32
    // bytes, type 1 with 18 and type 2 with 12 pass, and only version 1.
    static std::unique_ptr<peer_message> decode(const std::uint8_t* data, ssize_t length);
    // The group number of a datagram, read without making a message; nullopt
    // when the datagram is too short to hold one.
    static std::optional<std::uint32_t> peek_group(const std::uint8_t* data, ssize_t length);

    std::unique_ptr<peer_message> copy() const;

    // The wire bytes, exactly 32, 18, 12 or 34 of them, then an ANNOUNCE's
    // nonce and the trailer if any.
    std::optional<std::vector<std::uint8_t>> encode() const;
    // A message is signed once on the main thread; its copies, for every
    // interface and family, carry the same trailer.
    void set_trailer(const std::optional<peer_trailer>& trailer) { m_trailer = trailer; }
    // An ANNOUNCE with a nonce answers the challenge that carried it; 0: none.
    void set_nonce(std::uint64_t nonce) { m_nonce = nonce; }

    // One debug line describing the message.
    void print() const;

    peer_message_type get_type() const { return m_type; }
    std::uint8_t get_version() const { return m_version; }
    std::uint32_t get_group() const { return m_group; }
    node_id get_node_id() const { return m_node_id; }
    // DISPATCHED: the node declared lost; CHALLENGE: the node asked to answer.
    node_id get_dispatched_node_id() const { return m_dispatched_node_id; }
    std::uint64_t get_nonce() const { return m_nonce; }
    std::uint64_t get_mark() const { return m_mark; }
    void get_ipv4(in_addr& out) const { out = m_ipv4; }
    void get_ipv6(in6_addr& out) const { out = m_ipv6; }

    // Only the factories above make messages; the tag keeps the constructor theirs.
    struct private_tag {
        explicit private_tag() = default;
    };
    peer_message(private_tag, peer_message_type type, node_id id, std::uint32_t group);

private:

    peer_message_type m_type;
    std::uint8_t m_version = PEER_MESSAGE_VERSION;
    std::uint32_t m_group;
    node_id m_node_id;
    in_addr m_ipv4 {};
    in6_addr m_ipv6 {};
    node_id m_dispatched_node_id = 0;
    std::uint64_t m_nonce = 0;
    std::uint64_t m_mark = 0;
    std::optional<peer_trailer> m_trailer;
};

} // namespace kw
