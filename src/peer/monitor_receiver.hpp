#pragma once

#include "platform/g_ptr.hpp"
#include "platform/unique_fd.hpp"
#include "src/peer/group_auth.hpp"
#include "src/peer/mcast_receiver.hpp"
#include "src/peer/message_queue.hpp"
#include "src/peer/peer_statistics.hpp"

#include <cstdint>
#include <memory>
#include <mutex>

namespace kw {

// Owns the receiving thread of one chain: it waits on the chain's
// mcast_receiver, keeps the datagrams of its sibling group, decodes them and
// pushes the messages onto the engine's receive queue. With a group_auth it
// keeps only the keyed datagrams that pass its checks; with statistics it
// counts what it reads and drops. The socket belongs to the chain, the queue
// and the checks to the engine; all must outlive this object.
class monitor_receiver {
public:
    static constexpr std::size_t buffer_size = 1024;
    // Datagrams read per wake-up at most.
    static constexpr int batch_size = 64;

    // Opens the stop pipe; nullptr when it cannot be made.
    static std::unique_ptr<monitor_receiver> create(mcast_receiver& receiver, message_queue& receive_queue,
                                                    std::uint32_t group, receive_checks checks = {});

    monitor_receiver(const monitor_receiver&) = delete;
    monitor_receiver& operator=(const monitor_receiver&) = delete;
    // Stops a running receiver; the pipe closes with the object.
    ~monitor_receiver();

    // False when already running, when no thread could be made, or after a
    // stop: the pipe that wakes the thread exists only once.
    bool start();
    // Wakes the thread through the pipe, joins it and closes the pipe. False
    // when not running.
    bool stop();
    bool is_running() const;

    // The thread applies the group from the next datagram on.
    void set_group(std::uint32_t group);
    mcast_receiver& get_mcast_receiver() { return m_mcast_receiver; }

    struct private_tag {
        explicit private_tag() = default;
    };
    monitor_receiver(private_tag, mcast_receiver& receiver, message_queue& receive_queue, std::uint32_t group,
                     receive_checks checks);

private:
    static gpointer run_thread(gpointer self);
    void run();
    void drain(std::uint8_t* buffer);
    void handle(const std::uint8_t* data, ssize_t length, std::uint32_t group, const sockaddr_storage& source);

    mcast_receiver& m_mcast_receiver;
    message_queue& m_receive_queue;
    receive_checks m_checks;
    const bool m_ipv4;
    unique_pipe m_stop_pipe;
    mutable std::recursive_mutex m_lock; // guards m_running, m_group and m_thread
    bool m_running = false;
    std::uint32_t m_group;
    g_ptr<GThread> m_thread;
};

} // namespace kw
