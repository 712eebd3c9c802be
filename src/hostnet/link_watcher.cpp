#include "src/hostnet/link_watcher.hpp"

#include <ifaddrs.h>
#include <net/if.h>
#include <netlink/cache.h>
#include <netlink/errno.h>
#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/object.h>
#include <netlink/route/addr.h>
#include <netlink/route/link.h>
#include <netlink/socket.h>

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>

namespace kw {

namespace {

constexpr unsigned wanted_link_flags = IFF_UP | IFF_RUNNING | IFF_MULTICAST;

// Records the address in the state when it is usable; a later usable address
// of the same family replaces an earlier one.
void store_if_usable(interface_state& state, const sockaddr* address)
{
    if (!address_is_usable(address))
        return;
    if (address->sa_family == AF_INET) {
        state.ipv4_enabled = TRUE;
        state.ipv4_address = reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    } else {
        state.ipv6_enabled = TRUE;
        state.ipv6_address = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    }
}

// The host's addresses now; null when they cannot be read.
g_ptr<ifaddrs> read_addresses()
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
        return nullptr;
    return adopt(list);
}

} // namespace

bool address_is_usable(const sockaddr* address)
{
    if (!address)
        return false;
    if (address->sa_family == AF_INET) {
        in_addr raw = reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(&raw);
        bool unspecified = raw.s_addr == 0;
        bool link_local = bytes[0] == 169 && bytes[1] == 254;
        return !unspecified && !link_local;
    }
    if (address->sa_family == AF_INET6) {
        const in6_addr& raw = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
        bool unspecified = IN6_IS_ADDR_UNSPECIFIED(&raw);
        bool link_local = raw.s6_addr[0] == 0xfe && (raw.s6_addr[1] & 0xc0) == 0x80;
        return !unspecified && !link_local;
    }
    return false;
}

link_watcher::link_watcher(private_tag) {}

std::unique_ptr<link_watcher> link_watcher::create(int receive_buffer)
{
    auto watcher = std::make_unique<link_watcher>(private_tag {});
    if (!watcher->setup(receive_buffer))
        return nullptr;
    return watcher;
}

bool link_watcher::setup(int receive_buffer)
{
    m_socket = adopt(nl_socket_alloc());
    if (!m_socket)
        return false;
    // Notifications answer no request of ours, so their sequence numbers never match.
    nl_socket_disable_seq_check(m_socket.get());
    if (nl_socket_modify_cb(m_socket.get(), NL_CB_VALID, NL_CB_CUSTOM, &link_watcher::on_message_trampoline, this) <
        0)
        return false;
    if (nl_connect(m_socket.get(), NETLINK_ROUTE) < 0)
        return false;
    // Beyond the system's limit only a privileged process may go; the limit
    // then applies.
    int fd = nl_socket_get_fd(m_socket.get());
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof receive_buffer) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);

    m_dump_socket = adopt(nl_socket_alloc());
    if (!m_dump_socket || nl_connect(m_dump_socket.get(), NETLINK_ROUTE) < 0)
        return false;
    nl_cache* cache = nullptr;
    if (rtnl_link_alloc_cache(m_dump_socket.get(), AF_UNSPEC, &cache) < 0)
        return false;
    m_link_cache = adopt(cache);

    if (!take_snapshot())
        return false;

    // Changes between the snapshot and these joins are not seen.
    for (int group : {RTNLGRP_LINK, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR}) {
        if (nl_socket_add_membership(m_socket.get(), group) < 0)
            return false;
    }

    // Lets the parsers of address messages find link names in our cache.
    nl_cache_mngt_provide(m_link_cache.get());
    m_cache_provided = true;

    if (fd < 0)
        return false;
    m_channel = adopt(g_io_channel_unix_new(fd));
    // The netlink socket owns the descriptor and closes it when it is freed.
    g_io_channel_set_close_on_unref(m_channel.get(), FALSE);
    m_watch_id = g_io_add_watch(m_channel.get(), G_IO_IN, &link_watcher::on_readable_trampoline, this);
    return m_watch_id != 0;
}

bool link_watcher::take_snapshot()
{
    g_ptr<ifaddrs> list = read_addresses();
    if (!list)
        return false;

    // A link without an address yet (IPv6 off, DHCP still to answer) is
    // followed too, as one a new-link message enters: not up until its
    // first address message.
    for (const ifaddrs* entry = list.get(); entry; entry = entry->ifa_next) {
        if ((entry->ifa_flags & wanted_link_flags) != wanted_link_flags)
            continue;
        known_link& known = m_interfaces[entry->ifa_name];
        known.index = rtnl_link_name2i(m_link_cache.get(), entry->ifa_name);
        const int family = entry->ifa_addr ? entry->ifa_addr->sa_family : AF_UNSPEC;
        if (family == AF_INET || family == AF_INET6) {
            known.state.up = TRUE;
            store_if_usable(known.state, entry->ifa_addr);
        }
    }
    return true;
}

