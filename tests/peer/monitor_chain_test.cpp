#include "src/peer/monitor_chain.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/netns.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

using test::netns_enter;
using test::thread_count;
using test::wait_until;

constexpr int port = 17700;

TEST(monitor_chain, carries_messages_both_ways_between_two_hosts)
{
    KW_REQUIRE_ROOT();
    test::netns_lab lab(2);
    ASSERT_TRUE(lab.ok());

    for (const char* group : {"239.255.77.1", "ff15::77"}) {
        SCOPED_TRACE(group);
        std::unique_ptr<message_queue> queues[2] = {message_queue::create(), message_queue::create()};
        std::unique_ptr<monitor_chain> chains[2];
        int before = thread_count();
        for (int i : {0, 1}) {
            netns_enter in(*lab.host(i).ns);
            chains[i] = monitor_chain::create("eth0", group, port, 1, *queues[i], 7);
            ASSERT_TRUE(chains[i]);
            EXPECT_FALSE(chains[i]->is_running());
            ASSERT_TRUE(chains[i]->start());
            EXPECT_TRUE(chains[i]->start());
        }
        EXPECT_TRUE(wait_until([&] { return thread_count() == before + 4; }));

        for (int from : {0, 1}) {
            chains[from]->send(peer_message::leave_new(static_cast<node_id>(from + 1), 7));
            auto& to = *queues[1 - from];
            ASSERT_TRUE(wait_until([&] { return to.length() > 0; }));
            EXPECT_EQ(to.pop()->get_node_id(), static_cast<node_id>(from + 1));
        }
        // Each host hears only the other: loopback is off.
        EXPECT_EQ(queues[0]->length() + queues[1]->length(), 0);

        EXPECT_TRUE(chains[0]->stop());
        EXPECT_FALSE(chains[0]->is_running());
        EXPECT_TRUE(chains[0]->stop());
        chains[0].reset();
        chains[1].reset();
        EXPECT_TRUE(wait_until([&] { return thread_count() == before; }));
    }
}

TEST(monitor_chain, fails_at_its_receiver_on_a_host_name_group)
{
    KW_REQUIRE_ROOT();
    test::netns ns("name");
    ASSERT_TRUE(ns.ok());
    netns_enter in(ns);
    auto queue = message_queue::create();
    test::log_capture log;

    // The sender looks the name up; the receiver takes numeric groups only.
    EXPECT_FALSE(monitor_chain::create("lo", "localhost", port, 1, *queue, 7));
    EXPECT_EQ(log.warnings(), (std::vector<std::string> {
                                  "mcast_receiver_create, getaddrinfo() failed",
                                  "monitor_chain: failed to create mcast_receiver",
                                  "monitor_chain: failed to setup receiver",
                                  "monitor_chain: failed to create",
                              }));
}

} // namespace
} // namespace kw
