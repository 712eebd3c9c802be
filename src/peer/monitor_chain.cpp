#include "src/peer/monitor_chain.hpp"

namespace kw {

std::unique_ptr<monitor_chain> monitor_chain::create(const std::string& interface, const std::string& address,
                                                     int port, int ttl, message_queue& receive_queue,
                                                     std::uint32_t group, receive_checks checks)
{
    auto chain = std::make_unique<monitor_chain>(private_tag {});
    if (!chain->setup_sender(interface, address, port, ttl)) {
        g_warning("monitor_chain: failed to setup sender");
        g_warning("monitor_chain: failed to create");
        return nullptr;
    }
    if (!chain->setup_receiver(interface, address, port, receive_queue, group, checks)) {
        g_warning("monitor_chain: failed to setup receiver");
        g_warning("monitor_chain: failed to create");
        return nullptr;
    }
    return chain;
}

// On failure releases what it made; the caller logs the rest of the cascade.
bool monitor_chain::setup_sender(const std::string& interface, const std::string& address, int port, int ttl)
{
    auto socket = mcast_sender::create(interface, address, port, ttl);
    if (!socket) {
        g_warning("monitor_chain: failed to create mcast_sender");
        return false;
    }
    auto queue = message_queue::create();
    if (!queue)
        return false;
    auto sender = monitor_sender::create(*socket, *queue);
    if (!sender) {
        g_warning("monitor_chain: failed to create monitor_sender");
        return false;
    }
    m_mcast_sender = std::move(socket);
    m_send_queue = std::move(queue);
    m_sender = std::move(sender);
    return true;
}

bool monitor_chain::setup_receiver(const std::string& interface, const std::string& address, int port,
                                   message_queue& receive_queue, std::uint32_t group, receive_checks checks)
{
    auto socket = mcast_receiver::create(interface, address, port);
    if (!socket) {
        g_warning("monitor_chain: failed to create mcast_receiver");
        return false;
    }
    auto receiver = monitor_receiver::create(*socket, receive_queue, group, checks);
    if (!receiver) {
        g_warning("monitor_chain: failed to create monitor_receiver");
        return false;
    }
    m_mcast_receiver = std::move(socket);
    m_receiver = std::move(receiver);
    return true;
}

monitor_chain::~monitor_chain()
{
    stop();

    // Each thread ends before the queue or socket that it uses goes away.
    // A sender may run in a chain marked stopped (its receiver failed to
    // start), so it is stopped here in any case.
    if (m_sender) {
        m_sender->stop();
        m_sender.reset();
    }
    m_mcast_sender.reset();

    if (m_send_queue) {
        // Nothing pops any more, so the length cannot shrink under us.
        while (m_send_queue->length() > 0)
            m_send_queue->pop();
        m_send_queue.reset();
    }

    if (m_receiver) {
        m_receiver->stop();
        m_receiver.reset();
    }
    // Leaves the group and closes the socket.
    m_mcast_receiver.reset();
}

bool monitor_chain::start()
{
    if (m_running)
        return true;
    if (!m_sender->start()) {
        g_warning("monitor_chain: failed to start sender");
        return false;
    }
    // A receiver failure leaves the sending thread running and the chain
    // marked stopped; the destructor stops that thread.
    if (!m_receiver->start()) {
        g_warning("monitor_chain: failed to start receiver");
        return false;
    }
    m_running = true;
    return true;
}

bool monitor_chain::stop()
{
    if (!m_running)
        return true;
    if (!m_sender->stop())
        return false;
    if (!m_receiver->stop()) {
        g_warning("monitor_chain: failed to stop receiver");
        return false;
    }
    m_running = false;
    return true;
}

void monitor_chain::send(std::unique_ptr<peer_message> message)
{
    m_send_queue->push(std::move(message));
}

bool monitor_chain::set_ttl(int ttl)
{
    return m_sender->set_ttl(ttl);
}

void monitor_chain::set_group(std::uint32_t group)
{
    m_receiver->set_group(group);
}

} // namespace kw
