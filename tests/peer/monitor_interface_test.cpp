// Interfaces, their chains and the sockets and threads under them, on the
// first host of a lab; plain probes and senders on the second.

#include "src/peer/monitor_interface.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/log_capture.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

namespace kw {
namespace {

using test::netns_enter;
using test::probe;
using bytes = std::vector<std::uint8_t>;

constexpr int port = 17700;
constexpr const char* ipv4_group = "239.255.77.1";
constexpr const char* ipv6_group = "ff15::77";

node_id heard_id(probe& listener, int ttl = -1)
{
    auto got = listener.receive();
    auto message = got ? peer_message::decode(got->bytes.data(), static_cast<ssize_t>(got->bytes.size())) : nullptr;
    EXPECT_TRUE(ttl < 0 || (got && got->ttl == ttl));
    return message ? message->get_node_id() : 0;
}

bytes leave(node_id id, std::uint32_t group = 7)
{
    return *peer_message::leave_new(id, group)->encode();
}

class monitor_interface_lab : public ::testing::Test {
protected:
    void SetUp() override
    {
        KW_REQUIRE_ROOT();
        m_lab = std::make_unique<test::netns_lab>(2);
        ASSERT_TRUE(m_lab->ok());
        // Leaving an IPv4 group names no interface: the kernel takes the route's, as on a camera.
        ASSERT_TRUE(host(0).must_exec("ip route add 224.0.0.0/4 dev eth0"));
        m_inside.emplace(host(0)); // so every socket and thread lives there
    }
    test::netns& host(int index) { return *m_lab->host(index).ns; }
    std::unique_ptr<probe> listen(int index, const char* group)
    {
        netns_enter in(host(index));
        return probe::open("eth0", group, port);
    }
    std::unique_ptr<monitor_interface> start(int ttl)
    {
        auto interface = monitor_interface::create("eth0", ipv4_group, ipv6_group, port, ttl, *m_queue, 7);
        EXPECT_TRUE(interface->setup_ipv4() && interface->setup_ipv6() && interface->start_ipv4() && interface->start_ipv6());
        return interface;
    }

