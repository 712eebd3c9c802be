#include "src/peer/message_queue.hpp"
#include "platform/unique_fd.hpp"
#include "tests/support/log_capture.hpp"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace kw {
namespace {

using bytes = std::vector<std::uint8_t>;

constexpr node_id example_node = 0x020000123456ULL;
const bytes announce_bytes = {0, 1, 0, 0, 0, 7, 2, 0, 0, 0x12, 0x34, 0x56, 192, 168, 0, 90, 0xfe, 0x80, 0, 0, 0, 0, 0, 0,
                              0, 0, 0, 0, 0, 0, 0, 1};
const bytes dispatched_bytes = {1, 1, 0, 0, 0, 7, 2, 0, 0, 0x12, 0x34, 0x56, 2, 0, 0, 0, 0xab, 0xcd};
const bytes leave_bytes = {2, 1, 0, 0, 0, 7, 2, 0, 0, 0x12, 0x34, 0x56};

std::unique_ptr<peer_message> decode(const bytes& data)
{
    return peer_message::decode(data.data(), static_cast<ssize_t>(data.size()));
}

node_id id_of(const std::unique_ptr<peer_message>& message)
{
    return message ? message->get_node_id() : 0;
}

TEST(peer_message, each_kind_encodes_to_its_wire_bytes_and_decodes_back)
{
    struct {
        std::unique_ptr<peer_message> message;
        bytes wire;
        const char* fields; // all a message carries
    } rows[] = {
        {peer_message::announce_new(example_node, 7, in_addr {htonl(0xc0a8005a)}, {{{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}}),
         announce_bytes, "0 v1 g7 2199024448598 -> 0 192.168.0.90 fe80::1"},
        {peer_message::dispatched_new(example_node, 0x02000000abcdULL, 7), dispatched_bytes,
         "1 v1 g7 2199024448598 -> 2199023299533 0.0.0.0 ::"},
        {peer_message::leave_new(example_node, 7), leave_bytes, "2 v1 g7 2199024448598 -> 0 0.0.0.0 ::"},
        // Bits 63..48 of an identifier are not sent.
        {peer_message::dispatched_new(0xabcd020000123456ULL, 0xffff02000000abcdULL, 7), dispatched_bytes,
         "1 v1 g7 2199024448598 -> 2199023299533 0.0.0.0 ::"},
        {peer_message::dispatched_new(0x010203040506ULL, 0x0a0b0c0d0e0fULL, 0x01020304),
         {1, 1, 1, 2, 3, 4, 1, 2, 3, 4, 5, 6, 10, 11, 12, 13, 14, 15}, "1 v1 g16909060 1108152157446 -> 11042563100175 0.0.0.0 ::"},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(r.message->copy()->encode(), r.wire) << r.fields;
        auto m = decode(r.wire);
        ASSERT_TRUE(m) << r.fields;
        in_addr ipv4;
        in6_addr ipv6;
        m->get_ipv4(ipv4), m->get_ipv6(ipv6);
        char text4[INET_ADDRSTRLEN], text6[INET6_ADDRSTRLEN];
        EXPECT_EQ(std::to_string(m->get_type()) + " v" + std::to_string(m->get_version()) + " g" + std::to_string(m->get_group()) +
                      " " + std::to_string(m->get_node_id()) + " -> " + std::to_string(m->get_dispatched_node_id()) + " " +
                      inet_ntop(AF_INET, &ipv4, text4, sizeof text4) + " " + inet_ntop(AF_INET6, &ipv6, text6, sizeof text6),
                  r.fields);
    }
}

TEST(peer_message, decoder_accepts_only_the_three_type_and_length_pairs_of_version_1)
{
    for (auto [wire, length, type, version] :
         {std::tuple {announce_bytes, 32, 0, 2}, {announce_bytes, 32, 0, 0}, {announce_bytes, 33, 0, 1}, {announce_bytes, 31, 0, 1},
          {announce_bytes, 32, 1, 1}, {dispatched_bytes, 19, 1, 1}, {dispatched_bytes, 17, 1, 1}, {dispatched_bytes, 18, 2, 1},
          {leave_bytes, 12, 2, 0}, {leave_bytes, 11, 2, 1}, {leave_bytes, 13, 2, 1}, {leave_bytes, 12, 3, 1},
          {announce_bytes, 32, 255, 1}, {announce_bytes, 1024, 0, 1}, {leave_bytes, 1, 2, 1},
          {announce_bytes, 60, 0, 1}, {dispatched_bytes, 46, 1, 1}, {leave_bytes, 40, 2, 1}, // keyed lengths
          {announce_bytes, 68, 0, 1}, {announce_bytes, 62, 3, 1}, {announce_bytes, 34, 3, 1}}) { // answer, challenge
        wire[0] = std::uint8_t(type), wire[1] = std::uint8_t(version);
        wire.resize(static_cast<std::size_t>(length), 0);
        EXPECT_FALSE(decode(wire)) << length << " bytes, type " << type << ", version " << version;
    }
    EXPECT_FALSE(peer_message::decode(leave_bytes.data(), -1));
    EXPECT_FALSE(peer_message::decode(leave_bytes.data(), 0));
}

TEST(peer_message, prints_one_debug_line_without_a_domain_and_pads_ids_to_twelve_digits)
{
    test::log_capture log;
    peer_message::leave_new(1, 7)->print();
    peer_message::leave_new(example_node, 7)->print();
    peer_message::dispatched_new(1, example_node, 7)->print();
    peer_message::announce_new(1, 7, in_addr {}, in6_addr {})->print();
    decode(announce_bytes)->print();
    EXPECT_EQ(log.messages(G_LOG_LEVEL_DEBUG),
              (std::vector<std::string> {"LEAVE: 000000000001", "LEAVE: 2199024448598", "DISPATCHED: 000000000001 -> 2199024448598",
                                         "ANNOUNCE: 000000000001, IPv4: 0.0.0.0, IPv6: ::",
                                         "ANNOUNCE: 2199024448598, IPv4: 192.168.0.90, IPv6: fe80::1"}));
    for (const auto& line : log.lines())
        EXPECT_FALSE(line.has_domain);
}

TEST(message_queue, hands_out_first_in_first_out_try_pop_never_waits_and_a_full_queue_refuses)
{
    auto queue = message_queue::create();
    EXPECT_EQ(queue->try_pop(), nullptr);
    for (node_id id : {1, 0, 2, 3}) // 0: a wake-up marker
        queue->push(id ? peer_message::leave_new(id, 7) : nullptr);
    EXPECT_EQ(queue->length(), 4);
    EXPECT_EQ(id_of(queue->pop()), 1u);
    EXPECT_EQ(queue->pop(), nullptr);
    EXPECT_EQ(queue->length(), 2);
    // A pop that waits is woken by a push from another thread.
    std::vector<node_id> popped;
    std::thread consumer([&] {
        for (int i = 0; i < 3; ++i)
            popped.push_back(id_of(queue->pop()));
    });
    queue->push(peer_message::leave_new(4, 7));
    consumer.join();
    EXPECT_EQ(popped, (std::vector<node_id> {2, 3, 4}));

    queue->push(peer_message::leave_new(5, 7));
    std::atomic<int> step {0};
    std::thread holder([&] {
        auto lock = queue->lock_for_testing();
        for (step = 1; step == 1;)
            std::this_thread::yield();
    });
    while (step == 0)
        std::this_thread::yield();
    EXPECT_EQ(queue->try_pop(), nullptr);
    step = 2;
    holder.join();
    EXPECT_EQ(id_of(queue->try_pop()), 5u);
    EXPECT_EQ(queue->length(), 0);

    // A full queue refuses and counts what comes, until room is made.
    auto bounded = message_queue::create(2);
    for (node_id id : {1, 2, 3, 4})
        EXPECT_EQ(bounded->push(peer_message::leave_new(id, 7)), id <= 2) << id;
    EXPECT_EQ(bounded->take_dropped(), 2u);
    EXPECT_EQ(bounded->take_dropped(), 0u);
    EXPECT_EQ(id_of(bounded->pop()), 1u);
    EXPECT_TRUE(bounded->push(nullptr));
    EXPECT_EQ(bounded->length(), 2);
}

// Pushes from two threads write the wake-up descriptor once until the consumer rearms.
TEST(message_queue, wakes_its_consumer_once_per_drain)
{
    auto queue = message_queue::create();
    unique_fd wake(eventfd(0, EFD_CLOEXEC));
    queue->set_wake(wake.get());
    auto push = [&] {
        for (int i = 0; i < 2000; ++i)
            queue->push(peer_message::leave_new(1, 7));
    };
    std::thread pushers[] = {std::thread(push), std::thread(push)};
    for (int taken = 0; taken < 4000;) {
        pollfd woken {wake.get(), POLLIN, 0};
        eventfd_t writes = 0;
        ASSERT_TRUE(poll(&woken, 1, 10000) == 1 && eventfd_read(wake.get(), &writes) == 0);
        EXPECT_EQ(writes, 1u);
        queue->rearm();
        while (queue->try_pop())
            ++taken;
    }
    for (auto& pusher : pushers)
        pusher.join();
}

} // namespace
} // namespace kw
