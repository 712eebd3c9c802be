#pragma once

// Private network namespaces for tests that touch the network, joined only by
// veth pairs and a bridge of their own and deleted with their objects.

#include "platform/g_ptr.hpp"
#include "platform/unique_fd.hpp"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/wait.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kw::test {

#define KW_REQUIRE_ROOT()                                                                          \
    if (geteuid() != 0)                                                                            \
    GTEST_SKIP() << "needs root to create private network namespaces"

// Runs a shell command: its exit status (-1 if it could not run), its stdout and stderr in output.
inline int run(const std::string& command, std::string* output = nullptr)
{
    g_ptr<char> line(g_strdup_printf("sh -c %s", g_ptr<char>(g_shell_quote((command + " 2>&1").c_str())).get()));
    char* out = nullptr;
    int status = 0;
    if (!g_spawn_command_line_sync(line.get(), &out, nullptr, &status, nullptr))
        return -1;
    g_ptr<char> owned(out);
    if (output)
        *output = out;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Polls every 10 ms until the condition holds; false after 20 s.
inline bool wait_until(const std::function<bool()>& condition)
{
    for (gint64 end = g_get_monotonic_time() + 20 * G_USEC_PER_SEC; !condition(); g_usleep(10000))
        if (g_get_monotonic_time() > end)
            return false;
    return true;
}

// "kwt<pid>-<n>-<label>", loopback up, no duplicate address detection.
class netns {
public:
    explicit netns(const std::string& label)
    {
        static std::atomic<int> next {0};
        m_name = "kwt" + std::to_string(getpid()) + "-" + std::to_string(next++) + "-" + label;
        m_ok = must_exec("", "ip netns add " + m_name) &&
               must_exec("sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0 && ip link set lo up");
    }
    netns(const netns&) = delete;
    ~netns() { run("ip netns del " + m_name); }

    const std::string& name() const { return m_name; }
    bool ok() const { return m_ok; }
    int exec(const std::string& command, std::string* output = nullptr) const
    {
        return run("ip netns exec " + m_name + " sh -c " + g_ptr<char>(g_shell_quote(command.c_str())).get(), output);
    }
    // Fails the test, with the output, unless the command succeeds.
    bool must_exec(const std::string& command, const std::string& outside = "") const
    {
        std::string output;
        int status = outside.empty() ? exec(command, &output) : run(outside, &output);
        if (status != 0)
            ADD_FAILURE() << "command failed (" << status << "): " << outside << command << "\n" << output;
        return status == 0;
    }
    // Until then the kernel drops what is sent there while sendto() succeeds.
    bool wait_until_up(const std::string& link) const
    {
        return wait_until([&] { return exec("ip -o link show dev " + link + " | grep -q 'state UP'") == 0; });
    }

private:
    std::string m_name;
    bool m_ok = false;
};

// Moves the calling thread into the namespace for the scope, with the sockets and threads it makes.
class netns_enter {
public:
    explicit netns_enter(const netns& ns) : m_saved(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC))
    {
        unique_fd target(::open(("/run/netns/" + ns.name()).c_str(), O_RDONLY | O_CLOEXEC));
        if (!target || setns(target.get(), CLONE_NEWNET) != 0)
            ADD_FAILURE() << "cannot enter network namespace " << ns.name(), m_saved.reset();
    }
    // A test thread left in a private namespace would spoil every later test.
    ~netns_enter()
    {
        if (m_saved && setns(m_saved.get(), CLONE_NEWNET) != 0)
            std::abort();
    }
    bool ok() const { return m_saved.valid(); }

private:
    unique_fd m_saved;
};

// A bridge ("br0", no multicast snooping: every group floods) and hosts 1..N, each with an "eth0"
// holding 10.77.0.<n>/24 and fd77::<n>/64; ready once every link transmits.
class netns_lab {
public:
    struct host_ns {
        std::unique_ptr<netns> ns;
    };
    explicit netns_lab(int hosts) : m_bridge("br")
    {
        if (!m_bridge.ok() || !m_bridge.must_exec("ip link add br0 type bridge mcast_snooping 0 && ip link set br0 up"))
            return;
        for (int i = 1; i <= hosts; ++i) {
            std::string n = std::to_string(i);
            auto& ns = *m_hosts.emplace_back(host_ns {std::make_unique<netns>("h" + n)}).ns;
            if (!ns.ok() ||
                !m_bridge.must_exec("ip link add vh" + n + " type veth peer name vb" + n + " && ip link set vb" + n +
                                    " master br0 up && ip link set vh" + n + " netns " + ns.name()) ||
                !ns.must_exec("ip link set vh" + n + " name eth0 && ip addr add 10.77.0." + n + "/24 dev eth0 && ip -6 "
                              "addr add fd77::" + n + "/64 dev eth0 nodad && ip link set eth0 up") ||
                !ns.wait_until_up("eth0") || !m_bridge.wait_until_up("vb" + n))
                return;
        }
        m_ok = true;
    }
    bool ok() const { return m_ok; }
    host_ns& host(int index) { return m_hosts.at(static_cast<std::size_t>(index)); }
    netns& bridge() { return m_bridge; }

private:
    netns m_bridge;
    std::vector<host_ns> m_hosts;
    bool m_ok = false;
};

} // namespace kw::test
