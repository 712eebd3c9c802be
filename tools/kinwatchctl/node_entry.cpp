#include "tools/kinwatchctl/node_entry.hpp"

#include "platform/g_ptr.hpp"

#include <algorithm>
#include <tuple>

namespace kw::ctl {

std::vector<node_entry> node_entry::list_from(GVariant* reply)
{
    std::vector<node_entry> list;
    if (!reply || !g_variant_is_of_type(reply, G_VARIANT_TYPE("(a(ssstt))")))
        return list;

    auto array = adopt(g_variant_get_child_value(reply, 0));
    GVariantIter iter;
    g_variant_iter_init(&iter, array.get());
    const char* mac = nullptr;
    const char* ipv4 = nullptr;
    const char* ipv6 = nullptr;
    guint64 first = 0;
    guint64 last = 0;
    while (g_variant_iter_next(&iter, "(&s&s&stt)", &mac, &ipv4, &ipv6, &first, &last))
        list.push_back({mac, ipv4, ipv6, first, last});

    sort(list);
    return list;
}

node_entry node_entry::from_dictionary(GVariant* node)
{
    node_entry entry;
    GVariantDict dict;
    g_variant_dict_init(&dict, node);
    const char* text = nullptr;
    if (g_variant_dict_lookup(&dict, "mac", "&s", &text))
        entry.mac = text;
    if (g_variant_dict_lookup(&dict, "ipv4", "&s", &text))
        entry.ipv4 = text;
    if (g_variant_dict_lookup(&dict, "ipv6", "&s", &text))
        entry.ipv6 = text;
    g_variant_dict_lookup(&dict, "first_seen", "t", &entry.first_seen);
    g_variant_dict_lookup(&dict, "last_seen", "t", &entry.last_seen);
    g_variant_dict_clear(&dict);
    return entry;
}

std::vector<node_entry> node_entry::list_from_dictionaries(GVariant* nodes)
{
    std::vector<node_entry> list;
    if (!nodes || !g_variant_is_of_type(nodes, G_VARIANT_TYPE("aa{sv}")))
        return list;
    GVariantIter iter;
    g_variant_iter_init(&iter, nodes);
    while (GVariant* node = g_variant_iter_next_value(&iter)) {
        list.push_back(from_dictionary(node));
        g_variant_unref(node);
    }
    sort(list);
    return list;
}

// The service's order follows its hash table; the fixed-width lower-case
// hardware-address text sorts the same way as the address itself.
void node_entry::sort(std::vector<node_entry>& list)
{
    std::sort(list.begin(), list.end(), [](const node_entry& a, const node_entry& b) {
        return std::tie(a.mac, a.ipv4, a.ipv6) < std::tie(b.mac, b.ipv4, b.ipv6);
    });
}

} // namespace kw::ctl
