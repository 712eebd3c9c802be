#pragma once

#include "src/config/settings.hpp"
#include "src/frame/package.hpp"
#include "src/hostnet/interface_filter.hpp"
#include "src/hostnet/interface_state.hpp"
#include "src/hostnet/link_watcher.hpp"
#include "src/hostnet/mac_address.hpp"
#include "src/peer/group_auth.hpp"
#include "src/peer/message_queue.hpp"
#include "src/peer/monitor_interface.hpp"
#include "src/peer/peer_statistics.hpp"
#include "src/peer/peer_message.hpp"
#include "src/surfaces/sibling_events.hpp"
#include "src/tracking/local_clock.hpp"
#include "src/tracking/monitor_table.hpp"
#include "src/tracking/node_changes.hpp"
#include "src/tracking/receive_wake.hpp"

#include <glib.h>
#include <netinet/in.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace kw {

// What the engine takes from its host beyond the settings record. The service
// uses the defaults; tests point them at a temporary package directory, a
// fake sysfs tree and clocks of their own.
struct monitor_environment {
    package run_state {};
    std::string sysfs_root = mac_address::default_sysfs_root;
    local_clock clock = system_local_now;
    monotonic_clock monotonic = system_monotonic_now;
    // Apply what teaches something new as it comes, and answer with an
    // ANNOUNCE at once when a node is learnt, when an interface gets its first
    // running chain after the start, and when a DISPATCHED declares this node
    // lost; at most one answer in any answer_spacing_us.
    bool fast_join = false;
    // Seconds between ANNOUNCEs (-p), and each sibling judged silent after a
    // limit learnt from its own period; 0: the original 55 s and 60 s.
    unsigned announce_period = 0;
    // The authenticated group's keys and state (the -k option), or none: then
    // every datagram is plain, as without the option. Outlives the monitor.
    group_auth* auth = nullptr;
    // The interfaces it may use (the -I option); an interface it may not use
    // gets no monitor_interface, so it sends and hears nothing and its
    // addresses are announced nowhere.
    interface_filter interfaces;
};

// An interface the running monitor uses, with the addresses its ANNOUNCE
// carries there; an empty text for a family without a usable address.
struct interface_in_use {
    std::string name;
    std::string ipv4;
    std::string ipv6;
};

// The engine. While it runs it owns the node tables, one monitor_interface
// per usable interface, the receive queue, the sibling events and the link
// watcher; it announces itself, learns and loses siblings on its timers, and
// applies the settings changes that arrive over the bus. Main thread only:
// the receive queue is the one thing it shares with the network threads.
class monitor {
public:
    using node_list = std::vector<monitor_message_type>;

    static constexpr guint process_period_seconds = 5;
    static constexpr guint announce_period_seconds = 55;
    // Silent means: more than this many microseconds of the monotonic clock
    // since last heard. A step of the wall clock changes nothing.
    static constexpr GTimeSpan silence_limit_us = 59'999'999;
    // With --announce-period, silent siblings are looked for this often.
    static constexpr guint expiry_period_ms = 250;
    // Fast join: answers are at least this far apart, and from any ANNOUNCE.
    static constexpr GTimeSpan answer_spacing_us = 500'000;
    // Changes kept for a listener that has not taken them: four per host
    // (both tables cleared twice over), never fewer than this.
    static constexpr std::size_t node_changes_floor = 1024;

    // The node id comes from the hardware address of the configured
    // interface; an unreadable address ends the process. Starts at once when
    // Enabled is set and the package runs; nullptr when that start fails.
    static std::unique_ptr<monitor> create(settings& config, monitor_environment environment = {});

    monitor(const monitor&) = delete;
    monitor& operator=(const monitor&) = delete;
    // When Enabled is set: stops, stores Enabled false and writes the file.
    ~monitor();

    // True when running afterwards; false (and stopped) when the stored TTL
    // is refused or the configuration file cannot be written.
    bool start();
    // Sends LEAVE first, then takes everything down. No event is raised.
    void stop();
    bool is_running() const { return m_running; }

    // Listener of the link watcher.
    static void on_interface_changed(std::uint32_t listener_id, const interface_state& state, const char* name,
                                     void* self);

    // Hands every interface its own copy, if running; the message is freed.
    void broadcast(std::unique_ptr<peer_message> message);
    // With a nonce: the answer to a challenge (see group_auth).
    void send_announce(std::uint64_t nonce = 0);
    void send_leave();

    // The 5-second and 55-second timer bodies; both keep their timer.
    bool process_tick();
    bool announce_tick();
    // Sends the challenges and answers the receiving threads asked for; the
    // main loop calls it as soon as group_auth wakes it.
    void send_challenges();
    // With --announce-period: applies what waits and expires silent siblings.
    bool expiry_tick();

    // Settings operations used by the bus and the package observer. Every
    // successful change is written to the configuration file at once.
    bool get_enabled() const;
    bool set_enabled(bool enabled);
    bool get_ttl(unsigned& ttl) const;
    bool set_ttl(unsigned ttl);
    bool get_group(std::uint32_t& group) const;
    bool set_group(std::uint32_t group);
    bool get_ipv4_group(std::string& text) const;
    bool set_ipv4_group(const std::string& text);
    bool get_ipv6_group(std::string& text) const;
    bool set_ipv6_group(const std::string& text);
    // Copies of the records, in no defined order; empty while stopped.
    node_list get_known_nodes() const;
    node_list get_lost_nodes() const;

