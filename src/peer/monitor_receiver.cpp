#include "src/peer/monitor_receiver.hpp"

#include <sys/prctl.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>

namespace kw {

namespace {

constexpr const char* thread_name = "monitor_receiver_start_local";

} // namespace

std::unique_ptr<monitor_receiver> monitor_receiver::create(mcast_receiver& receiver, message_queue& receive_queue,
                                                           std::uint32_t group)
{
    auto monitor = std::make_unique<monitor_receiver>(private_tag {}, receiver, receive_queue, group);
    if (!monitor->m_stop_pipe.open())
        return nullptr;
    return monitor;
}

monitor_receiver::monitor_receiver(private_tag, mcast_receiver& receiver, message_queue& receive_queue,
                                   std::uint32_t group)
    : m_mcast_receiver(receiver)
    , m_receive_queue(receive_queue)
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

std::uint32_t monitor_receiver::group() const
{
    std::lock_guard lock(m_lock);
    return m_group;
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

    const int socket_fd = m_mcast_receiver.get_fd();
    const int pipe_fd = m_stop_pipe.read_end.get();
    std::uint8_t buffer[buffer_size];
    sockaddr_in source;

    while (is_running()) {
        source = {};
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(socket_fd, &readable);
        FD_SET(pipe_fd, &readable);
        // The pipe byte is never read: once woken, the test of m_running ends the loop.
        if (select(std::max(socket_fd, pipe_fd) + 1, &readable, nullptr, nullptr, nullptr) <= 0)
            continue;
        if (!FD_ISSET(socket_fd, &readable))
            continue;
        // A longer datagram is cut to the buffer's size and then fails to decode.
        ssize_t received = m_mcast_receiver.recv(buffer, sizeof buffer, &source);
        if (received == 0)
            continue;
        handle(buffer, received);
    }
}

// Rejected datagrams and those of other groups are dropped without a log line.
void monitor_receiver::handle(const std::uint8_t* data, ssize_t length)
{
    auto message = peer_message::decode(data, length);
    if (!message || message->get_group() != group())
        return;
    switch (message->get_type()) {
    case ANNOUNCE:
    case DISPATCHED:
    case LEAVE:
        m_receive_queue.push(std::move(message));
        return;
    }
    g_warning("Received an unrecognized message");
}

} // namespace kw
