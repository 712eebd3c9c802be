#pragma once

#include <glib.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kw::ctl {

// One node of a list the service hands out: hardware address, the two
// address texts, and first and last seen in Unix seconds.
struct node_entry {
    std::string mac;
    std::string ipv4;
    std::string ipv6;
    std::uint64_t first_seen = 0;
    std::uint64_t last_seen = 0;

    bool operator==(const node_entry&) const = default;

    // The entries of a reply of type "(a(ssstt))", sorted by hardware
    // address; empty for any other type.
    static std::vector<node_entry> list_from(GVariant* reply);
    // One node of the monitor interface, a dictionary ("a{sv}": mac, ipv4,
    // ipv6, first_seen, last_seen); a field that is missing stays empty.
    static node_entry from_dictionary(GVariant* node);
    // The entries of an array of such dictionaries, sorted likewise.
    static std::vector<node_entry> list_from_dictionaries(GVariant* nodes);
    static void sort(std::vector<node_entry>& list);
};

} // namespace kw::ctl
