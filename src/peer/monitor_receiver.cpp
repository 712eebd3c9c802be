#include "src/peer/monitor_receiver.hpp"

#include <sys/prctl.h>
#include <poll.h>

#include <cerrno>

namespace kw {

namespace {

constexpr const char* thread_name = "monitor_receiver_start_local";

} // namespace

std::unique_ptr<monitor_receiver> monitor_receiver::create(mcast_receiver& receiver, message_queue& receive_queue,
                                                           std::uint32_t group, receive_checks checks)
{
    auto monitor = std::make_unique<monitor_receiver>(private_tag {}, receiver, receive_queue, group, checks);
    if (!monitor->m_stop_pipe.open())
        return nullptr;
    return monitor;
}

monitor_receiver::monitor_receiver(private_tag, mcast_receiver& receiver, message_queue& receive_queue,
                                   std::uint32_t group, receive_checks checks)
    : m_mcast_receiver(receiver)
    , m_receive_queue(receive_queue)
    , m_checks(checks)
    , m_ipv4(receiver.is_ipv4())
    , m_group(group)
{
}

monitor_receiver::~monitor_receiver()
{
    stop();
}

bool monitor_receiver::start()
{
    // The lock is held while the thread is made, so the thread's first look
    // at m_running waits until its handle is stored.
    std::lock_guard lock(m_lock);
    if (m_running || !m_stop_pipe.read_end)
        return false;
    m_running = true;
    error_out error;
    m_thread = adopt(g_thread_try_new(thread_name, &monitor_receiver::run_thread, this, error.out()));
    if (!m_thread) {
        m_running = false;
        return false;
    }
    return true;
}

bool monitor_receiver::stop()
{
    g_ptr<GThread> thread;
    {
        std::lock_guard lock(m_lock);
        if (!m_running)
            return false;
        // Written right after m_running turns false, so the woken thread sees it false.
        m_running = false;
        const char byte = 0;
        while (::write(m_stop_pipe.write_end.get(), &byte, 1) < 0 && errno == EINTR) {
        }
        thread = std::move(m_thread);
    }
    g_thread_join(thread.release());
    // Only after the join: the thread never waits on a closed descriptor.
    m_stop_pipe.close();
    return true;
}

bool monitor_receiver::is_running() const
{
    std::lock_guard lock(m_lock);
    return m_running;
}

void monitor_receiver::set_group(std::uint32_t group)
{
    std::lock_guard lock(m_lock);
    m_group = group;
}

gpointer monitor_receiver::run_thread(gpointer self)
{
    static_cast<monitor_receiver*>(self)->run();
    return nullptr;
}

void monitor_receiver::run()
{
    // GLib drops a name longer than the kernel's 15 characters; the kernel cuts it instead.
    prctl(PR_SET_NAME, thread_name);

    pollfd waits[] = {{m_mcast_receiver.get_fd(), POLLIN, 0}, {m_stop_pipe.read_end.get(), POLLIN, 0}};
    std::uint8_t buffer[buffer_size];
    while (is_running()) {
        // The pipe byte is never read: once woken, the test of m_running ends the loop.
        if (poll(waits, 2, -1) > 0 && (waits[0].revents & POLLIN))
            drain(buffer);
    }
}

// Takes what waits in the socket without blocking, up to a batch, so that a
// flood neither costs a wake-up per datagram nor delays a stop.
void monitor_receiver::drain(std::uint8_t* buffer)
{
    for (int i = 0; i < batch_size; ++i) {
        std::uint32_t group;
        {
            std::lock_guard lock(m_lock);
            if (!m_running)
                return;
            group = m_group;
        }
        // A longer datagram is cut to the buffer's size and then fails to decode.
        sockaddr_storage source {};
        ssize_t received = m_mcast_receiver.receive(buffer, buffer_size, &source);
        if (received == mcast_receiver::none_waiting)
            return;
        handle(buffer, received, group, source);
    }
}

// Datagrams of other groups, looked at before a message is made, and rejected
// datagrams are dropped without a log line; so are those a full queue refuses,
// which the queue counts, and those the group_auth refuses, which it counts.
void monitor_receiver::handle(const std::uint8_t* data, ssize_t length, std::uint32_t group,
                              const sockaddr_storage& source)
{
    peer_statistics* counts = m_checks.statistics;
    if (length == mcast_receiver::other_interface || length < 0) {
        if (counts && length == mcast_receiver::other_interface)
            peer_statistics::add(counts->other_interface);
        return;
    }
    if (counts)
        peer_statistics::add(m_ipv4 ? counts->received_ipv4 : counts->received_ipv6);
    std::optional<std::uint32_t> datagram_group = peer_message::peek_group(data, length);
    if (datagram_group != group) {
        if (counts)
            peer_statistics::add(datagram_group ? counts->other_group : counts->undecodable);
        return;
    }
    group_auth* auth = m_checks.auth;
    auto message = auth ? auth->decode(data, length, source) : peer_message::decode(data, length);
    if (!message) {
        // The group_auth counts its own refusals by reason.
        if (counts && !auth)
            peer_statistics::add(counts->undecodable);
        return;
    }
    switch (message->get_type()) {
    case ANNOUNCE:
    case DISPATCHED:
    case LEAVE:
        m_receive_queue.push(std::move(message));
        return;
    case CHALLENGE:
        break;
    }
    g_warning("Received an unrecognized message");
}

} // namespace kw