    // The changes of the node tables, numbered, for a listener (the bus).
    node_changes& changes() { return m_changes; }
    // The counters since creation, by name, in a fixed order.
    using statistics_list = std::vector<std::pair<const char*, std::uint64_t>>;
    statistics_list get_statistics() const;
    std::int32_t get_max_hosts() const { return m_settings.get_max_hosts(); }
    // Whether the group is authenticated with keys.
    bool is_keyed() const { return m_environment.auth != nullptr; }

    // IPv4: a dotted address in 224.0.0.0/4; IPv6: an address whose first
    // byte is 0xff; any other family: false.
    static bool is_multicast_group(int family, const std::string& text);

    node_id get_own_node_id() const { return m_own_node_id; }
    // Present only while running.
    message_queue* get_receive_queue() { return m_receive_queue.get(); }
    monitor_table* get_known_nodes_table() { return m_known_nodes.get(); }
    monitor_table* get_lost_nodes_table() { return m_lost_nodes.get(); }
    std::size_t get_interface_count() const { return m_interfaces.size(); }
    bool is_reporter() const { return m_reporter; }
    // Sorted by name; empty while stopped.
    std::vector<interface_in_use> get_interfaces() const;

    // Told on the main thread after every start and stop, every change of
    // the interfaces in use and every processing that changed the node
    // tables; a listener compares what it shows itself. One per owner, which
    // removes it before it goes.
    void add_state_listener(const void* owner, std::function<void()> listener);
    void remove_state_listener(const void* owner);

    struct private_tag {
        explicit private_tag() = default;
    };
    monitor(private_tag, settings& config, monitor_environment environment, node_id own_node_id);

private:
    static gboolean process_tick_trampoline(gpointer self);
    static gboolean announce_tick_trampoline(gpointer self);
    static gboolean challenges_trampoline(gint fd, GIOCondition condition, gpointer self);
    static gboolean expiry_tick_trampoline(gpointer self);
    static gboolean answer_trampoline(gpointer self);

    void interface_changed(const interface_state& state, const std::string& name);
    bool add_interface(const std::string& name);
    void create_tables();
    void remove_timers();
    bool applies(const peer_message& message);
    void note_high_water();
    void count_sent(peer_message_type type, int datagrams);
    // Every node of both tables has left them, before they are dropped.
    void record_all_left();
    void drop_queued();
    // Messages are applied in the order they came, at most limit of them. With
    // defer, a refresh (an ANNOUNCE of a known node) waits for the tick.
    enum class refreshes { apply, defer };
    std::size_t apply_queued(std::size_t limit, refreshes what);
    std::size_t apply_deferred();
    std::size_t apply_woken(std::size_t limit);
    void apply(std::unique_ptr<peer_message> message);
    void send_leave_and_announce();
    void announced();
    void process_announce(const peer_message& message);
    void process_dispatched(const peer_message& message);
    void process_leave(const peer_message& message);
    void expire_silent_nodes();
    bool set_multicast_group(int family, const std::string& text);
    void ask_answer() { m_answer_due = m_answer_due || m_environment.fast_join; }
    void answer_if_due();
    static node_list copy_nodes(monitor_table* table);
    void tell_state_listeners();

    std::unique_ptr<monitor_table> m_known_nodes;
    std::unique_ptr<monitor_table> m_lost_nodes;
    std::unordered_map<std::string, std::unique_ptr<monitor_interface>> m_interfaces;
    std::unique_ptr<message_queue> m_receive_queue;
    std::unique_ptr<sibling_events> m_events;
    std::unique_ptr<link_watcher> m_link_watcher;
    std::uint32_t m_watcher_listener_id = link_watcher::no_listener;
    bool m_reporter = false;
    guint m_announce_timer_id = 0;
    guint m_process_timer_id = 0;
    guint m_challenge_watch_id = 0;
    settings& m_settings;
    monitor_environment m_environment;
    node_id m_own_node_id;
    bool m_running = false;
    // Fast join: names of the interfaces with a running chain, an answer
    // asked for and the timer of one that waits (answer_if_due).
    std::unordered_set<std::string> m_chained;
    bool m_answer_due = false;
    guint m_answer_timer_id = 0;
    // With --announce-period, the timer of expiry_tick().
    guint m_expiry_timer_id = 0;
    // Monotonic times of the last ANNOUNCE sent and of the last node learnt
    // or DISPATCHED heard (the news that siblings may answer).
    static constexpr gint64 long_ago = std::numeric_limits<gint64>::min() / 2;
    gint64 m_last_announce_us = long_ago;
    gint64 m_last_news_us = long_ago;
    // With fast join or --announce-period: messages are applied as they come.
    std::unique_ptr<receive_wake> m_wake;
    // With fast join alone: refreshes that wait for the tick, in order.
    std::deque<std::unique_ptr<peer_message>> m_deferred;
    peer_statistics m_statistics;
    node_changes m_changes {node_changes_floor};
    std::vector<std::pair<const void*, std::function<void()>>> m_state_listeners;
};

} // namespace kw
