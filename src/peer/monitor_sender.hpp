#pragma once

#include "platform/g_ptr.hpp"
#include "src/peer/mcast_sender.hpp"
#include "src/peer/message_queue.hpp"

#include <memory>
#include <mutex>

namespace kw {

// Owns the sending thread of one chain: it takes messages from the send
// queue, encodes them and sends them through the chain's mcast_sender. The
// socket and the queue belong to the chain and must outlive this object.
class monitor_sender {
public:
    static std::unique_ptr<monitor_sender> create(mcast_sender& sender, message_queue& send_queue);

    monitor_sender(const monitor_sender&) = delete;
    monitor_sender& operator=(const monitor_sender&) = delete;
    // Stops a running sender first.
    ~monitor_sender();

    // False when already running or when no thread could be made.
    bool start();
    // Every message queued before the stop is sent, in order, before this
    // returns. False when the sender was not running.
    bool stop();
    bool is_running() const;

    bool set_ttl(int ttl) { return m_mcast_sender.set_ttl(ttl); }
    mcast_sender& get_mcast_sender() { return m_mcast_sender; }

    struct private_tag {
        explicit private_tag() = default;
    };
    monitor_sender(private_tag, mcast_sender& sender, message_queue& send_queue);

private:
    static gpointer run_thread(gpointer self);
    void run();
    bool should_end() const;
    void deliver(const peer_message& message);

    mcast_sender& m_mcast_sender;
    message_queue& m_send_queue;
    mutable std::recursive_mutex m_lock; // guards m_running and m_thread
    bool m_running = false;
    g_ptr<GThread> m_thread;
};

} // namespace kw
