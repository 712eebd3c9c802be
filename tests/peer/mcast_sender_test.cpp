#include "src/peer/mcast_sender.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using test::netns_enter;
using test::probe;

constexpr int port = 17700;
const std::vector<std::uint8_t> payload = {2, 1, 0, 0, 0, 7, 2, 0, 0, 0, 0, 1};

TEST(mcast_sender, reaches_the_other_host_with_its_ttl_but_not_its_own)
{
    KW_REQUIRE_ROOT();
    test::netns_lab lab(2);
    ASSERT_TRUE(lab.ok());

    for (const char* group : {"239.255.77.1", "ff15::77"}) {
        SCOPED_TRACE(group);
        std::unique_ptr<probe> far;
        {
            netns_enter in(*lab.host(1).ns);
            far = probe::open("eth0", group, port);
        }
        ASSERT_TRUE(far);

        netns_enter in(*lab.host(0).ns);
        auto own = probe::open("eth0", group, port);
        ASSERT_TRUE(own);
        auto sender = mcast_sender::create("eth0", group, port, 3);
        ASSERT_TRUE(sender);
        EXPECT_EQ(sender->get_ttl(), 3);

        for (int ttl : {3, 255}) {
            ASSERT_TRUE(sender->set_ttl(ttl));
            EXPECT_EQ(sender->send(payload.data(), payload.size()), static_cast<ssize_t>(payload.size()));
            auto got = far->receive();
            ASSERT_TRUE(got);
            EXPECT_EQ(got->bytes, payload);
            EXPECT_EQ(got->ttl, ttl);
        }
        // Loopback is off: by the time the far host has both, the own host would have them too.
        EXPECT_TRUE(own->idle());
    }
}

TEST(mcast_sender, keeps_its_ttl_within_1_to_255)
{
    KW_REQUIRE_ROOT();
    test::netns ns("ttl");
    ASSERT_TRUE(ns.ok());
    netns_enter in(ns);

    for (const char* group : {"239.255.77.1", "ff15::77"}) {
        SCOPED_TRACE(group);
        test::log_capture log;
        EXPECT_FALSE(mcast_sender::create("lo", group, port, 0));
        auto sender = mcast_sender::create("lo", group, port, 1);
        ASSERT_TRUE(sender);
        EXPECT_FALSE(sender->set_ttl(256));
        EXPECT_EQ(sender->get_ttl(), 1);
        EXPECT_TRUE(sender->set_ttl(255));
        EXPECT_EQ(sender->get_ttl(), 255);
        EXPECT_EQ(log.warnings(), (std::vector<std::string> {"TTL: 0 is out of range", "TTL: 256 is out of range"}));
    }
}

} // namespace
} // namespace kw
