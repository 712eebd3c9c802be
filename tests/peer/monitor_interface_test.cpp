#include "src/peer/monitor_interface.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using test::memberships;
using test::netns_enter;
using test::probe;
using test::thread_count;
using test::wait_until;

constexpr int port = 17700;
constexpr const char* ipv4_group = "239.255.77.1";
constexpr const char* ipv6_group = "ff15::77";

// An interface on the first lab host; probes listen on the second.
class monitor_interface_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        KW_REQUIRE_ROOT();
        m_lab = std::make_unique<test::netns_lab>(2);
        ASSERT_TRUE(m_lab->ok());
        // The IPv4 leave names no interface: the kernel finds it through the
        // route to the group, as on a camera with its default route.
        ASSERT_TRUE(near().must_exec("ip route add 224.0.0.0/4 dev eth0"));
        m_queue = message_queue::create();
    }

    test::netns& near() { return *m_lab->host(0).ns; }

    std::unique_ptr<monitor_interface> create(const std::string& ipv6 = ipv6_group)
    {
        return monitor_interface::create("eth0", ipv4_group, ipv6, port, 1, *m_queue, 7);
    }

    std::unique_ptr<probe> listen(const std::string& group)
    {
        netns_enter in(*m_lab->host(1).ns);
        return probe::open("eth0", group, port);
    }

    // The node id of the next datagram the probe hears, 0 when none comes.
    static node_id heard(probe& p)
    {
        auto got = p.receive();
        auto message = got ? peer_message::decode(got->bytes.data(), static_cast<ssize_t>(got->bytes.size())) : nullptr;
        return message ? message->get_node_id() : 0;
    }

    std::unique_ptr<test::netns_lab> m_lab;
    std::unique_ptr<message_queue> m_queue;
};

TEST_F(monitor_interface_test, destruction_ends_four_threads_and_leaves_both_groups)
{
    int before = thread_count();
    std::unique_ptr<monitor_interface> interface;
    {
        netns_enter in(near());
        interface = create();
        ASSERT_TRUE(interface->setup_ipv4() && interface->setup_ipv6());
        ASSERT_TRUE(interface->start_ipv4() && interface->start_ipv6());
    }
    EXPECT_TRUE(wait_until([&] { return thread_count() == before + 4; }));
    EXPECT_NE(memberships(near(), "eth0").find(ipv4_group), std::string::npos);
    EXPECT_NE(memberships(near(), "eth0").find(ipv6_group), std::string::npos);

    interface.reset();
    EXPECT_TRUE(wait_until([&] { return thread_count() == before; }));
    EXPECT_EQ(memberships(near(), "eth0").find(ipv4_group), std::string::npos);
    EXPECT_EQ(memberships(near(), "eth0").find(ipv6_group), std::string::npos);
}

TEST_F(monitor_interface_test, an_ipv6_join_failure_logs_its_cascade_and_spares_ipv4)
{
    netns_enter in(near());
    // A unicast address as the group: the sender takes it, the join fails.
    auto interface = create("fd77::99");
    test::log_capture log;
    EXPECT_FALSE(interface->setup_ipv6());
    std::string reason = g_strerror(EINVAL);
    EXPECT_EQ(log.warnings(), (std::vector<std::string> {
                                  "setsockopt() failed to set IPV6_JOIN_GROUP: " + reason,
                                  "Failed to leave multicast group: " + reason,
                                  "monitor_chain: failed to create mcast_receiver",
                                  "monitor_chain: failed to setup receiver",
                                  "monitor_chain: failed to create",
                                  "monitor_interface: failed to setup ipv6 chain",
                              }));
    EXPECT_TRUE(interface->setup_ipv4());
    EXPECT_TRUE(interface->start_ipv4());
}

TEST_F(monitor_interface_test, a_new_group_address_flushes_to_the_old_group_then_runs_on_the_new)
{
    const std::string other_group = "239.255.77.2";
    auto old_far = listen(ipv4_group);
    auto new_far = listen(other_group);
    ASSERT_TRUE(old_far && new_far);
    netns_enter in(near());
    auto interface = create();
    ASSERT_TRUE(interface->setup_ipv4() && interface->start_ipv4());

    for (node_id id : {1, 2, 3})
        interface->send(peer_message::leave_new(id, 7));
    ASSERT_TRUE(interface->set_ipv4_address(other_group));
    interface->send(peer_message::leave_new(4, 7));

    for (node_id id : {1, 2, 3})
        EXPECT_EQ(heard(*old_far), id);
    EXPECT_EQ(heard(*new_far), 4u);
    std::string joined = memberships(near(), "eth0");
    EXPECT_NE(joined.find(other_group), std::string::npos);
    EXPECT_EQ(joined.find(std::string(ipv4_group) + "\n"), std::string::npos);
}

} // namespace
} // namespace kw