link_watcher::~link_watcher()
{
    {
        std::lock_guard lock(m_lock);
        m_listeners.clear();
    }
    remove_source();
    m_channel.reset();
    // Providing put the cache in the library's global table, which holds a
    // reference until it is taken back: do that first, so the cache is really
    // freed and no pointer to it stays behind in the library. When a later
    // watcher has provided its own cache meanwhile, the library replaced ours
    // without releasing the reference it took, so that one is released here.
    if (m_cache_provided) {
        nl_cache* current = nl_cache_mngt_require_safe("route/link");
        if (current == m_link_cache.get())
            nl_cache_mngt_unprovide(m_link_cache.get());
        else
            nl_cache_put(m_link_cache.get());
        if (current)
            nl_cache_put(current);
    }
    m_link_cache.reset();
    m_dump_socket.reset();
    // Closes the descriptor, which also ends the group memberships.
    m_socket.reset();
    m_interfaces.clear();
}

void link_watcher::remove_source()
{
    if (m_watch_id == 0)
        return;
    GMainContext* context = g_main_context_get_thread_default();
    if (!context)
        context = g_main_context_default();
    GSource* source = g_main_context_find_source_by_id(context, m_watch_id);
    // The watch was attached to the global default context, so look there
    // too when another context is the thread's default at this moment.
    if (!source && context != g_main_context_default())
        source = g_main_context_find_source_by_id(g_main_context_default(), m_watch_id);
    if (source)
        g_source_destroy(source);
    m_watch_id = 0;
}

gboolean link_watcher::on_readable_trampoline(GIOChannel*, GIOCondition, gpointer self)
{
    return static_cast<link_watcher*>(self)->on_readable();
}

int link_watcher::on_message_trampoline(nl_msg* message, void* self)
{
    return static_cast<link_watcher*>(self)->on_message(message);
}

void link_watcher::on_object_trampoline(nl_object* object, void* self)
{
    static_cast<link_watcher*>(self)->on_object(object);
}

gboolean link_watcher::on_readable()
{
    // The kernel's ENOBUFS, which the library reports as NLE_NOMEM, means
    // notifications were lost; any other failed receive is not fatal, the
    // next notification arrives on the same socket.
    if (nl_recvmsgs_default(m_socket.get()) == -NLE_NOMEM) {
        g_warning("Netlink receive buffer overrun, resynchronising");
        resynchronise();
    }
    return TRUE;
}

int link_watcher::on_message(nl_msg* message)
{
    if (nl_msg_parse(message, &link_watcher::on_object_trampoline, this) < 0)
        g_warning("Received unparsable data on the netlink socket");
    // Only the first valid message of each datagram is handled.
    return NL_STOP;
}

void link_watcher::on_object(nl_object* object)
{
    switch (nl_object_get_msgtype(object)) {
    case RTM_NEWLINK:
        forget_renamed(reinterpret_cast<rtnl_link*>(object));
        if (auto entry = on_new_link(reinterpret_cast<rtnl_link*>(object)); entry != m_interfaces.end())
            take_early_addresses(entry);
        break;
    case RTM_DELLINK:
        on_removed_link(reinterpret_cast<rtnl_link*>(object));
        break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
        refresh_addresses(reinterpret_cast<rtnl_addr*>(object));
        break;
    default:
        break;
    }
}

// The entry of a link it entered, or the table's end.
link_watcher::link_table::iterator link_watcher::on_new_link(rtnl_link* link)
{
    // A link that goes down is not reported here; it stays as it was.
    if ((rtnl_link_get_flags(link) & wanted_link_flags) != wanted_link_flags)
        return m_interfaces.end();
    const char* name = rtnl_link_get_name(link);
    int index = rtnl_link_get_ifindex(link);
    auto entry = name ? m_interfaces.find(name) : m_interfaces.end();
    if (!name || (entry != m_interfaces.end() && entry->second.index == index))
        return m_interfaces.end();
    // Another index under a known name: the earlier link went away unseen
    // (or a message about it came late), so it is removed first.
    if (entry != m_interfaces.end())
        remove_link(entry);
    // Reported as not up until its first address message.
    entry = m_interfaces.emplace(name, known_link {{}, index}).first;
    notify(entry->second.state, entry->first);
    return entry;
}

// Addresses given while the link was down (a static IPv4 address with IPv6
// off) bring no message once it is up: a snapshot tells them now.
void link_watcher::take_early_addresses(link_table::iterator entry)
{
    g_ptr<ifaddrs> list = read_addresses();
    if (!list)
        return;
    interface_state fresh = snapshot_state(list.get(), entry->first);
    if (fresh.ipv4_enabled || fresh.ipv6_enabled) {
        entry->second.state = fresh;
        notify(fresh, entry->first);
    }
}

