// kinwatchctl's own logic; the tool against a service is in the lab scenario.

#include "tools/kinwatchctl/command_line.hpp"
#include "tools/kinwatchctl/node_format.hpp"
#include "tools/kinwatchctl/node_watch.hpp"

#include <gtest/gtest.h>

namespace kw::ctl {
namespace {

TEST(command_line, options_in_any_order_and_usage_errors)
{
    std::string error;
    auto line = command_line::parse({"nodes", "--json", "--address", "unix:path=/x", "--lost"}, error);
    ASSERT_TRUE(line) << error;
    EXPECT_TRUE(line->what() == command_line::action::nodes && line->lost() && line->json());
    EXPECT_EQ(line->address(), "unix:path=/x");
    EXPECT_EQ(command_line::parse({"bogus", "--help"}, error)->what(), command_line::action::help);

    const std::pair<std::vector<std::string>, const char*> errors[] = {
        {{"reboot"}, "unknown command reboot"},
        {{"status", "now"}, "status takes no argument"},
        {{"set", "ttl", "1", "--json"}, "--json only goes with status, nodes, watch or stats"},
        {{"nodes", "--limit", "2"}, "--limit only goes with watch"},
        {{"watch", "--limit=0"}, "--limit needs a whole number from 1"},
        {{"--address=", "status"}, "--address needs a bus address"},
        {{"set", "ttl", "1", "2"}, "set needs a setting and a value"},
        {{"set", "TTL", "1"}, "unknown setting TTL (enabled, ttl, group, ipv4-group or ipv6-group)"},
        {{"set", "ttl", "256"}, "invalid value '256' for ttl: expected a whole number from 0 to 255"},
    };
    for (const auto& [args, text] : errors) {
        EXPECT_FALSE(command_line::parse(args, error)) << text;
        EXPECT_EQ(error, text);
    }
    // Values are checked as far as their type allows.
    for (auto [name, value] : {std::pair {"enabled", "ON"}, {"ttl", "0"}, {"group", "4294967295"}, {"ipv4-group", "x"}})
        EXPECT_TRUE(command_line::parse({"set", name, value}, error)) << name << " " << value << ": " << error;
    for (auto [name, value] : {std::pair {"enabled", "maybe"}, {"ttl", "-1"}, {"ttl", "0x10"}, {"group", "4294967296"}})
        EXPECT_FALSE(command_line::parse({"set", name, value}, error)) << name << " " << value;
}

TEST(node_format, ages_times_table_and_json)
{
    const std::int64_t noon = 1795348800; // 2026-11-22 12:00:00 UTC
    auto utc = adopt(g_time_zone_new_identifier("UTC"));
    node_format format(noon, utc.get());
    const std::pair<std::int64_t, const char*> ages[] = {
        {0, "just now"}, {59, "59 s ago"}, {60, "1 min ago"},    {3599, "59 min ago"},
        {3600, "1 h ago"}, {86399, "23 h ago"}, {86400, "1 d ago"}, {-1, "in the future"},
    };
    for (auto [before, age] : ages)
        EXPECT_EQ(format.age(static_cast<std::uint64_t>(noon - before)), age) << before;
    auto kolkata = adopt(g_time_zone_new_identifier("Asia/Kolkata"));
    EXPECT_EQ(node_format(noon, kolkata.get()).seen(noon), "2026-11-22 17:30:00 (just now)");

    EXPECT_EQ(format.table({{"02:00:00:00:00:02", "10.78.0.2", "fd78::2", noon - 3600, noon - 3},
                            {"02:00:00:00:00:0a", "10.78.0.10", "fd78:1234::a", noon - 90, noon}}),
              "HARDWARE ADDRESS   IPV4        IPV6          FIRST SEEN                       LAST SEEN\n"
              "02:00:00:00:00:02  10.78.0.2   fd78::2       2026-11-22 11:00:00 (1 h ago)    2026-11-22 11:59:57 (3 s ago)\n"
              "02:00:00:00:00:0a  10.78.0.10  fd78:1234::a  2026-11-22 11:58:30 (1 min ago)  2026-11-22 12:00:00 (just now)\n");
    EXPECT_EQ(node_format::json_line({"a\"b\\c", "\n\t", std::string("\x01", 1), 1, 18446744073709551615ULL}),
              R"({"mac":"a\"b\\c","ipv4":"\n\t","ipv6":"\u0001","first_seen":1,"last_seen":18446744073709551615})");
}

TEST(node_watch, tells_joins_losses_returns_and_departures_read_or_signalled)
{
    using lines = std::vector<std::string>;
    auto node = [](int n, const char* prefix = "10.78.0.") {
        return node_entry {"02:00:00:00:00:0" + std::to_string(n), prefix + std::to_string(n),
                           "fd78::" + std::to_string(n), 1, 2};
    };
    node_watch watch;
    auto told = [](const std::vector<node_watch::change>& changes) {
        lines out;
        for (const auto& c : changes)
            out.push_back(c.what + " " + c.node.mac.substr(15) + " " + c.node.ipv4);
        return out;
    };
    EXPECT_EQ(told(watch.update({node(2)}, {node(5)})), lines {}); // the baseline is no news
    EXPECT_EQ(told(watch.update({node(3), node(2)}, {node(5)})), lines {"joined 03 10.78.0.3"});
    EXPECT_EQ(told(watch.update({node(3)}, {node(2, "10.99.0."), node(5)})), lines {"lost 02 10.99.0.2"});
    EXPECT_EQ(told(watch.update({node(2), node(5)}, {})),
              (lines {"back 02 10.78.0.2", "back 05 10.78.0.5", "left 03 10.78.0.3"}));
    // Signalled one by one: a node that returns from the lost list is back,
    // one that left and comes again has joined.
    using kind = node_watch::signalled;
    EXPECT_EQ(told({watch.apply(kind::lost, node(2)), watch.apply(kind::joined, node(2)),
                    watch.apply(kind::left, node(5)), watch.apply(kind::joined, node(5))}),
              (lines {"lost 02 10.78.0.2", "back 02 10.78.0.2", "left 05 10.78.0.5", "joined 05 10.78.0.5"}));
    EXPECT_EQ(told(watch.update({node(2), node(5)}, {})), lines {}) << "the mirror followed the signals";
}

} // namespace
} // namespace kw::ctl
