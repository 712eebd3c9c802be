#include "tools/kinwatchctl/node_watch.hpp"

#include <set>

namespace kw::ctl {

std::vector<node_watch::change> node_watch::update(const std::vector<node_entry>& known,
                                                   const std::vector<node_entry>& lost)
{
    std::vector<change> changes;
    std::set<std::string> known_now;
    std::map<std::string, const node_entry*> lost_now;
    for (const auto& node : known)
        known_now.insert(node.mac);
    for (const auto& node : lost)
        lost_now.emplace(node.mac, &node);

    for (const auto& node : known) {
        auto [it, inserted] = m_nodes.try_emplace(node.mac, record {state::known, node});
        if (inserted) {
            if (m_has_baseline)
                changes.push_back({"joined", node});
        } else {
            if (it->second.where == state::lost)
                changes.push_back({"back", node});
            it->second = {state::known, node};
        }
    }

    // A known node now in the lost list was lost; one in neither list (a
    // LEAVE, a group change, a restarted monitor) has left, and so has a lost
    // node that is gone.
    for (auto it = m_nodes.begin(); it != m_nodes.end();) {
        record& entry = it->second;
        auto in_lost = lost_now.find(it->first);
        if (known_now.count(it->first) || (entry.where == state::lost && in_lost != lost_now.end())) {
            ++it;
        } else if (in_lost != lost_now.end()) {
            entry = {state::lost, *in_lost->second};
            changes.push_back({"lost", entry.last});
            ++it;
        } else {
            changes.push_back({"left", entry.last});
            it = m_nodes.erase(it);
        }
    }

    // Nodes lost before the watch began are remembered, so that their
    // return reads "back" rather than "joined".
    for (const auto& node : lost)
        m_nodes.try_emplace(node.mac, record {state::lost, node});

    m_has_baseline = true;
    return changes;
}

node_watch::change node_watch::apply(signalled kind, const node_entry& node)
{
    auto found = m_nodes.find(node.mac);
    switch (kind) {
    case signalled::joined: {
        bool back = found != m_nodes.end() && found->second.where == state::lost;
        m_nodes[node.mac] = {state::known, node};
        return {back ? "back" : "joined", node};
    }
    case signalled::lost:
        m_nodes[node.mac] = {state::lost, node};
        return {"lost", node};
    case signalled::left:
        if (found != m_nodes.end())
            m_nodes.erase(found);
        return {"left", node};
    }
    return {};
}

} // namespace kw::ctl
