#include "tools/kinwatchctl/node_watch.hpp"

#include <set>

namespace kw::ctl {

namespace {

std::string line(const char* what, const node_entry& node)
{
    return std::string(what) + " " + node.mac + " " + node.ipv4 + " " + node.ipv6;
}

} // namespace

std::vector<std::string> node_watch::update(const std::vector<node_entry>& known, const std::vector<node_entry>& lost)
{
    std::vector<std::string> lines;
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
                lines.push_back(line("joined", node));
        } else {
            if (it->second.where == state::lost)
                lines.push_back(line("back", node));
            it->second = {state::known, node};
        }
    }

    // A node that leaves the known list is lost to the operator whether the
    // service moved it to its lost list or dropped it altogether (a restart
    // of the service's monitor empties both lists).
    for (auto& [mac, entry] : m_nodes) {
        if (entry.where != state::known || known_now.count(mac))
            continue;
        auto in_lost = lost_now.find(mac);
        if (in_lost != lost_now.end())
            entry.last = *in_lost->second;
        entry.where = state::lost;
        lines.push_back(line("lost", entry.last));
    }

    // Nodes lost before the watch began are remembered, so that their
    // return reads "back" rather than "joined".
    for (const auto& node : lost)
        m_nodes.try_emplace(node.mac, record {state::lost, node});

    m_has_baseline = true;
    return lines;
}

} // namespace kw::ctl
