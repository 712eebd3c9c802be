#pragma once

#include "platform/g_ptr.hpp"
#include "src/hostnet/interface_state.hpp"

#include <sys/socket.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

struct ifaddrs;
struct nl_msg;
struct nl_object;
struct rtnl_addr;
struct rtnl_link;

namespace kw {

// Called with the listener's own id, the interface's state and name, and the
// user data given at registration. The state and the name belong to the
// watcher and are valid only during the call.
using link_watcher_callback = void (*)(std::uint32_t listener_id, const interface_state& state, const char* name,
                                       void* user_data);

// IPv4 other than 0.0.0.0 and 169.254.0.0/16, IPv6 other than :: and
// fe80::/10; any other family (or no address) is not usable.
bool address_is_usable(const sockaddr* address);

// Follows the links and addresses of the calling thread's network namespace
// through route netlink, read from the default main context, and tells its
// listeners which interfaces are up and which usable address each has.
// Lives on the thread that runs the default main context.
class link_watcher {
    struct private_tag {
        explicit private_tag() = default;
    };

public:
    // What add_listener returns when it cannot register.
    static constexpr std::uint32_t no_listener = UINT32_MAX;

    // Large enough for a burst of link and address changes. Where the
    // system grants less (an unprivileged process gets at most
    // net.core.rmem_max), an overrun is recovered by resynchronising.
    static constexpr int default_receive_buffer = 1 << 20;

    // Nullptr on failure, having released what it built; logs nothing.
    static std::unique_ptr<link_watcher> create(int receive_buffer = default_receive_buffer);

    explicit link_watcher(private_tag);
    link_watcher(const link_watcher&) = delete;
    link_watcher& operator=(const link_watcher&) = delete;
    ~link_watcher();

    // Registers a listener and, before returning, calls it once for every
    // interface already known. Ids count 1, 2, 3 and so on.
    std::uint32_t add_listener(link_watcher_callback callback, void* user_data);
    // An unknown id is ignored.
    void remove_listener(std::uint32_t id);

private:
    struct link_listener {
        link_watcher_callback callback = nullptr;
        void* user_data = nullptr;
    };
    // The index tells a link from a later one of the same name.
    struct known_link {
        interface_state state;
        int index = 0;
    };
    using link_table = std::map<std::string, known_link>;

    static gboolean on_readable_trampoline(GIOChannel* channel, GIOCondition condition, gpointer self);
    static int on_message_trampoline(nl_msg* message, void* self);
    static void on_object_trampoline(nl_object* object, void* self);

    bool setup(int receive_buffer);
    bool take_snapshot();
    gboolean on_readable();
    int on_message(nl_msg* message);
    void on_object(nl_object* object);
    link_table::iterator on_new_link(rtnl_link* link);
    void take_early_addresses(link_table::iterator entry);
    void forget_renamed(rtnl_link* link);
    void on_removed_link(rtnl_link* link);
    link_table::iterator remove_link(link_table::iterator entry);
    bool refill_links();
    void refresh_addresses(rtnl_addr* address);
    void resynchronise();
    static interface_state snapshot_state(const ifaddrs* list, const std::string& name);
    void refresh(const ifaddrs* list, const std::string& name, interface_state& stored);
    void notify(const interface_state& state, const std::string& name);
    void remove_source();

    g_ptr<nl_sock> m_socket;
    // Joins no group, so a link dump never mixes with notifications.
    g_ptr<nl_sock> m_dump_socket;
    // Index to name, as of the latest dump.
    g_ptr<nl_cache> m_link_cache;
    bool m_cache_provided = false;
    // Held while the listener table changes and for the whole of every
    // notification and replay, so listeners are never called concurrently.
    // Recursive so that a listener may call back into the watcher.
    std::recursive_mutex m_lock; // guards m_listeners and m_last_listener_id
    std::map<std::uint32_t, link_listener> m_listeners;
    std::uint32_t m_last_listener_id = 0;
    g_ptr<GIOChannel> m_channel;
    guint m_watch_id = 0;
    // Main thread only, so it needs no lock.
    link_table m_interfaces;
};

} // namespace kw