    std::unique_ptr<test::netns_lab> m_lab;
    std::optional<netns_enter> m_inside;
    std::unique_ptr<message_queue> m_queue = message_queue::create();
    test::log_capture m_log;
};

TEST_F(monitor_interface_lab, sends_on_both_families_with_its_ttl_never_to_itself_and_drains_at_destruction)
{
    auto far4 = listen(1, ipv4_group), far6 = listen(1, ipv6_group), moved = listen(1, "239.255.77.2");
    auto own4 = listen(0, ipv4_group), own6 = listen(0, ipv6_group);
    ASSERT_TRUE(far4 && far6 && own4 && own6 && moved);
    auto interface = start(3);
    EXPECT_TRUE(interface->start_ipv4()); // already running: nothing changes
    // A refused TTL leaves the last accepted one in force.
    for (auto [ttl, accepted, in_force] : {std::tuple {255, true, 255}, {1, true, 1}, {0, false, 1}, {256, false, 1}}) {
        EXPECT_EQ(interface->set_ttl(ttl), accepted) << ttl;
        interface->send(peer_message::leave_new(ttl + 1, 7));
        for (probe* far : {far4.get(), far6.get()}) {
            auto got = far->receive();
            EXPECT_TRUE(got && got->bytes == leave(ttl + 1) && got->ttl == in_force) << ttl;
        }
    }
    EXPECT_EQ(m_log.warnings(), (std::vector<std::string> {"TTL: 0 is out of range", "TTL: 256 is out of range"}));

    // Queued goes to the old group, the rest to the new from a chain with the stored TTL; destruction drains.
    for (node_id id : {11, 12, 13})
        interface->send(peer_message::leave_new(id, 7));
    EXPECT_TRUE(interface->set_address(monitor_interface::ipv4, ipv4_group));
    ASSERT_TRUE(interface->set_address(monitor_interface::ipv4, "239.255.77.2"));
    for (node_id id : {14, 21, 22})
        interface->send(peer_message::leave_new(id, 7));
    interface.reset();
    for (node_id id : {11, 12, 13})
        EXPECT_EQ(heard_id(*far4), id);
    EXPECT_EQ(heard_id(*moved, 1), 14u);
    for (node_id id : {21, 22})
        EXPECT_EQ(heard_id(*moved), id);
    EXPECT_TRUE(own4->idle() && own6->idle()); // multicast loopback is off
    EXPECT_EQ(m_log.warnings().size(), 2u);
}

TEST_F(monitor_interface_lab, receivers_queue_the_decoded_messages_of_their_group_only)
{
    auto interface = start(1);
    std::unique_ptr<mcast_sender> far[2];
    {
        netns_enter in(host(1));
        far[0] = mcast_sender::create("eth0", ipv4_group, port, 1), far[1] = mcast_sender::create("eth0", ipv6_group, port, 1);
    }
    ASSERT_TRUE(far[0] && far[1]);
    const bytes announce = *peer_message::announce_new(1, 7, in_addr {htonl(0x0a000001)}, in6addr_loopback)->encode();
    const bytes dispatched = *peer_message::dispatched_new(2, 3, 7)->encode();
    bytes wrong_version = leave(5), oversized = leave(5);
    wrong_version[1] = 2;
    oversized.resize(1500);
    // Sent on each family in turn, the queue takes exactly what is expected, in order.
    auto expect_queued = [&](const std::vector<bytes>& sent, const std::vector<bytes>& expected) {
        for (auto& sender : far) {
            for (const auto& b : sent)
                EXPECT_EQ(sender->send(b.data(), b.size()), static_cast<ssize_t>(b.size()));
            ASSERT_TRUE(test::wait_until([&] { return m_queue->length() >= static_cast<int>(expected.size()); }));
            for (const auto& b : expected)
                EXPECT_EQ(m_queue->pop()->encode(), b);
        }
    };
    expect_queued({leave(6, 8), wrong_version, oversized, announce, dispatched, leave(4)}, {announce, dispatched, leave(4)});
    interface->set_group(8);
    expect_queued({leave(7), leave(8, 8)}, {leave(8, 8)});
    EXPECT_EQ(m_queue->length(), 0);
    EXPECT_TRUE(m_log.warnings().empty());

    // Idle receiving threads wake up to end; what the senders cannot send is told.
    ASSERT_TRUE(host(0).must_exec("ip link set eth0 down"));
    interface->send(peer_message::leave_new(9, 8));
    interface.reset();
    auto warnings = m_log.warnings();
    std::sort(warnings.begin(), warnings.end());
    const std::string failed = "Failed to deliver message, sent -1 bytes";
    EXPECT_EQ(warnings, (std::vector<std::string> {failed, failed, "Failed to leave multicast group: " + std::string(g_strerror(ENODEV))}));
}

TEST_F(monitor_interface_lab, a_failed_chain_spares_the_other_family_and_each_receiver_hears_its_own_interface)
{
    const std::string invalid = g_strerror(EINVAL), chain = "monitor_chain: failed to ";
    // The sender looks a name up, the receiver takes numbers only; a unicast group fails at the join.
    auto interface = monitor_interface::create("eth0", "localhost", "fd77::99", port, 1, *m_queue, 7);
    EXPECT_FALSE(interface->setup_ipv4());
    EXPECT_EQ(m_log.warnings(), (std::vector<std::string> {"mcast_receiver_create, getaddrinfo() failed", chain + "create mcast_receiver",
              chain + "setup receiver", chain + "create", "monitor_interface: failed to setup ipv4 chain"}));
    m_log.clear();
    EXPECT_FALSE(interface->setup_ipv6());
    EXPECT_EQ(m_log.warnings(), (std::vector<std::string> {"setsockopt() failed to set IPV6_JOIN_GROUP: " + invalid,
              "Failed to leave multicast group: " + invalid, chain + "create mcast_receiver", chain + "setup receiver",
              chain + "create", "monitor_interface: failed to setup ipv6 chain"}));
    m_log.clear();
    EXPECT_FALSE(interface->start_ipv6());
    EXPECT_TRUE(interface->set_address(monitor_interface::ipv4, ipv4_group) && interface->setup_ipv4() && interface->start_ipv4());
    EXPECT_TRUE(m_log.lines().empty());
    interface.reset();

    // Host 0 gets eth1 on a second network, whose other end is a namespace of its own.
    test::netns other("other");
    ASSERT_TRUE(other.must_exec("ip link add eth1 type veth peer name eth0 && ip link set eth1 netns " + host(0).name() +
                                " && ip addr add 10.78.0.2/24 dev eth0 && ip link set eth0 up"));
    ASSERT_TRUE(host(0).must_exec("ip addr add 10.78.0.1/24 dev eth1 && ip link set eth1 up"));
    ASSERT_TRUE(other.wait_until_up("eth0") && host(0).wait_until_up("eth1"));
    for (const char* group : {ipv4_group, ipv6_group}) {
        std::unique_ptr<mcast_receiver> on[] = {mcast_receiver::create("eth0", group, port),
                                                mcast_receiver::create("eth1", group, port)};
        std::unique_ptr<probe> far;
        for (int n : {0, 1}) { // host 1 sends on the first network, the other namespace on the second
            netns_enter in(n ? other : host(1));
            if (n)
                far = probe::open("eth0", group, port);
            mcast_sender::create("eth0", group, port, 1)->send(leave(n + 1).data(), 12);
        }
        // Takes one datagram, keeping what the receiver does not drop; false when none waits.
        std::vector<node_id> heard[2];
        auto take = [&](int n) {
            std::uint8_t buffer[64];
            ssize_t got = on[n]->receive(buffer, sizeof buffer);
            if (auto message = peer_message::decode(buffer, got))
                heard[n].push_back(message->get_node_id());
            return got != mcast_receiver::none_waiting;
        };
        // A datagram reaches every socket of its group at once: a copy on the other would wait by now.
        for (int n : {0, 1})
            EXPECT_TRUE(test::wait_until([&] { return take(n) && !heard[n].empty(); })) << group;
        for (int n : {0, 1})
            while (take(n)) {
            }
        EXPECT_EQ(heard[0], std::vector<node_id> {1}) << group;
        EXPECT_EQ(heard[1], std::vector<node_id> {2}) << group;
        mcast_sender::create("eth1", group, port, 1)->send(leave(3).data(), 12); // heard on the second network
        EXPECT_EQ(heard_id(*far), 3u) << group;
    }
}

} // namespace
} // namespace kw
