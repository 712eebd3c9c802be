#pragma once

#include "platform/unique_fd.hpp"
#include "src/peer/message_queue.hpp"

#include <glib.h>

#include <cstddef>
#include <functional>
#include <memory>

namespace kw {

// Wakes the main loop when the receivers queue a message, for a monitor that
// applies what it hears as it comes (--fast-join, --announce-period) rather
// than at its tick. The queue writes an eventfd once per drain however many
// messages come, and the drains between two ticks take at most a budget of
// messages: once it is spent the queue stays quiet and what comes waits for
// the tick, so a flood costs the main thread at most the budget more than it
// costs without the options. Main thread only.
class receive_wake {
public:
    // Applies at most limit messages; returns how many it took.
    using applier = std::function<std::size_t(std::size_t limit)>;

    // nullptr when no eventfd can be made. The queue must outlive the object.
    static std::unique_ptr<receive_wake> create(message_queue& queue, std::size_t budget, applier apply);

    receive_wake(const receive_wake&) = delete;
    receive_wake& operator=(const receive_wake&) = delete;
    // The queue's pushers must have ended: they may write the descriptor.
    ~receive_wake();

    // At the tick: the budget is whole again and the next push wakes.
    void refill();
    // Applies what waits now, within what is left of the budget.
    void drain();

    struct private_tag {
        explicit private_tag() = default;
    };
    receive_wake(private_tag, message_queue& queue, std::size_t budget, applier apply, unique_fd fd);

private:
    static gboolean dispatch_trampoline(gint fd, GIOCondition condition, gpointer self);
    void dispatch();

    message_queue& m_queue;
    const std::size_t m_budget;
    std::size_t m_left;
    applier m_apply;
    unique_fd m_fd;
    guint m_source = 0;
};

} // namespace kw
