#include "src/peer/monitor_receiver.hpp"
#include "src/peer/mcast_sender.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using test::thread_count;
using test::wait_until;

constexpr const char* group = "ff15::77";
constexpr std::uint32_t sibling_group = 7;

std::vector<std::uint8_t> leave(node_id id, std::uint32_t group_number)
{
    return *peer_message::leave_new(id, group_number)->encode();
}

// A receiver on the first lab host; the second host sends raw datagrams.
TEST(monitor_receiver, drops_foreign_and_malformed_datagrams_silently_and_stops_through_its_pipe)
{
    KW_REQUIRE_ROOT();
    test::rename_test_thread();
    test::netns_lab lab(2);
    ASSERT_TRUE(lab.ok());
    auto queue = message_queue::create();
    int before = thread_count();
    std::unique_ptr<mcast_receiver> socket;
    std::unique_ptr<monitor_receiver> receiver;
    {
        test::netns_enter in(*lab.host(0).ns);
        socket = mcast_receiver::create("eth0", group, 17700);
        ASSERT_TRUE(socket);
        receiver = monitor_receiver::create(*socket, *queue, sibling_group);
        ASSERT_TRUE(receiver && receiver->start());
    }
    EXPECT_FALSE(receiver->start());
    EXPECT_TRUE(wait_until([&] { return thread_count() == before + 1; }));

    test::netns_enter in(*lab.host(1).ns);
    auto far = mcast_sender::create("eth0", group, 17700, 1);
    ASSERT_TRUE(far);
    auto send = [&](const std::vector<std::uint8_t>& bytes) {
        EXPECT_EQ(far->send(bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    };
    // Waits for one message on the receive queue and gives its node id.
    auto next_received = [&]() -> node_id {
        if (!wait_until([&] { return queue->length() > 0; }))
            return 0;
        auto message = queue->pop();
        return message ? message->get_node_id() : 0;
    };

    test::log_capture log;
    auto wrong_version = leave(1, sibling_group);
    wrong_version[1] = 0;
    auto oversized = leave(2, sibling_group);
    oversized.resize(1500, 0);
    send(leave(3, sibling_group + 1));
    send(wrong_version);
    send(oversized);
    send(leave(4, sibling_group));
    EXPECT_EQ(next_received(), 4u);
    EXPECT_EQ(queue->length(), 0);

    receiver->set_group(sibling_group + 1);
    send(leave(5, sibling_group));
    send(leave(6, sibling_group + 1));
    EXPECT_EQ(next_received(), 6u);
    EXPECT_EQ(queue->length(), 0);
    EXPECT_TRUE(log.warnings().empty());

    // Idle again, the thread sits in select() until its pipe wakes it.
    EXPECT_TRUE(receiver->stop());
    EXPECT_FALSE(receiver->is_running());
    EXPECT_TRUE(wait_until([&] { return thread_count() == before; }));
}

} // namespace
} // namespace kw