// A renamed link keeps its index: its entry under the old name is reported
// removed, whatever the link's flags, and the link is entered again under the
// new name once it is up, so listeners follow the name.
void link_watcher::forget_renamed(rtnl_link* link)
{
    const char* name = rtnl_link_get_name(link);
    int index = rtnl_link_get_ifindex(link);
    auto old = std::ranges::find_if(
        m_interfaces, [&](const auto& entry) { return name && entry.second.index == index && entry.first != name; });
    if (old != m_interfaces.end())
        remove_link(old);
}

void link_watcher::on_removed_link(rtnl_link* link)
{
    const char* name = rtnl_link_get_name(link);
    auto entry = name ? m_interfaces.find(name) : m_interfaces.end();
    // A late delete of an earlier link of that name leaves the present one alone.
    if (entry != m_interfaces.end() && entry->second.index == rtnl_link_get_ifindex(link))
        remove_link(entry);
}

link_watcher::link_table::iterator link_watcher::remove_link(link_table::iterator entry)
{
    // The addresses stay as last reported, so a listener still knows what it had.
    interface_state& state = entry->second.state;
    state.up = FALSE;
    state.ipv4_enabled = FALSE;
    state.ipv6_enabled = FALSE;
    notify(state, entry->first);
    return m_interfaces.erase(entry);
}

// A failed dump may leave the cache empty; the next unknown index asks again.
bool link_watcher::refill_links()
{
    return nl_cache_refill(m_dump_socket.get(), m_link_cache.get()) >= 0;
}

void link_watcher::refresh_addresses(rtnl_addr* address)
{
    // A link made after the latest dump is not in the cache yet.
    int index = rtnl_addr_get_ifindex(address);
    char name[IFNAMSIZ] = {};
    if (!rtnl_link_i2name(m_link_cache.get(), index, name, sizeof name) &&
        !(refill_links() && rtnl_link_i2name(m_link_cache.get(), index, name, sizeof name)))
        return;
    auto entry = m_interfaces.find(name);
    if (entry == m_interfaces.end())
        return;

    // The message says which address changed, but a fresh snapshot decides
    // which addresses the interface has now.
    if (g_ptr<ifaddrs> list = read_addresses())
        refresh(list.get(), entry->first, entry->second.state);
}

// Lost notifications may have removed, made or changed any link. A fresh
// dump tells which links there are (a known name under another index is a
// link deleted and made again), then the snapshot tells their addresses.
void link_watcher::resynchronise()
{
    if (refill_links()) {
        for (auto entry = m_interfaces.begin(); entry != m_interfaces.end();) {
            if (rtnl_link_name2i(m_link_cache.get(), entry->first.c_str()) != entry->second.index)
                entry = remove_link(entry);
            else
                ++entry;
        }
        for (nl_object* link = nl_cache_get_first(m_link_cache.get()); link; link = nl_cache_get_next(link))
            on_new_link(reinterpret_cast<rtnl_link*>(link));
    }
    g_ptr<ifaddrs> list = read_addresses();
    if (!list)
        return;
    for (auto& [name, known] : m_interfaces)
        refresh(list.get(), name, known.state);
}

// The state the snapshot gives the interface: up, with its usable addresses.
interface_state link_watcher::snapshot_state(const ifaddrs* list, const std::string& name)
{
    interface_state fresh;
    fresh.up = TRUE;
    for (const ifaddrs* item = list; item; item = item->ifa_next) {
        if (item->ifa_name && name == item->ifa_name)
            store_if_usable(fresh, item->ifa_addr);
    }
    return fresh;
}

// Reports the interface when the snapshot gives it another state.
void link_watcher::refresh(const ifaddrs* list, const std::string& name, interface_state& stored)
{
    interface_state fresh = snapshot_state(list, name);
    if (fresh == stored)
        return;
    stored = fresh;
    notify(stored, name);
}

// Listeners are called in id order and the replay goes in name order, the
// orders of the two tables; nothing depends on either.
void link_watcher::notify(const interface_state& state, const std::string& name)
{
    std::lock_guard lock(m_lock);
    for (const auto& [id, listener] : m_listeners)
        listener.callback(id, state, name.c_str(), listener.user_data);
}

std::uint32_t link_watcher::add_listener(link_watcher_callback callback, void* user_data)
{
    std::uint32_t id = 0;
    {
        std::lock_guard lock(m_lock);
        // An allocation failure ends the process here as everywhere else, so
        // running out of ids is the one way to fail. Ids are never reused.
        if (m_last_listener_id == no_listener - 1)
            return no_listener;
        id = ++m_last_listener_id;
        m_listeners.emplace(id, link_listener {callback, user_data});
    }

    std::lock_guard lock(m_lock);
    auto found = m_listeners.find(id);
    if (found != m_listeners.end()) {
        link_listener listener = found->second;
        for (const auto& [name, known] : m_interfaces)
            listener.callback(id, known.state, name.c_str(), listener.user_data);
    }
    return id;
}

void link_watcher::remove_listener(std::uint32_t id)
{
    std::lock_guard lock(m_lock);
    m_listeners.erase(id);
}

} // namespace kw
