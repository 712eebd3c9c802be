#include "src/peer/monitor_sender.hpp"

#include <sys/prctl.h>

namespace kw {

namespace {

constexpr const char* thread_name = "monitor_sender_start_local";

} // namespace

std::unique_ptr<monitor_sender> monitor_sender::create(mcast_sender& sender, message_queue& send_queue)
{
    return std::make_unique<monitor_sender>(private_tag {}, sender, send_queue);
}

monitor_sender::monitor_sender(private_tag, mcast_sender& sender, message_queue& send_queue)
    : m_mcast_sender(sender)
    , m_send_queue(send_queue)
{
}

monitor_sender::~monitor_sender()
{
    stop();
}

bool monitor_sender::start()
{
    // The lock is held while the thread is made, so the thread's first look
    // at m_running waits until its handle is stored.
    std::lock_guard lock(m_lock);
    if (m_running)
        return false;
    m_running = true;
    error_out error;
    m_thread = adopt(g_thread_try_new(thread_name, &monitor_sender::run_thread, this, error.out()));
    if (!m_thread) {
        // Without a thread the sender is not running; a later stop must not join anything.
        m_running = false;
        return false;
    }
    return true;
}

bool monitor_sender::stop()
{
    g_ptr<GThread> thread;
    {
        std::lock_guard lock(m_lock);
        if (!m_running)
            return false;
        m_running = false;
        // The marker wakes the thread if it waits in pop().
        m_send_queue.push(nullptr);
        thread = std::move(m_thread);
    }
    // Joined without the lock, so the draining thread can still read m_running.
    g_thread_join(thread.release());
    return true;
}

bool monitor_sender::is_running() const
{
    std::lock_guard lock(m_lock);
    return m_running;
}

gpointer monitor_sender::run_thread(gpointer self)
{
    static_cast<monitor_sender*>(self)->run();
    return nullptr;
}

// A stopped sender still empties its queue before its thread ends.
bool monitor_sender::should_end() const
{
    return !is_running() && m_send_queue.length() == 0;
}

void monitor_sender::run()
{
    // GLib drops a name longer than the kernel's 15 characters; the kernel cuts it instead.
    prctl(PR_SET_NAME, thread_name);

    while (!should_end()) {
        auto message = m_send_queue.pop();
        if (message)
            deliver(*message);
    }
}

// A message that does not go out is neither retried nor queued again.
void monitor_sender::deliver(const peer_message& message)
{
    auto buffer = message.encode();
    if (!buffer)
        return;
    ssize_t sent = m_mcast_sender.send(buffer->data(), buffer->size());
    if (sent != static_cast<ssize_t>(buffer->size()))
        g_warning("Failed to deliver message, sent %i bytes", static_cast<int>(sent));
}

} // namespace kw
