#include "src/peer/message_queue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace kw {
namespace {

TEST(message_queue, hands_out_messages_and_wake_up_markers_in_order)
{
    auto queue = message_queue::create();
    queue->push(peer_message::leave_new(1, 7));
    queue->push(nullptr);
    queue->push(peer_message::leave_new(2, 7));
    EXPECT_EQ(queue->length(), 3);

    EXPECT_EQ(queue->pop()->get_node_id(), 1u);
    EXPECT_EQ(queue->pop(), nullptr);
    EXPECT_EQ(queue->length(), 1);
    EXPECT_EQ(queue->pop()->get_node_id(), 2u);
    EXPECT_EQ(queue->length(), 0);
}

TEST(message_queue, try_pop_never_waits)
{
    auto queue = message_queue::create();
    EXPECT_EQ(queue->try_pop(), nullptr);

    queue->push(peer_message::leave_new(1, 7));
    std::atomic<bool> held {false};
    std::atomic<bool> done {false};
    std::thread holder([&] {
        auto lock = queue->lock_for_testing();
        held = true;
        while (!done)
            std::this_thread::yield();
    });
    while (!held)
        std::this_thread::yield();
    EXPECT_EQ(queue->try_pop(), nullptr);
    done = true;
    holder.join();

    auto message = queue->try_pop();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->get_node_id(), 1u);
}

} // namespace
} // namespace kw
