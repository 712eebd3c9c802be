#pragma once

#include "src/peer/peer_message.hpp"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

namespace kw {

// An unbounded first-in-first-out queue of messages shared between threads,
// with a blocking and a non-blocking pop.
//
// An empty element (a null unique_ptr) is a wake-up marker: it counts as an
// element and is handed out by the pops like any other.
//
// Whoever pops an element owns it. The queue holds its elements as
// unique_ptr, so its destructor releases anything still in it and nothing
// can leak. The chain and the engine still drain it explicitly (pop while
// length() is above zero) before they release it, once the threads that
// use it have ended.
class message_queue {
public:
    static std::unique_ptr<message_queue> create();

    message_queue(const message_queue&) = delete;
    message_queue& operator=(const message_queue&) = delete;
    ~message_queue() = default;

    // Appends at the tail and wakes every waiting pop. The message may be null.
    void push(std::unique_ptr<peer_message> message);

    // Waits until there is an element, then removes and returns the head.
    std::unique_ptr<peer_message> pop();

    // Never waits: null when another thread holds the lock at this instant or
    // the queue is empty; a wake-up marker at the head is removed and also
    // gives null. A drain loop that stops at the first null leaves the rest
    // for its next run.
    std::unique_ptr<peer_message> try_pop();

    // The number of elements, wake-up markers included.
    int length() const;

    // Calls fn with each element, head to tail, under the lock; the elements
    // stay in the queue. A wake-up marker is passed as nullptr.
    template <class Fn> void foreach(Fn&& fn) const
    {
        std::lock_guard lock(m_mutex);
        for (const auto& item : m_items)
            fn(static_cast<const peer_message*>(item.get()));
    }

    // Holds the queue's lock for as long as the returned lock lives, so that
    // a test can show that try_pop never waits for it.
    std::unique_lock<std::mutex> lock_for_testing() { return std::unique_lock(m_mutex); }

    struct private_tag {
        explicit private_tag() = default;
    };
    explicit message_queue(private_tag) {}

private:
    std::unique_ptr<peer_message> take_head();

    mutable std::mutex m_mutex; // guards m_items and m_count
    std::condition_variable m_condition;
    std::deque<std::unique_ptr<peer_message>> m_items;
    // Pops test the count, not the emptiness of the items.
    int m_count = 0;
};

} // namespace kw
