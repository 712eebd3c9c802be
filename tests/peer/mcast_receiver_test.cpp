#include "src/peer/mcast_receiver.hpp"
#include "src/peer/mcast_sender.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using test::memberships;
using test::netns_enter;

constexpr int port = 17700;

TEST(mcast_receiver, shares_its_port_across_interfaces_and_leaves_at_destruction)
{
    KW_REQUIRE_ROOT();
    test::netns_lab lab(2);
    ASSERT_TRUE(lab.ok());
    auto& near = *lab.host(0).ns;
    ASSERT_TRUE(near.must_exec("ip link add v0 type veth peer name v1 && ip link set v0 up && ip link set v1 up"));

    for (const char* group : {"239.255.77.1", "ff15::77"}) {
        SCOPED_TRACE(group);
        std::unique_ptr<mcast_receiver> on_eth0;
        std::unique_ptr<mcast_receiver> on_v0;
        {
            netns_enter in(near);
            on_eth0 = mcast_receiver::create("eth0", group, port);
            on_v0 = mcast_receiver::create("v0", group, port);
        }
        ASSERT_TRUE(on_eth0);
        ASSERT_TRUE(on_v0);
        EXPECT_NE(memberships(near, "eth0").find(group), std::string::npos);
        EXPECT_NE(memberships(near, "v0").find(group), std::string::npos);

        const std::uint8_t payload[] = {1, 2, 3};
        {
            netns_enter in(*lab.host(1).ns);
            auto sender = mcast_sender::create("eth0", group, port, 1);
            ASSERT_TRUE(sender);
            ASSERT_EQ(sender->send(payload, sizeof payload), 3);
        }
        std::uint8_t buffer[16];
        sockaddr_in source {};
        ASSERT_TRUE(test::wait_readable(on_eth0->get_fd()));
        EXPECT_EQ(on_eth0->recv(buffer, sizeof buffer, &source), 3);
        EXPECT_EQ(buffer[2], 3);
        EXPECT_NE(source.sin_family, 0);

        // The IPv4 leave names no interface, so it may fail for v0, whose
        // group has no route; closing the socket leaves the group in any case.
        on_eth0.reset();
        on_v0.reset();
        EXPECT_EQ(memberships(near, "eth0").find(group), std::string::npos);
        EXPECT_EQ(memberships(near, "v0").find(group), std::string::npos);
    }
}

} // namespace
} // namespace kw
