#include "src/surfaces/sibling_events.hpp"
#include "tests/support/log_capture.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

std::vector<event_key_record> expected_keys(const char* event_name, const char* event_nice_name)
{
    const std::vector<std::string> tags {"onvif-data"};
    return {
        {"topic0", 4, "Velmora", "tnstavix", std::nullopt, std::nullopt, {}},
        {"topic1", 4, "Kinwatch", "tnstavix", std::nullopt, "Kinwatch", {}},
        {"topic2", 4, event_name, "tnstavix", std::nullopt, event_nice_name, {}},
        {"serialnumber", 4, std::nullopt, std::nullopt, "Serial Number", std::nullopt, tags},
        {"ipv4address", 4, std::nullopt, std::nullopt, "IPv4 Address", std::nullopt, tags},
        {"ipv6address", 4, std::nullopt, std::nullopt, "IPv6 Address", std::nullopt, tags},
    };
}

// Each start of the monitor makes the producer and both declarations anew;
// each stop withdraws them. What a sent event carries is checked through the
// monitor that sends it.
TEST(sibling_events, declares_both_events_and_withdraws_them)
{
    for (int start = 0; start < 2; ++start) {
        auto events = sibling_events::create();
        ASSERT_TRUE(events);
        auto producers = event_library_producers();
        ASSERT_EQ(producers.size(), 1u);
        EXPECT_EQ(producers[0].name, "Kinwatch");
        ASSERT_EQ(producers[0].declarations.size(), 2u);
        EXPECT_EQ(producers[0].declarations[0].keys, expected_keys("SiblingConnected", "Sibling Camera Connected"));
        EXPECT_EQ(producers[0].declarations[1].keys,
                  expected_keys("SiblingDisconnected", "Sibling Camera Disconnected"));
        test::log_capture log;
        events.reset();
        EXPECT_TRUE(log.contains(G_LOG_LEVEL_DEBUG, "event producer Kinwatch: freed with 0 declarations"));
        EXPECT_TRUE(event_library_producers().empty());
    }
}

} // namespace
} // namespace kw
