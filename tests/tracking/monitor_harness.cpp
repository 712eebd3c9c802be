#include "tests/tracking/monitor_harness.hpp"

#include "src/hostnet/mac_address.hpp"

#include <arpa/inet.h>

#include <optional>

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
    if (options.running)
        m_dir.write("packages/kinwatch/is_running", "Running\n");
    m_settings = settings::create(m_dir.file("kinwatch.conf"));
}

monitor* camera::create(const netns* ns)
{
    std::optional<netns_enter> inside;
    if (ns)
        inside.emplace(*ns);
    m_monitor = monitor::create(*m_settings, {package(m_dir.file("packages")), m_dir.file("sys"), m_clock.function(),
                                              m_clock.monotonic_function()});
    return m_monitor.get();
}

void camera::inject_announce(node_id id, const char* ipv4, const char* ipv6)
{
    in_addr v4 {};
    in6_addr v6 {};
    inet_pton(AF_INET, ipv4, &v4);
    inet_pton(AF_INET6, ipv6, &v6);
    inject(peer_message::announce_new(id, m_options.group, v4, v6));
}

} // namespace kw::test
