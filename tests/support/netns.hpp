#pragma once

// Private network namespaces for tests that touch the network. Nothing here
// ever configures or sends on the machine's own interfaces: every namespace
// is created by the test, joined by veth pairs or a bridge of its own, and
// deleted when the test's objects go out of scope.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kw::test {

bool is_root();

// Skips the current test when the process cannot create namespaces.
#define KW_REQUIRE_ROOT()                                                                          \
    do {                                                                                           \
        if (!::kw::test::is_root())                                                                \
            GTEST_SKIP() << "needs root to create private network namespaces";                      \
    } while (0)

// Runs a shell command; returns its exit status (-1 when it could not run).
// The command's output is kept and added to the failure message by must().
int run(const std::string& command, std::string* output = nullptr);
// Runs a command and records a test failure when it does not succeed.
bool must(const std::string& command);

// A named network namespace ("kwt<pid>-<n>-<label>"), deleted at scope end.
// Loopback is brought up, duplicate address detection is off, so IPv6
// addresses are usable at once.
class netns {
public:
    explicit netns(const std::string& label);
    netns(const netns&) = delete;
    netns& operator=(const netns&) = delete;
    ~netns();

    const std::string& name() const { return m_name; }
    bool ok() const { return m_ok; }

    // Runs a shell command inside the namespace.
    int exec(const std::string& command, std::string* output = nullptr) const;
    bool must_exec(const std::string& command) const;

    // Waits until the interface's operational state is UP, that is until it
    // really transmits. False (and a test failure) after a generous deadline.
    bool wait_until_up(const std::string& interface) const;

private:
    std::string m_name;
    bool m_ok = false;
};

// Moves the calling thread into a namespace for the scope. Sockets it opens
// and threads it starts meanwhile live in that namespace.
class netns_enter {
public:
    explicit netns_enter(const netns& ns);
    netns_enter(const netns_enter&) = delete;
    netns_enter& operator=(const netns_enter&) = delete;
    ~netns_enter();

    bool ok() const { return m_ok; }

private:
    int m_saved = -1;
    bool m_ok = false;
};

// One test host on the shared segment: its namespace, its interface name
// ("eth0") and its addresses.
struct lab_host {
    std::unique_ptr<netns> ns;
    std::string interface = "eth0";
    std::string ipv4;     // "10.77.0.<n>"
    std::string ipv6;     // "fd77::<n>"
    std::string mac;      // "02:00:00:00:00:<nn>"
};

// A bridge namespace and N host namespaces, each host joined to the bridge
// by a veth pair whose host end is "eth0", with a fixed hardware address,
// an IPv4 address in 10.77.0.0/24 and an IPv6 address in fd77::/64.
// Multicast snooping is off on the bridge, so every group is flooded. The
// constructor returns once every link really transmits.
class netns_lab {
public:
    explicit netns_lab(int hosts);
    netns_lab(const netns_lab&) = delete;
    netns_lab& operator=(const netns_lab&) = delete;
    ~netns_lab();

    bool ok() const { return m_ok; }
    lab_host& host(int index) { return m_hosts.at(static_cast<std::size_t>(index)); }
    std::size_t size() const { return m_hosts.size(); }
    netns& bridge() { return *m_bridge; }

private:
    std::unique_ptr<netns> m_bridge;
    std::vector<lab_host> m_hosts;
    bool m_ok = false;
};

} // namespace kw::test
