#include "src/tracking/monitor_message_type.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/tracking/date_time_ledger.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace kw {
namespace {

std::unique_ptr<peer_message> announce(node_id id, const char* ipv4 = "0.0.0.0", const char* ipv6 = "::")
{
    in_addr v4 {};
    in6_addr v6 {};
    inet_pton(AF_INET, ipv4, &v4);
    inet_pton(AF_INET6, ipv6, &v6);
    return peer_message::announce_new(id, 7, v4, v6);
}

// A clock that always reads the given date-time, handing out a new reference each time.
local_clock fixed_clock(GDateTime* time)
{
    return [time] { return ref(time); };
}

TEST(monitor_message_type, holds_one_date_time_twice_and_releases_both)
{
    g_ptr<GDateTime> mine = test::counted(g_date_time_new_local(2024, 5, 6, 7, 8, 9));
    int readings = 0;
    auto record = monitor_message_type::create(announce(1), [&] {
        ++readings;
        return ref(mine.get());
    });
    ASSERT_TRUE(record);
    EXPECT_EQ(readings, 1);
    EXPECT_EQ(record->get_first_seen(), mine.get());
    EXPECT_EQ(record->get_last_seen(), mine.get());
    EXPECT_EQ(record->is_stale(), 0);
    EXPECT_EQ(test::references(mine.get()), 3);

    record.reset();
    EXPECT_EQ(test::references(mine.get()), 1);
}

TEST(monitor_message_type, copy_shares_the_times_and_outlives_its_source)
{
    g_ptr<GDateTime> first = test::counted(g_date_time_new_local(2024, 5, 6, 7, 8, 9));
    g_ptr<GDateTime> last = test::counted(g_date_time_new_local(2024, 5, 6, 7, 9, 0));
    auto source = monitor_message_type::create(announce(0x020000123456ULL, "10.77.0.2", "fd77::2"),
                                               fixed_clock(first.get()));
    ASSERT_TRUE(source);
    source->set_last_seen(ref(last.get()));
    source->set_stale(1);
    EXPECT_EQ(test::references(first.get()), 2);
    EXPECT_EQ(test::references(last.get()), 2);

    auto copy = source->copy();
    source.reset();
    EXPECT_EQ(copy->get_first_seen(), first.get());
    EXPECT_EQ(copy->get_last_seen(), last.get());
    EXPECT_EQ(copy->is_stale(), 0);
    EXPECT_EQ(copy->get_message().get_node_id(), 0x020000123456ULL);
    EXPECT_EQ(copy->get_ipv4_string(), "10.77.0.2");
    EXPECT_EQ(test::references(first.get()), 2);
    EXPECT_EQ(test::references(last.get()), 2);

    copy.reset();
    EXPECT_EQ(test::references(first.get()), 1);
    EXPECT_EQ(test::references(last.get()), 1);
}

TEST(monitor_message_type, address_texts)
{
    struct {
        node_id id;
        const char* ipv4;
        const char* ipv6;
        const char* mac;
    } const cases[] = {
        {0, "0.0.0.0", "::", "00:00:00:00:00:00"},
        {0x020000123456ULL, "10.77.0.2", "fd77::2", "02:00:00:12:34:56"},
        {0xaabbccddeeffULL, "255.255.255.255", "fe80::1:2:3:4", "aa:bb:cc:dd:ee:ff"},
    };
    for (const auto& c : cases) {
        auto record = monitor_message_type::create(announce(c.id, c.ipv4, c.ipv6));
        ASSERT_TRUE(record);
        EXPECT_EQ(record->get_ipv4_string(), c.ipv4);
        EXPECT_EQ(record->get_ipv6_string(), c.ipv6);
        EXPECT_EQ(record->get_mac_string(), c.mac);
    }
}

TEST(monitor_message_type, prints_the_node_id_in_twelve_digits_and_both_times)
{
    g_ptr<GDateTime> first = test::counted(g_date_time_new_local(2024, 5, 6, 7, 8, 9));
    auto record = monitor_message_type::create(announce(1), fixed_clock(first.get()));
    ASSERT_TRUE(record);
    record->set_last_seen(test::counted(g_date_time_new_local(2024, 5, 6, 17, 0, 1)));

    test::log_capture log;
    record->print();
    EXPECT_EQ(log.debugs(), std::vector<std::string> {
                                "ANNOUNCE: 000000000001, First seen: 2024-05-06 07:08:09, Last seen: 2024-05-06 17:00:01"});
}

} // namespace
} // namespace kw
