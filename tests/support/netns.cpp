#include "tests/support/netns.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace kw::test {

namespace {

std::atomic<int> next_namespace {0};

std::string quote(const std::string& text)
{
    std::string out = "'";
    for (char c : text) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

} // namespace

bool is_root()
{
    return geteuid() == 0;
}

int run(const std::string& command, std::string* output)
{
    std::string full = command + " 2>&1";
    std::FILE* pipe = ::popen(full.c_str(), "r");
    if (!pipe)
        return -1;
    std::string text;
    std::array<char, 512> buffer {};
    while (std::fgets(buffer.data(), static_cast<int>(buffer.size()), pipe))
        text += buffer.data();
    int status = ::pclose(pipe);
    if (output)
        *output = text;
    if (status == -1 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

bool must(const std::string& command)
{
    std::string output;
    int status = run(command, &output);
    if (status != 0) {
        ADD_FAILURE() << "command failed (" << status << "): " << command << "\n" << output;
        return false;
    }
    return true;
}

netns::netns(const std::string& label)
{
    m_name = "kwt" + std::to_string(getpid()) + "-" + std::to_string(next_namespace++) + "-" + label;
    if (!must("ip netns add " + m_name))
        return;
    m_ok = must_exec("sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0 && "
                     "ip link set lo up");
}

netns::~netns()
{
    run("ip netns del " + m_name);
}

int netns::exec(const std::string& command, std::string* output) const
{
    return run("ip netns exec " + m_name + " sh -c " + quote(command), output);
}

bool netns::must_exec(const std::string& command) const
{
    return must("ip netns exec " + m_name + " sh -c " + quote(command));
}

netns_enter::netns_enter(const netns& ns)
{
    m_saved = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    int target = ::open(("/run/netns/" + ns.name()).c_str(), O_RDONLY | O_CLOEXEC);
    if (m_saved >= 0 && target >= 0 && ::setns(target, CLONE_NEWNET) == 0)
        m_ok = true;
    else
        ADD_FAILURE() << "cannot enter network namespace " << ns.name();
    if (target >= 0)
        ::close(target);
}

netns_enter::~netns_enter()
{
    if (m_ok && ::setns(m_saved, CLONE_NEWNET) != 0)
        std::abort(); // a test thread left in a private namespace would spoil every later test
    if (m_saved >= 0)
        ::close(m_saved);
}

bool netns::wait_until_up(const std::string& interface) const
{
    // The kernel activates a link's transmit queue some time after it is set
    // up (later still on a busy machine); until then datagrams are dropped
    // while sendto() reports success. The operational state turns UP at the
    // same moment.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (exec("ip -o link show dev " + interface + " | grep -q 'state UP'") != 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << interface << " in " << m_name << " did not come up";
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

netns_lab::netns_lab(int hosts)
{
    m_bridge = std::make_unique<netns>("br");
    if (!m_bridge->ok())
        return;
    if (!m_bridge->must_exec("ip link add br0 type bridge mcast_snooping 0 && ip link set br0 up"))
        return;

    for (int i = 1; i <= hosts; ++i) {
        lab_host host;
        host.ns = std::make_unique<netns>("h" + std::to_string(i));
        if (!host.ns->ok())
            return;
        char mac[32];
        std::snprintf(mac, sizeof mac, "02:00:00:00:00:%02x", i);
        host.mac = mac;
        host.ipv4 = "10.77.0." + std::to_string(i);
        host.ipv6 = "fd77::" + std::to_string(i);

        // Both ends are made in the bridge namespace, then the host end moves.
        std::string peer = "vb" + std::to_string(i);
        std::string temp = "vh" + std::to_string(i);
        if (!m_bridge->must_exec("ip link add " + temp + " type veth peer name " + peer + " && ip link set " +
                                 peer + " master br0 && ip link set " + peer + " up && ip link set " + temp +
                                 " netns " + host.ns->name()))
            return;
        if (!host.ns->must_exec("ip link set " + temp + " name eth0 && ip link set eth0 address " + host.mac +
                                " && ip addr add " + host.ipv4 + "/24 dev eth0 && ip -6 addr add " + host.ipv6 +
                                "/64 dev eth0 nodad && ip link set eth0 up"))
            return;
        m_hosts.push_back(std::move(host));
    }
    for (std::size_t i = 0; i < m_hosts.size(); ++i) {
        if (!m_hosts[i].ns->wait_until_up("eth0") || !m_bridge->wait_until_up("vb" + std::to_string(i + 1)))
            return;
    }
    m_ok = true;
}

netns_lab::~netns_lab()
{
    m_hosts.clear();
    m_bridge.reset();
}

} // namespace kw::test
