#include "src/surfaces/sibling_events.hpp"
#include "tests/support/log_capture.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

// Each start of the monitor declares both events anew and each stop withdraws
// them. What a sent event carries is checked through the monitor that sends it.
TEST(sibling_events, declares_both_events_and_withdraws_them)
{
    auto keys = [](const char* name, const char* nice_name) {
        return std::vector<event_key_record> {
            {"topic0", 4, "Velmora", "tnstavix", std::nullopt, std::nullopt, {}},
            {"topic1", 4, "Kinwatch", "tnstavix", std::nullopt, "Kinwatch", {}},
            {"topic2", 4, name, "tnstavix", std::nullopt, nice_name, {}},
            {"serialnumber", 4, std::nullopt, std::nullopt, "Serial Number", std::nullopt, {"onvif-data"}},
            {"ipv4address", 4, std::nullopt, std::nullopt, "IPv4 Address", std::nullopt, {"onvif-data"}},
            {"ipv6address", 4, std::nullopt, std::nullopt, "IPv6 Address", std::nullopt, {"onvif-data"}}};
    };
    for (int start = 0; start < 2; ++start) {
        auto events = sibling_events::create();
        auto producers = event_library_producers();
        ASSERT_TRUE(events && producers.size() == 1u && producers[0].declarations.size() == 2u);
        EXPECT_EQ(producers[0].name, "Kinwatch");
        EXPECT_EQ(producers[0].declarations[0].keys, keys("SiblingConnected", "Sibling Camera Connected"));
        EXPECT_EQ(producers[0].declarations[1].keys, keys("SiblingDisconnected", "Sibling Camera Disconnected"));
        test::log_capture log;
        events.reset();
        EXPECT_TRUE(log.contains(G_LOG_LEVEL_DEBUG, "event producer Kinwatch: freed with 0 declarations"));
        EXPECT_TRUE(event_library_producers().empty());
    }
}

} // namespace
} // namespace kw
