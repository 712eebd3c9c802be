#include "src/peer/mcast_receiver.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

TEST(mcast_receiver, two_receivers_share_one_port_on_two_interfaces)
{
    KW_REQUIRE_ROOT();
    test::netns ns("share");
    ASSERT_TRUE(ns.ok());
    ASSERT_TRUE(ns.must_exec("ip link add v0 type veth peer name v1 && ip link set v0 up && ip link set v1 up"));
    test::netns_enter in(ns);

    for (const char* group : {"239.255.77.1", "ff15::77"}) {
        SCOPED_TRACE(group);
        auto on_v0 = mcast_receiver::create("v0", group, 17700);
        auto on_v1 = mcast_receiver::create("v1", group, 17700);
        ASSERT_TRUE(on_v0 && on_v1);
        EXPECT_NE(test::memberships(ns, "v0").find(group), std::string::npos);
        EXPECT_NE(test::memberships(ns, "v1").find(group), std::string::npos);
    }
}

} // namespace
} // namespace kw
