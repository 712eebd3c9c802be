#include "src/surfaces/sibling_events.hpp"
#include "tests/support/log_capture.hpp"

#include <gtest/gtest.h>

#include <map>

namespace kw {
namespace {

// Each start declares both events anew and each stop withdraws them (the monitor's test checks what they carry).
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

// Keeps the entries that have a MESSAGE_ID: their text and fields.
GLogWriterOutput keep(GLogLevelFlags, const GLogField* fields, gsize count, gpointer told)
{
    std::map<std::string, std::string> entry;
    for (gsize i = 0; i < count; ++i)
        entry[fields[i].key] = fields[i].length < 0 ? static_cast<const char*>(fields[i].value) : "";
    if (entry.contains("MESSAGE_ID"))
        static_cast<std::vector<std::string>*>(told)->push_back(entry["PRIORITY"] + " " + entry["MESSAGE"] + " | " +
            entry["MESSAGE_ID"] + " " + entry["SIBLING_MAC"] + " " + entry["SIBLING_IPV4"] + " " + entry["SIBLING_IPV6"]);
    return G_LOG_WRITER_HANDLED;
}

// Each event is also a journal entry selected by its MESSAGE_ID, with the sibling in fields of its own.
TEST(sibling_events, each_event_is_also_an_entry_with_its_message_id_and_the_sibling_in_fields)
{
    static std::vector<std::string> told; // the one writer a process may install keeps it for good
    g_log_set_writer_func(&keep, &told, nullptr);
    in_addr ipv4 {htonl(0x0a010203)};
    in6_addr ipv6 {{{0xfd, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3}}};
    auto record = monitor_message_type::create(*peer_message::announce_new(0x020000123456ULL, 1, ipv4, ipv6));
    auto events = sibling_events::create();
    events->send_connected(*record);
    events->send_disconnected(*record);
    const std::string sibling = "5 Sibling 02:00:00:12:34:56 ", fields = " 02:00:00:12:34:56 10.1.2.3 fd01::3";
    EXPECT_EQ(told, (std::vector<std::string> {
        sibling + "connected (10.1.2.3, fd01::3) | a6bc5612891b42309c22fc7130d6c660" + fields,
        sibling + "disconnected (10.1.2.3, fd01::3) | fecdf095ed9e4d9fab5bd55aa50f6f62" + fields}));
}

} // namespace
} // namespace kw
