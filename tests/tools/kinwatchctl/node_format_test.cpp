#include "tools/kinwatchctl/node_format.hpp"

#include <gtest/gtest.h>

#include <sstream>

namespace kw::ctl {
namespace {

// 2026-11-22 12:00:00 UTC.
constexpr std::int64_t noon = 1795348800;

g_ptr<GTimeZone> zone(const char* identifier)
{
    return adopt(g_time_zone_new_identifier(identifier));
}

TEST(node_format, ages_round_down_to_the_largest_whole_unit)
{
    node_format format(noon, zone("UTC").get());
    const struct {
        std::int64_t before;
        const char* age;
    } cases[] = {
        {0, "just now"},        {1, "1 s ago"},          {59, "59 s ago"},        {60, "1 min ago"},
        {180, "3 min ago"},     {3599, "59 min ago"},    {3600, "1 h ago"},       {86399, "23 h ago"},
        {86400, "1 d ago"},     {400 * 86400, "400 d ago"}, {-1, "in the future"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(format.age(static_cast<std::uint64_t>(noon - c.before)), c.age) << c.before;
    EXPECT_EQ(format.age(UINT64_MAX), "in the future");
}

TEST(node_format, times_are_shown_in_the_given_zone)
{
    node_format utc(noon, zone("UTC").get());
    EXPECT_EQ(utc.seen(noon - 179), "2026-11-22 11:57:01 (2 min ago)");
    node_format kolkata(noon, zone("Asia/Kolkata").get());
    EXPECT_EQ(kolkata.seen(noon), "2026-11-22 17:30:00 (just now)");
}

TEST(node_format, table_columns_are_aligned_without_trailing_blanks)
{
    node_format format(noon, zone("UTC").get());
    std::vector<node_entry> nodes = {
        {"02:00:00:00:00:02", "10.78.0.2", "fd78::2", noon - 3600, noon - 3},
        {"02:00:00:00:00:0a", "10.78.0.10", "fd78:1234::a", noon - 90, noon},
    };
    EXPECT_EQ(format.table(nodes),
              "HARDWARE ADDRESS   IPV4        IPV6          FIRST SEEN                       LAST SEEN\n"
              "02:00:00:00:00:02  10.78.0.2   fd78::2       2026-11-22 11:00:00 (1 h ago)    2026-11-22 11:59:57 (3 s ago)\n"
              "02:00:00:00:00:0a  10.78.0.10  fd78:1234::a  2026-11-22 11:58:30 (1 min ago)  2026-11-22 12:00:00 (just now)\n");
}

TEST(node_format, json_lines_escape_what_json_requires)
{
    EXPECT_EQ(node_format::json_string("plain"), "\"plain\"");
    EXPECT_EQ(node_format::json_string("a\"b\\c"), "\"a\\\"b\\\\c\"");
    EXPECT_EQ(node_format::json_string("\n\r\t\b\f"), "\"\\n\\r\\t\\b\\f\"");
    EXPECT_EQ(node_format::json_string(std::string("\x01\x1f", 2)), "\"\\u0001\\u001f\"");
    EXPECT_EQ(node_format::json_string("caf\xc3\xa9/"), "\"caf\xc3\xa9/\"");

    node_entry node {"02:00:00:00:00:02", "10.78.0.2", "fd78::2", 1795348800, 18446744073709551615ULL};
    EXPECT_EQ(node_format::json_line(node), "{\"mac\":\"02:00:00:00:00:02\",\"ipv4\":\"10.78.0.2\","
                                            "\"ipv6\":\"fd78::2\",\"first_seen\":1795348800,"
                                            "\"last_seen\":18446744073709551615}");
}

TEST(node_entry, lists_are_sorted_by_hardware_address)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(ssstt)"));
    for (const char* mac : {"02:00:00:00:00:0b", "02:00:00:00:00:02", "01:ff:00:00:00:00"})
        g_variant_builder_add(&builder, "(ssstt)", mac, "10.0.0.1", "fd00::1", guint64 {1}, guint64 {2});
    auto reply = adopt(g_variant_ref_sink(g_variant_new("(a(ssstt))", &builder)));

    auto list = node_entry::list_from(reply.get());
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].mac, "01:ff:00:00:00:00");
    EXPECT_EQ(list[1].mac, "02:00:00:00:00:02");
    EXPECT_EQ(list[2].mac, "02:00:00:00:00:0b");
    EXPECT_EQ(list[2].first_seen, 1u);
    EXPECT_EQ(list[2].last_seen, 2u);

    auto wrong = adopt(g_variant_ref_sink(g_variant_new("(s)", "x")));
    EXPECT_TRUE(node_entry::list_from(wrong.get()).empty());
}

} // namespace
} // namespace kw::ctl
