#include "src/peer/monitor_chain.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

TEST(monitor_chain, fails_at_its_receiver_on_a_host_name_group)
{
    KW_REQUIRE_ROOT();
    test::netns ns("name");
    ASSERT_TRUE(ns.ok());
    test::netns_enter in(ns);
    auto queue = message_queue::create();
    test::log_capture log;

    // The sender looks the name up; the receiver takes numeric groups only.
    EXPECT_FALSE(monitor_chain::create("lo", "localhost", 17700, 1, *queue, 7));
    EXPECT_EQ(log.warnings(), (std::vector<std::string> {
                                  "mcast_receiver_create, getaddrinfo() failed",
                                  "monitor_chain: failed to create mcast_receiver",
                                  "monitor_chain: failed to setup receiver",
                                  "monitor_chain: failed to create",
                              }));
}

} // namespace
} // namespace kw
