#include "src/peer/message_queue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace kw {
namespace {

node_id id_of(const std::unique_ptr<peer_message>& message)
{
    return message ? message->get_node_id() : 0;
}

TEST(message_queue, hands_out_messages_and_markers_first_in_first_out_and_try_pop_never_waits)
{
    auto queue = message_queue::create();
    EXPECT_EQ(queue->try_pop(), nullptr);
    for (node_id id : {1, 0, 2, 3})
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
    std::atomic<bool> held {false}, done {false};
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
    EXPECT_EQ(id_of(queue->try_pop()), 5u);
    EXPECT_EQ(queue->length(), 0);
}

} // namespace
} // namespace kw
