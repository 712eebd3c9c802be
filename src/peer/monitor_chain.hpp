#pragma once

#include "src/peer/mcast_receiver.hpp"
#include "src/peer/mcast_sender.hpp"
#include "src/peer/message_queue.hpp"
#include "src/peer/monitor_receiver.hpp"
#include "src/peer/monitor_sender.hpp"

#include <cstdint>
#include <memory>
#include <string>

namespace kw {

// Everything one address family of one interface needs for the peer
// protocol: a sending socket with its send queue and sending thread, and a
// receiving socket with its receiving thread. Used on the main thread only.
//
// A chain is created stopped, started once, and destroyed after a stop.
class monitor_chain {
public:
    // The receiving socket has joined the group when this returns, so
    // datagrams wait in it until the chain starts. Logs the failure cascade
    // and returns nullptr, having taken apart what it built.
    static std::unique_ptr<monitor_chain> create(const std::string& interface, const std::string& address, int port,
                                                 int ttl, message_queue& receive_queue, std::uint32_t group,
                                                 receive_checks checks = {});

    monitor_chain(const monitor_chain&) = delete;
    monitor_chain& operator=(const monitor_chain&) = delete;
    // Stops the chain, then ends every thread before the queue or socket it uses goes away.
    ~monitor_chain();

    // True when both threads run; true at once when already running.
    bool start();
    // True when both threads have ended, the sending thread having first sent
    // everything queued; true at once when not running.
    bool stop();
    bool is_running() const { return m_running; }

    // The send queue takes the message.
    void send(std::unique_ptr<peer_message> message);
    bool set_ttl(int ttl);
    void set_group(std::uint32_t group);

    struct private_tag {
        explicit private_tag() = default;
    };
    explicit monitor_chain(private_tag) {}

private:
    bool setup_sender(const std::string& interface, const std::string& address, int port, int ttl);
    bool setup_receiver(const std::string& interface, const std::string& address, int port,
                        message_queue& receive_queue, std::uint32_t group, receive_checks checks);

    std::unique_ptr<mcast_sender> m_mcast_sender;
    std::unique_ptr<message_queue> m_send_queue;
    std::unique_ptr<monitor_sender> m_sender;
    std::unique_ptr<mcast_receiver> m_mcast_receiver;
    std::unique_ptr<monitor_receiver> m_receiver;
    bool m_running = false;
};

} // namespace kw
