#pragma once

#include "src/peer/peer_message.hpp"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>

namespace kw {

// The engine's receive queue holds at most this many messages between two
// ticks, and never fewer than receive_queue_per_host times MaxHosts. One
// sibling can put eight messages in one tick without misbehaving: its ANNOUNCE
// and a DISPATCHED or LEAVE, each on both families, over two interfaces that
// both hear it (a start burst with fast-join answers is of that size). So a
// group of MaxHosts cameras powering up together fits, while a flood of junk
// stays bounded by the group's own size. At 256 hosts the floor holds: a full
// queue takes about 300 kB.
inline constexpr std::size_t receive_queue_capacity = 4096;
inline constexpr std::size_t receive_queue_per_host = 8;

// The bound for a group of max_hosts cameras; a non-positive setting counts as none.
inline std::size_t receive_queue_bound(std::int64_t max_hosts)
{
    std::size_t hosts = max_hosts > 0 ? static_cast<std::size_t>(max_hosts) : 0;
    return std::max(receive_queue_capacity, receive_queue_per_host * hosts);
}

// A first-in-first-out queue of messages shared between threads, with a
// blocking and a non-blocking pop, and a capacity beyond which pushes are
// refused and counted.
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
    static constexpr std::size_t unbounded = std::numeric_limits<std::size_t>::max();

    static std::unique_ptr<message_queue> create(std::size_t capacity = unbounded);

    message_queue(const message_queue&) = delete;
    message_queue& operator=(const message_queue&) = delete;
    ~message_queue() = default;

    // Appends at the tail and wakes every waiting pop. The message may be null.
    // False when the queue is full: the message is freed and counted.
    bool push(std::unique_ptr<peer_message> message);
    // The pushes refused since the last call; never waits.
    std::uint32_t take_dropped() { return m_dropped.exchange(0); }

    // Makes a push tell the consumer that something waits, by writing to fd
    // (an eventfd; -1: nobody to tell). One push writes, the next ones do not
    // until the consumer calls rearm() before it drains, so a burst or a flood
    // costs one write and one wake-up per drain, not one per message. The
    // consumer keeps fd open until every pushing thread has ended.
    void set_wake(int fd);
    void rearm();

    // Waits until there is an element, then removes and returns the head.
    std::unique_ptr<peer_message> pop();

    // Never waits: null when another thread holds the lock at this instant or
    // the queue is empty; a wake-up marker at the head is removed and also
    // gives null. A drain loop that stops at the first null leaves the rest
    // for its next run.
    std::unique_ptr<peer_message> try_pop();

    // The number of elements, wake-up markers included.
    int length() const;
    // The most elements it has held at once.
    std::size_t high_water() const
    {
        std::lock_guard lock(m_mutex);
        return m_high_water;
    }

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
    message_queue(private_tag, std::size_t capacity) : m_capacity(capacity) {}

private:
    std::unique_ptr<peer_message> take_head();

    mutable std::mutex m_mutex; // guards the members down to m_wake_sent
    std::condition_variable m_condition;
    std::deque<std::unique_ptr<peer_message>> m_items;
    // Pops test the count, not the emptiness of the items.
    int m_count = 0;
    std::size_t m_high_water = 0;
    int m_wake_fd = -1;       // guarded by m_mutex
    bool m_wake_sent = false; // guarded by m_mutex
    const std::size_t m_capacity;
    std::atomic<std::uint32_t> m_dropped {0};
};

} // namespace kw
