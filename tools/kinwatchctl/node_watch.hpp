#pragma once

#include "tools/kinwatchctl/node_entry.hpp"

#include <map>
#include <string>
#include <vector>

namespace kw::ctl {

// Mirrors the service's two node lists and says what each change means to
// the operator: a node "joined", came "back" from the lost list, was "lost",
// or "left" both lists. Changes come one by one from the service's signals,
// or as a whole new reading after the watch missed some (a gap in the
// generations, a restarted service); the first reading is the baseline and
// reports nothing: the operator asked what changes from now on.
class node_watch {
public:
    struct change {
        std::string what;
        node_entry node;
        bool operator==(const change&) const = default;
    };
    enum class signalled { joined, lost, left };

    // The changes from the last reading to this one, in hardware-address
    // order, joins and returns before losses and departures.
    std::vector<change> update(const std::vector<node_entry>& known, const std::vector<node_entry>& lost);
    // One change the service signalled.
    change apply(signalled kind, const node_entry& node);

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
