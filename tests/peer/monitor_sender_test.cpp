#include "src/peer/monitor_sender.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using test::netns_enter;
using test::thread_count;
using test::wait_until;

TEST(monitor_sender, sends_what_is_queued_in_order_at_stop_and_again_after_a_restart)
{
    KW_REQUIRE_ROOT();
    test::rename_test_thread();
    test::netns_lab lab(2);
    ASSERT_TRUE(lab.ok());
    std::unique_ptr<test::probe> far;
    {
        netns_enter in(*lab.host(1).ns);
        far = test::probe::open("eth0", "239.255.77.1", 17700);
    }
    ASSERT_TRUE(far);
    // The node id of the next datagram the far host hears, 0 when none comes.
    auto next_heard = [&]() -> node_id {
        auto got = far->receive();
        auto message = got ? peer_message::decode(got->bytes.data(), static_cast<ssize_t>(got->bytes.size())) : nullptr;
        return message ? message->get_node_id() : 0;
    };

    // Threads start inside the sending host's namespace, like its socket.
    netns_enter in(*lab.host(0).ns);
    auto queue = message_queue::create();
    auto socket = mcast_sender::create("eth0", "239.255.77.1", 17700, 1);
    ASSERT_TRUE(socket);
    auto sender = monitor_sender::create(*socket, *queue);
    int before = thread_count();

    for (node_id id : {1, 2, 3})
        queue->push(peer_message::leave_new(id, 7));
    ASSERT_TRUE(sender->start());
    EXPECT_FALSE(sender->start());
    EXPECT_TRUE(wait_until([&] { return thread_count() == before + 1; }));
    ASSERT_TRUE(sender->stop());
    EXPECT_EQ(queue->length(), 0);
    EXPECT_FALSE(sender->is_running());
    EXPECT_TRUE(wait_until([&] { return thread_count() == before; }));
    for (node_id id : {1, 2, 3})
        EXPECT_EQ(next_heard(), id);

    queue->push(peer_message::leave_new(9, 7));
    ASSERT_TRUE(sender->start());
    EXPECT_EQ(next_heard(), 9u);
    sender.reset();
    EXPECT_TRUE(wait_until([&] { return thread_count() == before; }));
}

} // namespace
} // namespace kw
