#include "src/peer/mcast_sender.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using test::netns_enter;
using test::probe;

TEST(mcast_sender, reaches_the_other_host_with_its_ttl_but_not_its_own)
{
    KW_REQUIRE_ROOT();
    test::netns_lab lab(2);
    ASSERT_TRUE(lab.ok());
    const std::vector<std::uint8_t> payload = {2, 1, 0, 0, 0, 7, 2, 0, 0, 0, 0, 1};

    for (const char* group : {"239.255.77.1", "ff15::77"}) {
        SCOPED_TRACE(group);
        std::unique_ptr<probe> far;
        {
            netns_enter in(*lab.host(1).ns);
            far = probe::open("eth0", group, 17700);
        }
        ASSERT_TRUE(far);

        netns_enter in(*lab.host(0).ns);
        auto own = probe::open("eth0", group, 17700);
        ASSERT_TRUE(own);
        auto sender = mcast_sender::create("eth0", group, 17700, 3);
        ASSERT_TRUE(sender);
        EXPECT_EQ(sender->send(payload.data(), payload.size()), static_cast<ssize_t>(payload.size()));
        auto got = far->receive();
        ASSERT_TRUE(got);
        EXPECT_EQ(got->bytes, payload);
        EXPECT_EQ(got->ttl, 3);
        // Loopback is off: by the time the far host has it, the own host would have it too.
        EXPECT_TRUE(own->idle());
    }
}

} // namespace
} // namespace kw
