#include "src/tracking/node_changes.hpp"

namespace kw {

void node_changes::set_listener(listener ready)
{
    m_listener = std::move(ready);
    if (!m_listener)
        m_waiting.clear();
}

void node_changes::record(node_change::kind_t kind, const monitor_message_type& node, bool reported)
{
    ++m_generation;
    if (!m_listener)
        return;
    if (m_waiting.size() >= m_bound)
        m_waiting.pop_front();
    m_waiting.push_back({kind, m_generation, node, reported});
}

void node_changes::notify()
{
    if (m_listener && !m_waiting.empty())
        m_listener();
    if (m_observer && m_observed_generation != m_generation) {
        m_observed_generation = m_generation;
        m_observer();
    }
}

std::vector<node_change> node_changes::take(std::size_t count)
{
    std::vector<node_change> taken;
    while (!m_waiting.empty() && taken.size() < count) {
        taken.push_back(std::move(m_waiting.front()));
        m_waiting.pop_front();
    }
    return taken;
}

} // namespace kw
