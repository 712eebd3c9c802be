#include "src/hostnet/link_watcher.hpp"
#include "tests/support/netns.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <ostream>
#include <vector>

namespace kw {

void PrintTo(const interface_state& state, std::ostream* out)
{
    char ipv4[INET_ADDRSTRLEN];
    char ipv6[INET6_ADDRSTRLEN];
    *out << "{up " << state.up << ", ipv4 " << state.ipv4_enabled << " "
         << inet_ntop(AF_INET, &state.ipv4_address, ipv4, sizeof ipv4) << ", ipv6 " << state.ipv6_enabled << " "
         << inet_ntop(AF_INET6, &state.ipv6_address, ipv6, sizeof ipv6) << "}";
}

namespace {

interface_state state_of(bool up, const char* ipv4, const char* ipv6)
{
    interface_state state;
    state.up = up;
    state.ipv4_enabled = ipv4 != nullptr && inet_pton(AF_INET, ipv4, &state.ipv4_address) == 1;
    state.ipv6_enabled = ipv6 != nullptr && inet_pton(AF_INET6, ipv6, &state.ipv6_address) == 1;
    return state;
}

struct report {
    std::uint32_t id = 0;
    std::string name;
    interface_state state;
    bool operator==(const report&) const = default;
    friend void PrintTo(const report& r, std::ostream* out)
    {
        *out << "#" << r.id << " " << r.name << " ";
        PrintTo(r.state, out);
    }
};
using reports = std::vector<report>;

struct recorder {
    static void on_change(std::uint32_t id, const interface_state& state, const char* name, void* self)
    {
        static_cast<recorder*>(self)->seen.push_back({id, name, state});
    }
    reports seen;
};

// Runs the default main context until the condition holds or 10 s pass.
template <class Condition> bool wait_until(Condition condition)
{
    gint64 deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
    while (!condition()) {
        if (g_get_monotonic_time() > deadline)
            return false;
        if (!g_main_context_iteration(nullptr, FALSE))
            g_usleep(10 * 1000);
    }
    return true;
}

// Handles every notification the kernel has queued so far; it queues one
// before the command that caused it returns (IPv6 additions with nodad, sent
// from a later work item, aside).
void drain()
{
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
}

// A veth end that is up, running and multicast-capable, with no IPv6
// link-local address of its own. Its peer ("<name>p") is up so that carrier
// comes, but has multicast off, so it is never reported itself. Returns once
// the kernel shows the carrier, so a snapshot taken next sees the link running.
std::string link(const std::string& name)
{
    std::string peer = name + "p";
    std::string running = "ip link show dev " + name + " | grep -q 'state UP'";
    return "ip link add " + name + " type veth peer name " + peer + " && ip link set " + name +
           " addrgenmode none && ip link set " + peer + " addrgenmode none multicast off up && ip link set " + name +
           " up && for i in $(seq 100); do " + running + " && break; sleep 0.1; done && " + running;
}

std::size_t open_descriptors()
{
    auto entries = std::filesystem::directory_iterator("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

TEST(link_watcher, usable_addresses_exclude_unspecified_and_link_local)
{
    struct row {
        const char* text;
        bool usable;
    };
    for (row r : {row {"192.168.1.10", true}, row {"0.0.0.0", false}, row {"169.254.7.7", false},
                  row {"169.253.0.1", true}, row {"127.0.0.1", true}, row {"fd00::1", true}, row {"::", false},
                  row {"fe80::1", false}, row {"febf::1", false}, row {"fec0::1", true}, row {"::1", true}}) {
        sockaddr_storage storage {};
        auto* ipv4 = reinterpret_cast<sockaddr_in*>(&storage);
        auto* ipv6 = reinterpret_cast<sockaddr_in6*>(&storage);
        if (inet_pton(AF_INET, r.text, &ipv4->sin_addr) == 1)
            ipv4->sin_family = AF_INET;
        else if (inet_pton(AF_INET6, r.text, &ipv6->sin6_addr) == 1)
            ipv6->sin6_family = AF_INET6;
        EXPECT_EQ(address_is_usable(reinterpret_cast<const sockaddr*>(&storage)), r.usable) << r.text;
    }
    sockaddr other {};
    other.sa_family = AF_PACKET;
    EXPECT_FALSE(address_is_usable(&other));
    EXPECT_FALSE(address_is_usable(nullptr));
}

// A private namespace, entered by the test's thread, with a watcher made
// there and one listener registered.
class link_watcher_netns : public ::testing::Test {
protected:
    void SetUp() override { KW_REQUIRE_ROOT(); }

    // Configures the namespace, then creates the watcher in it. The replay
    // stays in the listener's reports.
    void start(const std::string& setup)
    {
        m_ns = std::make_unique<test::netns>("lw");
        ASSERT_TRUE(m_ns->must_exec(setup));
        m_enter.emplace(*m_ns);
        m_watcher = link_watcher::create();
        ASSERT_TRUE(m_watcher);
        EXPECT_EQ(m_watcher->add_listener(&recorder::on_change, &m_listener), 1u);
    }

    // Runs a command in the namespace, waits for the listener's reports to
    // reach the count, then handles whatever else is queued.
    void change(const std::string& command, std::size_t count)
    {
        ASSERT_TRUE(m_ns->must_exec(command));
        ASSERT_TRUE(wait_until([&] { return m_listener.seen.size() >= count; })) << command;
        drain();
    }

    std::unique_ptr<test::netns> m_ns;
    std::optional<test::netns_enter> m_enter;
    std::unique_ptr<link_watcher> m_watcher;
    recorder m_listener;
};

TEST_F(link_watcher_netns, replays_only_usable_addresses_of_multicast_links_to_each_new_listener)
{
    start(link("eth0") + " && ip addr add 192.168.1.10/24 dev eth0 && ip addr add 169.254.7.7/16 dev eth0 && "
                         "ip -6 addr add fe80::1/64 dev eth0 nodad && ip addr add 127.0.0.2/8 dev lo");
    interface_state expected = state_of(true, "192.168.1.10", nullptr);
    EXPECT_EQ(m_listener.seen, (reports {{1, "eth0", expected}}));

    recorder second;
    EXPECT_EQ(m_watcher->add_listener(&recorder::on_change, &second), 2u);
    EXPECT_EQ(second.seen, (reports {{2, "eth0", expected}}));
    EXPECT_EQ(m_listener.seen.size(), 1u);
}

TEST_F(link_watcher_netns, link_without_carrier_enters_through_its_new_link_message)
{
    start("ip link add va type veth peer name vb && ip link set va addrgenmode none && "
          "ip link set vb addrgenmode none multicast off && ip addr add 10.1.0.1/24 dev va && ip link set va up");
    EXPECT_TRUE(m_listener.seen.empty());

    change("ip link set vb up", 1);
    change("ip addr add 10.1.0.2/24 dev va", 2);
    EXPECT_EQ(m_listener.seen,
              (reports {{1, "va", interface_state {}}, {1, "va", state_of(true, "10.1.0.2", nullptr)}}));
}

TEST_F(link_watcher_netns, removing_the_only_ipv4_address_keeps_the_ipv6_part)
{
    start(link("eth0") + " && ip addr add 192.168.1.10/24 dev eth0 && ip -6 addr add fd00::1/64 dev eth0 nodad");
    change("ip addr del 192.168.1.10/24 dev eth0", 2);
    EXPECT_EQ(m_listener.seen.back(), (report {1, "eth0", state_of(true, nullptr, "fd00::1")}));
    EXPECT_EQ(m_listener.seen.size(), 2u);
}

TEST_F(link_watcher_netns, deleted_link_is_reported_down_once_then_forgotten)
{
    std::string eth0 = link("eth0") + " && ip addr add 192.168.1.10/24 dev eth0 && "
                                      "ip -6 addr add fd00::1/64 dev eth0 nodad";
    start(eth0 + " && " + link("eth1") + " && ip addr add 192.168.2.10/24 dev eth1");
    m_listener.seen.clear();

    // The link comes back under its name with its addresses before the
    // watcher reads anything, so the old link's address messages leave the
    // snapshot unchanged and its removal report keeps its last addresses. The
    // new link enters afresh, but its own addresses stay unseen: the link
    // cache does not know its index.
    change("ip link del eth0 && " + eth0 + " && ip addr add 192.168.2.11/24 dev eth1", 3);
    interface_state removed = state_of(false, "192.168.1.10", "fd00::1");
    removed.ipv4_enabled = removed.ipv6_enabled = FALSE;
    EXPECT_EQ(m_listener.seen, (reports {{1, "eth0", removed},
                                         {1, "eth0", interface_state {}},
                                         {1, "eth1", state_of(true, "192.168.2.11", nullptr)}}));
}

TEST_F(link_watcher_netns, address_changes_that_leave_the_snapshot_unchanged_call_nobody)
{
    start(link("eth0") + " && ip addr add 192.168.1.10/24 dev eth0");
    // Each change is handled before the next one is made, so each refresh
    // sees the snapshot that its own change left.
    for (const char* quiet :
         {"ip addr add 169.254.7.8/16 dev eth0", "ip -6 addr add fe80::2/64 dev eth0",
          "ip addr del 169.254.7.8/16 dev eth0", "ip -6 addr del fe80::2/64 dev eth0", "ip addr add 10.9.9.9/32 dev lo",
          "ip -6 addr add fd00::9/128 dev lo"}) {
        ASSERT_TRUE(m_ns->must_exec(quiet));
        drain();
    }
    // The kernel reports in order: once this change is seen, a report for
    // any earlier one would have been seen before it.
    change("ip -6 addr add fd00::5/64 dev eth0", 2);
    EXPECT_EQ(m_listener.seen.back(), (report {1, "eth0", state_of(true, "192.168.1.10", "fd00::5")}));
    EXPECT_EQ(m_listener.seen.size(), 2u);
}

TEST_F(link_watcher_netns, listener_ids_count_up_and_unknown_ids_change_nothing)
{
    start(link("eth0") + " && ip addr add 192.168.1.10/24 dev eth0");
    recorder others[2];
    EXPECT_EQ(m_watcher->add_listener(&recorder::on_change, &others[0]), 2u);
    EXPECT_EQ(m_watcher->add_listener(&recorder::on_change, &others[1]), 3u);
    m_watcher->remove_listener(0);
    m_watcher->remove_listener(99);

    change("ip -6 addr add fd00::1/64 dev eth0 nodad", 2);
    interface_state now = state_of(true, "192.168.1.10", "fd00::1");
    EXPECT_EQ(others[0].seen.back(), (report {2, "eth0", now}));
    EXPECT_EQ(others[1].seen.back(), (report {3, "eth0", now}));

    m_watcher->remove_listener(2);
    change("ip -6 addr del fd00::1/64 dev eth0", 3);
    EXPECT_EQ(others[0].seen.size(), 2u);
    EXPECT_EQ(others[1].seen.size(), 3u);
}

TEST_F(link_watcher_netns, leaves_no_descriptor_or_watch_behind)
{
    start(link("eth0") + " && ip addr add 192.168.1.10/24 dev eth0");
    m_watcher.reset();
    std::size_t before = open_descriptors();
    // A restarted monitor makes a new watcher, so do it twice. The second
    // socket likely gets the first one's descriptor number: a watch left
    // behind would take its messages into freed memory.
    for (const char* command : {"ip addr add 192.168.1.11/24 dev eth0", "ip addr del 192.168.1.11/24 dev eth0"}) {
        auto watcher = link_watcher::create();
        ASSERT_TRUE(watcher);
        recorder listener;
        watcher->add_listener(&recorder::on_change, &listener);
        ASSERT_TRUE(m_ns->must_exec(command));
        EXPECT_TRUE(wait_until([&] { return listener.seen.size() == 2; })) << command;
    }
    EXPECT_EQ(open_descriptors(), before);
}

} // namespace
} // namespace kw
