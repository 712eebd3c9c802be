#include "src/tracking/receive_wake.hpp"

#include <glib-unix.h>
#include <sys/eventfd.h>

namespace kw {

std::unique_ptr<receive_wake> receive_wake::create(message_queue& queue, std::size_t budget, applier apply)
{
    unique_fd fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!fd)
        return nullptr;
    return std::make_unique<receive_wake>(private_tag {}, queue, budget, std::move(apply), std::move(fd));
}

receive_wake::receive_wake(private_tag, message_queue& queue, std::size_t budget, applier apply, unique_fd fd)
    : m_queue(queue)
    , m_budget(budget)
    , m_left(budget)
    , m_apply(std::move(apply))
    , m_fd(std::move(fd))
{
    m_source = g_unix_fd_add(m_fd.get(), G_IO_IN, &receive_wake::dispatch_trampoline, this);
    m_queue.set_wake(m_fd.get());
}

receive_wake::~receive_wake()
{
    m_queue.set_wake(-1);
    if (GSource* source = m_source ? g_main_context_find_source_by_id(nullptr, m_source) : nullptr)
        g_source_destroy(source);
}

void receive_wake::refill()
{
    m_left = m_budget;
    m_queue.rearm();
}

gboolean receive_wake::dispatch_trampoline(gint, GIOCondition, gpointer self)
{
    static_cast<receive_wake*>(self)->dispatch();
    return G_SOURCE_CONTINUE;
}

void receive_wake::dispatch()
{
    eventfd_t count;
    eventfd_read(m_fd.get(), &count);
    // Spent: the queue is not armed again, so no push writes until the tick.
    if (m_left == 0)
        return;
    // Armed before the drain, so a message pushed meanwhile wakes us again.
    m_queue.rearm();
    drain();
}

void receive_wake::drain()
{
    if (m_left > 0)
        m_left -= std::min(m_left, m_apply(m_left));
}

} // namespace kw
