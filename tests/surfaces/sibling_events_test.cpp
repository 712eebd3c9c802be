#include "src/surfaces/sibling_events.hpp"
#include "tests/support/log_capture.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace kw {
namespace {

std::unique_ptr<monitor_message_type> sibling(node_id id, const char* ipv4, const char* ipv6)
{
    in_addr v4 {};
    in6_addr v6 {};
    inet_pton(AF_INET, ipv4, &v4);
    inet_pton(AF_INET6, ipv6, &v6);
    return monitor_message_type::create(peer_message::announce_new(id, 7, v4, v6));
}

std::vector<event_key_record> expected_keys(const char* event_name, const char* event_nice_name)
{
    const std::vector<std::string> data_tags {"onvif-data"};
    return {
        {"topic0", 4, "Velmora", "tnstavix", std::nullopt, std::nullopt, {}},
        {"topic1", 4, "Kinwatch", "tnstavix", std::nullopt, "Kinwatch", {}},
        {"topic2", 4, event_name, "tnstavix", std::nullopt, event_nice_name, {}},
        {"serialnumber", 4, std::nullopt, std::nullopt, "Serial Number", std::nullopt, data_tags},
        {"ipv4address", 4, std::nullopt, std::nullopt, "IPv4 Address", std::nullopt, data_tags},
        {"ipv6address", 4, std::nullopt, std::nullopt, "IPv6 Address", std::nullopt, data_tags},
    };
}

void expect_declared(const event_producer_record& producer)
{
    EXPECT_EQ(producer.name, "Kinwatch");
    ASSERT_EQ(producer.declarations.size(), 2u);
    const auto& connected = producer.declarations[0];
    const auto& disconnected = producer.declarations[1];
    EXPECT_NE(connected.id, 0u);
    EXPECT_NE(disconnected.id, 0u);
    EXPECT_EQ(connected.keys, expected_keys("SiblingConnected", "Sibling Camera Connected"));
    EXPECT_EQ(disconnected.keys, expected_keys("SiblingDisconnected", "Sibling Camera Disconnected"));
    EXPECT_EQ(connected.topic_path, (std::vector<std::string> {"Velmora", "Kinwatch", "SiblingConnected"}));
    EXPECT_EQ(disconnected.topic_path, (std::vector<std::string> {"Velmora", "Kinwatch", "SiblingDisconnected"}));
}

TEST(sibling_events, declares_both_events)
{
    auto events = sibling_events::create();
    ASSERT_TRUE(events);
    auto producers = event_library_producers();
    ASSERT_EQ(producers.size(), 1u);
    expect_declared(producers[0]);
}

TEST(sibling_events, sends_the_three_texts_of_the_record)
{
    auto events = sibling_events::create();
    ASSERT_TRUE(events);
    auto record = sibling(0x020000123456ULL, "10.77.0.2", "fd77::2");
    const std::vector<std::pair<std::string, std::string>> values {
        {"serialnumber", "02:00:00:12:34:56"}, {"ipv4address", "10.77.0.2"}, {"ipv6address", "fd77::2"}};

    for (const std::string name : {"SiblingConnected", "SiblingDisconnected"}) {
        test::log_capture log;
        if (name == "SiblingConnected")
            events->send_connected(*record);
        else
            events->send_disconnected(*record);

        auto producers = event_library_producers();
        ASSERT_EQ(producers.size(), 1u);
        ASSERT_FALSE(producers[0].sent.empty());
        const sent_event& sent = producers[0].sent.back();
        EXPECT_EQ(sent.topic_path, (std::vector<std::string> {"Velmora", "Kinwatch", name}));
        EXPECT_EQ(sent.values, values);
        EXPECT_EQ(sent.flags, 0);
        EXPECT_EQ(log.messages(G_LOG_LEVEL_MESSAGE),
                  std::vector<std::string> {"event Velmora/Kinwatch/" + name +
                                            ": serialnumber=02:00:00:12:34:56 ipv4address=10.77.0.2 "
                                            "ipv6address=fd77::2"});
        EXPECT_EQ(log.debugs().size(), 1u) << "event_print";
    }
    EXPECT_EQ(event_library_producers()[0].sent.size(), 2u);
}

TEST(sibling_events, a_restart_withdraws_everything_and_declares_again)
{
    auto events = sibling_events::create();
    ASSERT_TRUE(events);
    {
        test::log_capture log;
        events.reset();
        EXPECT_EQ(log.debugs(), (std::vector<std::string> {"event producer Kinwatch: withdrew 1",
                                                           "event producer Kinwatch: withdrew 2",
                                                           "event producer Kinwatch: freed with 0 declarations"}));
    }
    EXPECT_TRUE(event_library_producers().empty());

    events = sibling_events::create();
    ASSERT_TRUE(events);
    auto producers = event_library_producers();
    ASSERT_EQ(producers.size(), 1u);
    expect_declared(producers[0]);
    EXPECT_TRUE(producers[0].sent.empty());
}

} // namespace
} // namespace kw
