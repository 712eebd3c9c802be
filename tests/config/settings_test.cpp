#include "src/config/settings.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

const char* const FULL = "[Settings]\n"
                         "TTL=3\n"
                         "Enabled=true\n"
                         "MulticastGroupIPv4=239.255.77.1\n"
                         "MulticastGroupIPv6=ff05::77\n"
                         "MulticastPort=21844\n"
                         "Interface=eth0\n"
                         "KinwatchGroup=7\n"
                         "MaxHosts=256\n";

// The text with one key's value replaced, or the key dropped when value is null.
std::string with_key(const std::string& key, const char* value, std::string text = FULL)
{
    std::size_t start = text.find("\n" + key + "=") + 1;
    std::size_t end = text.find('\n', start) + 1;
    text.erase(start, end - start);
    if (value)
        text.insert(start, key + "=" + value + "\n");
    return text;
}

std::string text_of(settings& record, bool (settings::*getter)(std::string&))
{
    std::string out = "untouched";
    EXPECT_TRUE((record.*getter)(out));
    return out;
}

TEST(settings, saves_exactly_the_eight_keys_in_their_fixed_order_and_reads_them_back)
{
    test::temp_dir dir;
    // Keys out of order, so the save order cannot come from the file.
    std::string path = dir.write("kinwatch.conf", "[Settings]\nMaxHosts=256\nInterface=eth0\nKinwatchGroup=7\n"
                                                  "MulticastPort=21844\nMulticastGroupIPv6=ff05::77\n"
                                                  "MulticastGroupIPv4=239.255.77.1\nEnabled=true\nTTL=3\n");
    {
        auto record = settings::create(path);
        ASSERT_TRUE(record);
        EXPECT_EQ(record->get_ttl(), 3);
        EXPECT_TRUE(record->get_enabled());
        EXPECT_EQ(text_of(*record, &settings::get_ipv4_group), "239.255.77.1");
        EXPECT_EQ(text_of(*record, &settings::get_ipv6_group), "ff05::77");
        EXPECT_EQ(record->get_port(), 21844);
        EXPECT_EQ(text_of(*record, &settings::get_interface), "eth0");
        EXPECT_EQ(record->get_group(), 7u);
        EXPECT_EQ(record->get_max_hosts(), 256);
        ASSERT_TRUE(record->save());
    }
    EXPECT_EQ(dir.read("kinwatch.conf"), FULL);

    {
        auto record = settings::create(path);
        ASSERT_TRUE(record);
        EXPECT_TRUE(record->set_ttl(200) && record->set_enabled(false) && record->set_ipv4_group("239.1.2.3") &&
                    record->set_ipv6_group("ff02::1:2") && record->set_port(65535) &&
                    record->set_interface("br-lan") && record->set_group(123456) && record->set_max_hosts(9));
    }
    EXPECT_EQ(dir.read("kinwatch.conf"), "[Settings]\nTTL=200\nEnabled=false\nMulticastGroupIPv4=239.1.2.3\n"
                                         "MulticastGroupIPv6=ff02::1:2\nMulticastPort=65535\nInterface=br-lan\n"
                                         "KinwatchGroup=123456\nMaxHosts=9\n");
}

TEST(settings, port_and_group_numbers_wrap_as_the_file_stores_them)
{
    test::temp_dir dir;
    for (const auto& [value, port] : {std::pair<const char*, std::uint16_t> {"70000", 4464}, {"-1", 65535}}) {
        auto record = settings::create(dir.write("kinwatch.conf", with_key("MulticastPort", value)));
        ASSERT_TRUE(record) << value;
        EXPECT_EQ(record->get_port(), port) << value;
    }

    auto record = settings::create(dir.write("kinwatch.conf", FULL));
    ASSERT_TRUE(record);
    EXPECT_TRUE(record->set_group(4294967295u));
    record.reset();
    EXPECT_EQ(dir.read("kinwatch.conf"), with_key("KinwatchGroup", "-1"));
    record = settings::create(dir.file("kinwatch.conf"));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->get_group(), 4294967295u);
}

