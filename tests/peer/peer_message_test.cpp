#include "src/peer/peer_message.hpp"
#include "tests/support/log_capture.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>

namespace kw {
namespace {

const std::vector<std::uint8_t> golden_announce = {0x00, 0x01, 0x00, 0x00, 0x00, 0x07, 0x02, 0x00, 0x00, 0x12, 0x34,
                                                   0x56, 0xc0, 0xa8, 0x00, 0x5a, 0xfe, 0x80, 0x00, 0x00, 0x00, 0x00,
                                                   0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01};
const std::vector<std::uint8_t> golden_leave = {0x02, 0x01, 0x00, 0x00, 0x00, 0x07,
                                                0x02, 0x00, 0x00, 0x12, 0x34, 0x56};
const std::vector<std::uint8_t> golden_dispatched = {0x01, 0x01, 0x00, 0x00, 0x00, 0x07, 0x02, 0x00, 0x00,
                                                     0x12, 0x34, 0x56, 0x02, 0x00, 0x00, 0x00, 0xab, 0xcd};
constexpr node_id example_node = 0x020000123456ULL;

in_addr ipv4_of(const char* text)
{
    in_addr address {};
    inet_pton(AF_INET, text, &address);
    return address;
}

in6_addr ipv6_of(const char* text)
{
    in6_addr address {};
    inet_pton(AF_INET6, text, &address);
    return address;
}

std::unique_ptr<peer_message> decode(const std::vector<std::uint8_t>& bytes)
{
    return peer_message::decode(bytes.data(), static_cast<ssize_t>(bytes.size()));
}

TEST(peer_message, encodes_the_three_example_datagrams)
{
    auto announce = peer_message::announce_new(example_node, 7, ipv4_of("192.168.0.90"), ipv6_of("fe80::1"));
    auto leave = peer_message::leave_new(example_node, 7);
    auto dispatched = peer_message::dispatched_new(example_node, 0x02000000abcdULL, 7);

    EXPECT_EQ(announce->encode(), golden_announce);
    EXPECT_EQ(leave->encode(), golden_leave);
    EXPECT_EQ(dispatched->encode(), golden_dispatched);
}

TEST(peer_message, decodes_the_three_example_datagrams)
{
    auto announce = decode(golden_announce);
    ASSERT_TRUE(announce);
    EXPECT_EQ(announce->get_type(), ANNOUNCE);
    EXPECT_EQ(announce->get_version(), 1);
    EXPECT_EQ(announce->get_group(), 7u);
    EXPECT_EQ(announce->get_node_id(), example_node);
    in_addr ipv4 {};
    in6_addr ipv6 {};
    announce->get_ipv4(ipv4);
    announce->get_ipv6(ipv6);
    EXPECT_EQ(ipv4.s_addr, ipv4_of("192.168.0.90").s_addr);
    in6_addr expected = ipv6_of("fe80::1");
    EXPECT_EQ(std::memcmp(&ipv6, &expected, sizeof ipv6), 0);

    auto dispatched = decode(golden_dispatched);
    ASSERT_TRUE(dispatched);
    EXPECT_EQ(dispatched->get_type(), DISPATCHED);
    EXPECT_EQ(dispatched->get_node_id(), example_node);
    EXPECT_EQ(dispatched->get_dispatched_node_id(), 0x02000000abcdULL);

    auto leave = decode(golden_leave);
    ASSERT_TRUE(leave);
    EXPECT_EQ(leave->get_type(), LEAVE);
    EXPECT_EQ(leave->get_group(), 7u);
    EXPECT_EQ(leave->get_node_id(), example_node);
}

TEST(peer_message, every_kind_survives_encode_decode_and_copy)
{
    const node_id ids[] = {0, 1, 0xffffffffffffULL, example_node};
    for (node_id id : ids) {
        std::unique_ptr<peer_message> messages[] = {
            peer_message::announce_new(id, 0xfffffffe, ipv4_of("10.1.2.3"), ipv6_of("fd00::abcd")),
            peer_message::dispatched_new(id, ids[3] ^ id, 42),
            peer_message::leave_new(id, 0),
        };
        for (const auto& original : messages) {
            auto copy = original->copy();
            auto round = decode(*copy->encode());
            ASSERT_TRUE(round);
            EXPECT_EQ(round->encode(), original->encode());
            EXPECT_EQ(round->get_node_id(), id);
            EXPECT_EQ(round->get_group(), original->get_group());
            EXPECT_EQ(round->get_dispatched_node_id(), original->get_dispatched_node_id());
        }
    }
}

TEST(peer_message, identifier_bits_above_47_are_not_sent)
{
    auto leave = peer_message::leave_new(0xabcd020000123456ULL, 7);
    EXPECT_EQ(leave->encode(), golden_leave);
    EXPECT_EQ(decode(*leave->encode())->get_node_id(), example_node);

    auto dispatched = peer_message::dispatched_new(example_node, 0xffff02000000abcdULL, 7);
    EXPECT_EQ(dispatched->encode(), golden_dispatched);
}

TEST(peer_message, decoder_accepts_only_the_three_type_and_length_pairs_of_version_1)
{
    auto with = [](std::vector<std::uint8_t> bytes, std::size_t length, std::uint8_t type, std::uint8_t version) {
        bytes.resize(length, 0);
        bytes[0] = type;
        bytes[1] = version;
        return bytes;
    };
    struct rejected {
        const char* why;
        std::vector<std::uint8_t> bytes;
    };
    const rejected cases[] = {
        {"announce of version 2", with(golden_announce, 32, 0, 2)},
        {"announce of version 0", with(golden_announce, 32, 0, 0)},
        {"announce one byte long", with(golden_announce, 33, 0, 1)},
        {"announce one byte short", with(golden_announce, 31, 0, 1)},
        {"dispatched type with announce length", with(golden_announce, 32, 1, 1)},
        {"dispatched one byte long", with(golden_dispatched, 19, 1, 1)},
        {"leave type with dispatched length", with(golden_dispatched, 18, 2, 1)},
        {"leave of version 0", with(golden_leave, 12, 2, 0)},
        {"leave one byte short", with(golden_leave, 11, 2, 1)},
        {"type 3 of leave length", with(golden_leave, 12, 3, 1)},
        {"type 255 of announce length", with(golden_announce, 32, 255, 1)},
        {"single byte", {0x02}},
        {"cut at 1024 bytes", with(golden_announce, 1024, 0, 1)},
    };
    for (const auto& c : cases)
        EXPECT_FALSE(decode(c.bytes)) << c.why;

    EXPECT_FALSE(peer_message::decode(golden_leave.data(), -1));
    EXPECT_FALSE(peer_message::decode(golden_leave.data(), 0));
}

TEST(peer_message, decoder_ignores_group_identifiers_and_addresses)
{
    auto other_group = golden_announce;
    other_group[5] = 0x08;
    auto message = decode(other_group);
    ASSERT_TRUE(message);
    EXPECT_EQ(message->get_group(), 8u);
}

TEST(peer_message, prints_one_debug_line_per_message_with_padded_ids)
{
    test::log_capture log;
    peer_message::leave_new(1, 7)->print();
    peer_message::leave_new(example_node, 7)->print();
    peer_message::dispatched_new(1, example_node, 7)->print();
    peer_message::announce_new(1, 7, in_addr {}, in6_addr {})->print();
    decode(golden_announce)->print();

    const std::vector<std::string> expected = {
        "LEAVE: 000000000001",
        "LEAVE: 2199024448598",
        "DISPATCHED: 000000000001 -> 2199024448598",
        "ANNOUNCE: 000000000001, IPv4: 0.0.0.0, IPv6: ::",
        "ANNOUNCE: 2199024448598, IPv4: 192.168.0.90, IPv6: fe80::1",
    };
    EXPECT_EQ(log.debugs(), expected);
    for (const auto& line : log.lines())
        EXPECT_FALSE(line.has_domain);
}

} // namespace
} // namespace kw
