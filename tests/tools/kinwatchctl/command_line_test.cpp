#include "tools/kinwatchctl/command_line.hpp"

#include <gtest/gtest.h>

namespace kw::ctl {
namespace {

using action = command_line::action;

TEST(command_line, commands_and_options_are_read_in_any_order)
{
    std::string error;
    auto line = command_line::parse({"nodes", "--json", "--address", "unix:path=/x", "--lost"}, error);
    ASSERT_TRUE(line) << error;
    EXPECT_EQ(line->what(), action::nodes);
    EXPECT_EQ(line->address(), "unix:path=/x");
    EXPECT_TRUE(line->lost());
    EXPECT_TRUE(line->json());

    line = command_line::parse({"--address=unix:path=/y", "watch"}, error);
    ASSERT_TRUE(line) << error;
    EXPECT_EQ(line->what(), action::watch);
    EXPECT_EQ(line->address(), "unix:path=/y");

    line = command_line::parse({}, error);
    ASSERT_TRUE(line) << error;
    EXPECT_EQ(line->what(), action::status);
    EXPECT_EQ(line->address(), "");

    // Help and version win even over a command line that is otherwise wrong.
    line = command_line::parse({"bogus", "--help"}, error);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->what(), action::help);
    line = command_line::parse({"--version", "status"}, error);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->what(), action::version);
}

TEST(command_line, usage_errors_say_what_is_wrong)
{
    const struct {
        std::vector<std::string> args;
        const char* error;
    } cases[] = {
        {{"reboot"}, "unknown command reboot"},
        {{"status", "--verbose"}, "unknown option --verbose"},
        {{"status", "now"}, "status takes no argument"},
        {{"status", "--json"}, "--json only goes with nodes"},
        {{"watch", "--lost"}, "--lost only goes with nodes"},
        {{"--address"}, "--address needs a bus address"},
        {{"--address=", "status"}, "--address needs a bus address"},
        {{"set", "ttl"}, "set needs a setting and a value"},
        {{"set", "ttl", "1", "2"}, "set needs a setting and a value"},
        {{"set", "port", "1"}, "unknown setting port (enabled, ttl, group, ipv4-group or ipv6-group)"},
        {{"set", "TTL", "1"}, "unknown setting TTL (enabled, ttl, group, ipv4-group or ipv6-group)"},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(command_line::parse(c.args, error)) << c.error;
        EXPECT_EQ(error, c.error);
    }
}

TEST(command_line, set_values_are_checked_as_far_as_their_type_allows)
{
    const struct {
        const char* name;
        const char* value;
        bool accepted;
    } cases[] = {
        {"enabled", "true", true},     {"enabled", "No", true},       {"enabled", "ON", true},
        {"enabled", "0", true},        {"enabled", "maybe", false},   {"enabled", "", false},
        {"ttl", "0", true},            {"ttl", "255", true},          {"ttl", "256", false},
        {"ttl", "-1", false},          {"ttl", "+1", false},          {"ttl", "0x10", false},
        {"ttl", " 1", false},          {"group", "4294967295", true}, {"group", "4294967296", false},
        {"group", "99999999999999999999999", false},                  {"ipv4-group", "nonsense", true},
        {"ipv6-group", "ff05::1", true},
    };
    for (const auto& c : cases) {
        std::string error;
        auto line = command_line::parse({"set", c.name, c.value}, error);
        EXPECT_EQ(static_cast<bool>(line), c.accepted) << c.name << " " << c.value << ": " << error;
        if (line) {
            EXPECT_EQ(line->what(), action::set);
            EXPECT_EQ(line->setting_name(), c.name);
            EXPECT_EQ(line->value(), c.value);
        } else {
            EXPECT_EQ(error.rfind(std::string("invalid value '") + c.value + "' for " + c.name + ": ", 0), 0u)
                << error;
        }
    }

    // A value that starts with a dash is a value, not an option.
    std::string error;
    EXPECT_FALSE(command_line::parse({"set", "group", "-5"}, error));
    EXPECT_NE(error.find("invalid value '-5' for group"), std::string::npos) << error;
    auto line = command_line::parse({"set", "--", "ipv4-group", "-x"}, error);
    ASSERT_TRUE(line) << error;
    EXPECT_EQ(line->value(), "-x");
}

} // namespace
} // namespace kw::ctl
