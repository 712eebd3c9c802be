#pragma once

// One monitor as a camera of a test lab would run it: its own configuration
// file, package directory and sysfs tree in a temporary directory, a clock
// the test moves by hand, and the namespace its sockets and threads live in.

#include "src/config/settings.hpp"
#include "src/tracking/monitor.hpp"
#include "tests/support/netns.hpp"
#include "tests/support/temp_dir.hpp"

#include <memory>
#include <string>

namespace kw::test {

inline constexpr const char* lab_ipv4_group = "239.255.77.1";
inline constexpr const char* lab_ipv6_group = "ff05::77";
inline constexpr int lab_port = 21844;
inline constexpr std::uint32_t lab_group = 7;

// Clocks that stand still, the wall clock at 2026-11-22 12:00 local time,
// until the test moves them: both together, or the wall clock alone.
class manual_clock {
public:
    manual_clock() : m_now(adopt(g_date_time_new_local(2026, 11, 22, 12, 0, 0.0))) {}
    local_clock function()
    {
        return [this] { return ref(m_now.get()); };
    }
    monotonic_clock monotonic_function()
    {
        return [this] { return m_monotonic_us; };
    }
    void advance_us(GTimeSpan us)
    {
        step_wall_us(us);
        m_monotonic_us += us;
    }
    void step_wall_us(GTimeSpan us) { m_now = adopt(g_date_time_add(m_now.get(), us)); }
    GDateTime* now() const { return m_now.get(); }

private:
    g_ptr<GDateTime> m_now;
    gint64 m_monotonic_us = 7 * G_TIME_SPAN_DAY; // as long after boot as any other reading
};

struct camera_options {
    bool enabled = true;
    bool running = true;
    int ttl = 1;
    int max_hosts = 16;
    std::uint32_t group = lab_group;
    node_id id = 0x020000000001ULL;
};

class camera {
public:
    explicit camera(camera_options options = {});

    // Creates the monitor inside the namespace (if any), so that its chains
    // and their threads live there. Null when the monitor refuses to come up.
    monitor* create(const netns* ns);
    void destroy() { m_monitor.reset(); }

    monitor* engine() { return m_monitor.get(); }
    settings& config() { return *m_settings; }
    manual_clock& clock() { return m_clock; }
    temp_dir& dir() { return m_dir; }
    std::string config_text() const { return m_dir.read("kinwatch.conf").value_or(""); }

    // Pushes a message into the receive queue as a receiver thread would.
    void inject(std::unique_ptr<peer_message> message) { m_monitor->get_receive_queue()->push(std::move(message)); }
    void inject_announce(node_id id, const char* ipv4 = "10.77.0.9", const char* ipv6 = "fd77::9");

private:
    camera_options m_options;
    temp_dir m_dir;
    manual_clock m_clock;
    std::unique_ptr<settings> m_settings;
    std::unique_ptr<monitor> m_monitor;
};

std::string settings_text(const camera_options& options);

} // namespace kw::test
