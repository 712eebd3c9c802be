#include "src/peer/message_queue.hpp"

#include <sys/eventfd.h>

namespace kw {

std::unique_ptr<message_queue> message_queue::create(std::size_t capacity)
{
    return std::make_unique<message_queue>(private_tag {}, capacity);
}

bool message_queue::push(std::unique_ptr<peer_message> message)
{
    int wake = -1;
    {
        std::lock_guard lock(m_mutex);
        if (m_items.size() >= m_capacity) {
            ++m_dropped;
            return false;
        }
        m_items.push_back(std::move(message));
        ++m_count;
        m_high_water = std::max(m_high_water, m_items.size());
        m_condition.notify_all();
        if (m_wake_fd >= 0 && !m_wake_sent) {
            m_wake_sent = true;
            wake = m_wake_fd;
        }
    }
    // Outside the lock: a receiver never holds it across a system call.
    if (wake >= 0)
        eventfd_write(wake, 1);
    return true;
}

void message_queue::set_wake(int fd)
{
    std::lock_guard lock(m_mutex);
    m_wake_fd = fd;
    m_wake_sent = false;
}

void message_queue::rearm()
{
    std::lock_guard lock(m_mutex);
    m_wake_sent = false;
}

std::unique_ptr<peer_message> message_queue::pop()
{
    std::unique_lock lock(m_mutex);
    m_condition.wait(lock, [this] { return m_count > 0; });
    return take_head();
}

std::unique_ptr<peer_message> message_queue::try_pop()
{
    std::unique_lock lock(m_mutex, std::try_to_lock);
    if (!lock.owns_lock() || m_count == 0)
        return nullptr;
    return take_head();
}

int message_queue::length() const
{
    std::lock_guard lock(m_mutex);
    return m_count;
}

// The caller holds m_mutex and has seen m_count > 0.
std::unique_ptr<peer_message> message_queue::take_head()
{
    auto head = std::move(m_items.front());
    m_items.pop_front();
    --m_count;
    return head;
}

} // namespace kw