TEST(settings, refused_setters_log_their_text_and_change_nothing)
{
    test::temp_dir dir;
    auto record = settings::create(dir.write("kinwatch.conf", FULL));
    ASSERT_TRUE(record);
    test::log_capture log;

    EXPECT_FALSE(record->set_ttl(0));
    EXPECT_FALSE(record->set_ttl(256));
    EXPECT_FALSE(record->set_port(0));
    EXPECT_FALSE(record->set_max_hosts(0));
    EXPECT_EQ(log.warnings(), (std::vector<std::string> {
                                  "TTL must be in the range 0 < ttl < 256",
                                  "TTL must be in the range 0 < ttl < 256",
                                  "Port number must be greater than zero",
                                  "The maximum number of hosts must be larger than 0",
                              }));
    EXPECT_EQ(record->get_ttl(), 3);
    EXPECT_EQ(record->get_port(), 21844);
    EXPECT_EQ(record->get_max_hosts(), 256);
    EXPECT_FALSE(record->changed());

    for (int ttl : {1, 255}) {
        EXPECT_TRUE(record->set_ttl(ttl));
        EXPECT_EQ(record->get_ttl(), ttl);
    }
    EXPECT_EQ(log.warnings().size(), 4u);
}

TEST(settings, invalid_files_are_refused_with_the_first_failing_key)
{
    const std::pair<std::string, const char*> rows[] = {
        {with_key("MaxHosts", nullptr), "MaxHosts"},
        {with_key("Enabled", "yes"), "Enabled"},
    };
    for (const auto& [content, key] : rows) {
        SCOPED_TRACE(key);
        test::temp_dir dir;
        test::log_capture log;
        EXPECT_FALSE(settings::create(dir.write("kinwatch.conf", content)));
        auto warnings = log.warnings();
        ASSERT_EQ(warnings.size(), 2u);
        EXPECT_EQ(warnings[0].rfind("Failure: ", 0), 0u) << warnings[0];
        EXPECT_NE(warnings[0].find(key), std::string::npos) << warnings[0];
        EXPECT_EQ(warnings[1], "No such file or file is not a valid configuration");
    }
}

TEST(settings, release_rewrites_the_file_only_after_a_change)
{
    const std::string decorated = "# Written by hand.\n[Settings]\n# The hop limit.\n"
                                  "TTL=3\nEnabled=true\nMulticastGroupIPv4=239.255.77.1\n"
                                  "MulticastGroupIPv6=ff05::77\nMulticastPort=21844\nInterface=eth0\n"
                                  "KinwatchGroup=7\nMaxHosts=256\nComment=kept until the first change\n"
                                  "\n[Extra]\nKey=value\n";
    test::temp_dir dir;
    std::string path = dir.write("kinwatch.conf", decorated);
    settings::create(path).reset();
    EXPECT_EQ(dir.read("kinwatch.conf"), decorated);

    // Setting the value already held still counts as a change.
    auto record = settings::create(path);
    ASSERT_TRUE(record);
    EXPECT_TRUE(record->set_enabled(true));
    record.reset();
    EXPECT_EQ(dir.read("kinwatch.conf"), FULL);

    // Release writes again after an explicit save.
    record = settings::create(path);
    ASSERT_TRUE(record);
    EXPECT_TRUE(record->set_ttl(9));
    EXPECT_TRUE(record->save());
    dir.write("kinwatch.conf", "overwritten meanwhile\n");
    record.reset();
    EXPECT_EQ(dir.read("kinwatch.conf"), with_key("TTL", "9"));
}

TEST(settings, shipped_example_loads)
{
    test::log_capture log;
    auto record = settings::create(KW_EXAMPLE_CONFIG);
    ASSERT_TRUE(record);
    EXPECT_FALSE(record->get_enabled());
    EXPECT_TRUE(log.lines().empty());
}

} // namespace
} // namespace kw
