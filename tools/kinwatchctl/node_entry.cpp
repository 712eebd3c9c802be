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

    // The service's order follows its hash table; the fixed-width lower-case
    // hardware-address text sorts the same way as the address itself.
    std::sort(list.begin(), list.end(), [](const node_entry& a, const node_entry& b) {
        return std::tie(a.mac, a.ipv4, a.ipv6) < std::tie(b.mac, b.ipv4, b.ipv6);
    });
    return list;
}

} // namespace kw::ctl
