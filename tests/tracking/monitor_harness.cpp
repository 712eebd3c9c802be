#include "tests/tracking/monitor_harness.hpp"

#include "src/hostnet/mac_address.hpp"

#include <glib/gstdio.h>

namespace kw::test {

std::string settings_text(const camera_options& options)
{
    return "[Settings]\nTTL=" + std::to_string(options.ttl) + "\nEnabled=" + (options.enabled ? "true" : "false") +
           "\nMulticastGroupIPv4=" + lab_ipv4_group + "\nMulticastGroupIPv6=" + lab_ipv6_group +
           "\nMulticastPort=" + std::to_string(lab_port) + "\nInterface=eth0\nKinwatchGroup=" +
           std::to_string(static_cast<std::int32_t>(options.group)) +
           "\nMaxHosts=" + std::to_string(options.max_hosts) + "\n";
}

camera::camera(camera_options options) : m_options(options)
{
    m_dir.write("kinwatch.conf", settings_text(options));
    g_mkdir_with_parents(m_dir.file("sys/eth0").c_str(), 0755);
    m_dir.write("sys/eth0/address", mac_address::format(options.id) + "\n");
    g_mkdir_with_parents(m_dir.file("packages/kinwatch").c_str(), 0755);
    set_running(options.running);
    m_settings = settings::create(m_dir.file("kinwatch.conf"));
}

void camera::set_running(bool running)
{
    if (running)
        m_dir.write("packages/kinwatch/is_running", "Running\n");
    else
        g_remove(m_dir.file("packages/kinwatch/is_running").c_str());
}

monitor* camera::create(const netns* ns)
{
    std::unique_ptr<netns_enter> inside;
    if (ns)
        inside = std::make_unique<netns_enter>(*ns);
    monitor_environment environment;
    environment.run_state = package(m_dir.file("packages"));
    environment.sysfs_root = m_dir.file("sys");
    environment.clock = m_clock.function();
    m_monitor = monitor::create(*m_settings, std::move(environment));
    return m_monitor.get();
}

void camera::inject(std::unique_ptr<peer_message> message)
{
    m_monitor->get_receive_queue()->push(std::move(message));
}

void camera::inject_announce(node_id id, const char* ipv4, const char* ipv6)
{
    in_addr v4 {};
    in6_addr v6 {};
    inet_pton(AF_INET, ipv4, &v4);
    inet_pton(AF_INET6, ipv6, &v6);
    inject(peer_message::announce_new(id, m_options.group, v4, v6));
}

std::size_t count_sent(const std::string& event_name)
{
    std::size_t count = 0;
    for (const auto& producer : event_library_producers())
        for (const auto& sent : producer.sent)
            if (!sent.topic_path.empty() && sent.topic_path.back() == event_name)
                ++count;
    return count;
}

} // namespace kw::test
