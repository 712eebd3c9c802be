#pragma once

#include "tools/kinwatchctl/node_entry.hpp"

#include <map>
#include <string>
#include <vector>

namespace kw::ctl {

// Compares successive readings of the two node lists and says which nodes
// joined, were lost or came back. The first reading is the baseline and
// reports nothing: the operator asked what changes from now on.
class node_watch {
public:
    // Lines such as "joined 02:00:00:00:00:02 10.78.0.2 fd78::2", in
    // hardware-address order, joins and returns before losses.
    std::vector<std::string> update(const std::vector<node_entry>& known, const std::vector<node_entry>& lost);

    bool has_baseline() const { return m_has_baseline; }

private:
    enum class state { known, lost };
    struct record {
        state where;
        node_entry last; // the addresses of the latest reading that held the node
    };

    std::map<std::string, record> m_nodes;
    bool m_has_baseline = false;
};

} // namespace kw::ctl
