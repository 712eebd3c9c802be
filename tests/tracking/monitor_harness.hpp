#pragma once

// One lab camera's monitor: its files in a temporary directory, and clocks that
// stand still (the wall clock at 2026-11-22 12:00 local time) until moved.

#include "src/config/settings.hpp"
#include "src/hostnet/mac_address.hpp"
#include "src/tracking/monitor.hpp"
#include "tests/support/netns.hpp"
#include "tests/support/temp_dir.hpp"

#include <arpa/inet.h>

#include <atomic>
#include <optional>

namespace kw::test {

inline constexpr const char* lab_ipv4_group = "239.255.77.1";
inline constexpr const char* lab_ipv6_group = "ff05::77";
inline constexpr int lab_port = 21844;
inline constexpr std::uint32_t lab_group = 7;

struct camera_options {
    bool enabled = true, running = true, fast_join = false;
    int ttl = 1, max_hosts = 16;
    unsigned announce_period = 0;
    std::uint32_t group = lab_group;
    node_id id = 0x020000000001ULL;
    std::string keys = ""; // a key file's text: the camera is keyed
    std::string interfaces = ""; // an -I list: only those interfaces are used
};

// A line of a key file: the digit 64 times.
inline std::string test_key(char digit)
{
    return std::string(64, digit) + "\n";
}

inline std::unique_ptr<peer_message> announce(node_id id, const char* ipv4, const char* ipv6, std::uint32_t group = lab_group)
{
    in_addr v4 {};
    in6_addr v6 {};
    inet_pton(AF_INET, ipv4, &v4), inet_pton(AF_INET6, ipv6, &v6);
    return peer_message::announce_new(id, group, v4, v6);
}

inline std::string settings_text(const camera_options& o)
{
    return "[Settings]\nTTL=" + std::to_string(o.ttl) + "\nEnabled=" + (o.enabled ? "true" : "false") +
           "\nMulticastGroupIPv4=" + lab_ipv4_group + "\nMulticastGroupIPv6=" + lab_ipv6_group + "\nMulticastPort=" +
           std::to_string(lab_port) + "\nInterface=eth0\nKinwatchGroup=" + std::to_string(std::int32_t(o.group)) +
           "\nMaxHosts=" + std::to_string(o.max_hosts) + "\n";
}

class camera {
public:
    explicit camera(camera_options options = {})
        : m_fast_join(options.fast_join), m_period(options.announce_period), m_keys(options.keys)
    {
        std::string error;
        if (!options.interfaces.empty())
            m_interfaces = interface_filter::parse(options.interfaces, error).value();
        forget();
        m_dir.write("kinwatch.conf", settings_text(options));
        g_mkdir_with_parents(m_dir.file("sys/eth0").c_str(), 0755);
        m_dir.write("sys/eth0/address", mac_address::format(options.id) + "\n");
        g_mkdir_with_parents(m_dir.file("packages/kinwatch").c_str(), 0755);
        if (options.running)
            m_dir.write("packages/kinwatch/is_running", "Running\n");
        m_settings = settings::create(m_dir.file("kinwatch.conf"));
    }
    // Made inside the namespace, if any, where its sockets and threads live.
    monitor* create(const netns* ns)
    {
        std::optional<netns_enter> inside;
        if (ns)
            inside.emplace(*ns);
        m_monitor = monitor::create(*m_settings, {package(m_dir.file("packages")), m_dir.file("sys"),
                                                  [this] { return ref(m_wall.get()); }, [this] { return m_monotonic.load(); },
                                                  m_fast_join, m_period, m_auth.get(), m_interfaces});
        return m_monitor.get();
    }
    // As a restarted process: no monitor (its LEAVE sent, Enabled kept), a new group_auth.
    void forget()
    {
        std::string error;
        if (m_monitor && (m_monitor.reset(), true))
            m_settings->set_enabled(true);
        if (!m_keys.empty())
            m_auth = group_auth::create(group_keys::parse(m_keys, "keys", error),
                                        [this] { return g_date_time_to_unix(m_wall.get()) * G_USEC_PER_SEC; },
                                        [this] { return m_monotonic.load(); });
    }
    monitor* engine() { return m_monitor.get(); }
    settings& config() { return *m_settings; }
    temp_dir& dir() { return m_dir; }
    std::string config_text() const { return m_dir.read("kinwatch.conf").value_or(""); }

    void advance_us(GTimeSpan us) { step_wall_us(us), m_monotonic += us; }
    void step_wall_us(GTimeSpan us) { m_wall = adopt(g_date_time_add(m_wall.get(), us)); }

    void inject(std::unique_ptr<peer_message> message) { m_monitor->get_receive_queue()->push(std::move(message)); }
    // An ANNOUNCE of the camera's present group unless another is given.
    void inject_announce(node_id id, const char* ipv4 = "10.77.0.9", const char* ipv6 = "fd77::9",
                         std::optional<std::uint32_t> group = {})
    {
        inject(announce(id, ipv4, ipv6, group.value_or(m_settings->get_group())));
    }

private:
    bool m_fast_join;
    unsigned m_period;
    interface_filter m_interfaces;
    std::string m_keys;
    temp_dir m_dir;
    g_ptr<GDateTime> m_wall = adopt(g_date_time_new_local(2026, 11, 22, 12, 0, 0.0));
    // Read by the receiving threads of a keyed camera too.
    std::atomic<gint64> m_monotonic = 7 * G_TIME_SPAN_DAY; // as long after boot as any real reading
    std::unique_ptr<settings> m_settings;
    std::unique_ptr<group_auth> m_auth;
    std::unique_ptr<monitor> m_monitor;
};

} // namespace kw::test
