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
        EXPECT_TRUE(record->loaded());
        EXPECT_FALSE(record->changed());
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

    // Every setter's value reaches the file written at release.
    {
        auto record = settings::create(path);
        ASSERT_TRUE(record);
        EXPECT_TRUE(record->set_ttl(200));
        EXPECT_TRUE(record->set_enabled(false));
        EXPECT_TRUE(record->set_ipv4_group("239.1.2.3"));
        EXPECT_TRUE(record->set_ipv6_group("ff02::1:2"));
        EXPECT_TRUE(record->set_port(65535));
        EXPECT_TRUE(record->set_interface("br-lan"));
        EXPECT_TRUE(record->set_group(123456));
        EXPECT_TRUE(record->set_max_hosts(9));
        EXPECT_TRUE(record->changed());
    }
    EXPECT_EQ(dir.read("kinwatch.conf"), "[Settings]\nTTL=200\nEnabled=false\nMulticastGroupIPv4=239.1.2.3\n"
                                         "MulticastGroupIPv6=ff02::1:2\nMulticastPort=65535\nInterface=br-lan\n"
                                         "KinwatchGroup=123456\nMaxHosts=9\n");
}

TEST(settings, file_values_are_taken_as_they_stand)
{
    test::temp_dir dir;
    const std::pair<const char*, std::uint16_t> ports[] = {{"70000", 4464}, {"-1", 65535}, {"0", 0}, {"65536", 0}};
    for (const auto& [value, port] : ports) {
        auto record = settings::create(dir.write("kinwatch.conf", with_key("MulticastPort", value)));
        ASSERT_TRUE(record) << value;
        EXPECT_EQ(record->get_port(), port) << value;
    }

    // Values that the setters would refuse still load.
    auto record = settings::create(dir.write(
        "kinwatch.conf", with_key("TTL", "0", with_key("MaxHosts", "-5", with_key("Interface", "")))));
    ASSERT_TRUE(record);
    EXPECT_EQ(record->get_ttl(), 0);
    EXPECT_EQ(record->get_max_hosts(), -5);
    EXPECT_EQ(text_of(*record, &settings::get_interface), "");
}

TEST(settings, group_number_keeps_all_32_bits_through_the_file)
{
    test::temp_dir dir;
    std::string path = dir.write("kinwatch.conf", FULL);
    {
        auto record = settings::create(path);
        ASSERT_TRUE(record);
        EXPECT_TRUE(record->set_group(4294967295u));
    }
    EXPECT_EQ(dir.read("kinwatch.conf"), with_key("KinwatchGroup", "-1"));
    auto record = settings::create(path);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->get_group(), 4294967295u);
}

TEST(settings, refused_setters_log_their_text_and_change_nothing)
{
    test::temp_dir dir;
    std::string path = dir.write("kinwatch.conf", FULL);
    auto record = settings::create(path);
    ASSERT_TRUE(record);
    test::log_capture log;

    for (int ttl : {0, 256, -1, 1000})
        EXPECT_FALSE(record->set_ttl(ttl)) << ttl;
    EXPECT_FALSE(record->set_port(0));
    EXPECT_FALSE(record->set_max_hosts(0));

    EXPECT_EQ(log.warnings(), (std::vector<std::string> {
                                  "TTL must be in the range 0 < ttl < 256",
                                  "TTL must be in the range 0 < ttl < 256",
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
    EXPECT_EQ(log.warnings().size(), 6u);
}

TEST(settings, invalid_files_are_refused_with_the_first_failing_key)
{
    struct row {
        const char* name;
        std::string content; // empty: no file at all
        const char* named;   // the key (or group) the library's message must name
    };
    const row rows[] = {
        {"missing file", "", nullptr},
        {"not a key file", "this is not a key file\n", nullptr},
        {"other group only", "[Other]\nTTL=1\n", "Settings"},
        {"no MaxHosts", with_key("MaxHosts", nullptr), "MaxHosts"},
        {"no TTL and no MaxHosts", with_key("TTL", nullptr, with_key("MaxHosts", nullptr)), "TTL"},
        {"Enabled=yes", with_key("Enabled", "yes"), "Enabled"},
        {"port not a number", with_key("MulticastPort", "high"), "MulticastPort"},
        {"group beyond 32 bits", with_key("KinwatchGroup", "4294967295"), "KinwatchGroup"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        test::temp_dir dir;
        std::string path = r.content.empty() ? dir.file("absent.conf") : dir.write("kinwatch.conf", r.content);
        test::log_capture log;
        EXPECT_FALSE(settings::create(path));
        auto warnings = log.warnings();
        ASSERT_EQ(warnings.size(), 2u);
        EXPECT_EQ(warnings[0].rfind("Failure: ", 0), 0u) << warnings[0];
        if (r.named) {
            EXPECT_NE(warnings[0].find(r.named), std::string::npos) << warnings[0];
        }
        EXPECT_EQ(warnings[1], "No such file or file is not a valid configuration");
        // A refused file is never written.
        EXPECT_EQ(dir.read("kinwatch.conf").value_or(""), r.content);
    }
}

TEST(settings, a_failed_reload_keeps_every_previous_value)
{
    test::temp_dir dir;
    std::string path = dir.write("kinwatch.conf", FULL);
    auto record = settings::create(path);
    ASSERT_TRUE(record);
    // Every key but the last one differs, so a partial store would show.
    dir.write("kinwatch.conf", "[Settings]\nTTL=9\nEnabled=false\nMulticastGroupIPv4=x\nMulticastGroupIPv6=y\n"
                               "MulticastPort=1\nInterface=z\nKinwatchGroup=1\n");
    test::log_capture log;
    EXPECT_FALSE(record->load());
    EXPECT_EQ(log.warnings().size(), 1u);
    EXPECT_EQ(record->get_ttl(), 3);
    EXPECT_TRUE(record->get_enabled());
    EXPECT_EQ(text_of(*record, &settings::get_ipv4_group), "239.255.77.1");
    EXPECT_EQ(text_of(*record, &settings::get_interface), "eth0");
    EXPECT_EQ(record->get_port(), 21844);
    EXPECT_EQ(record->get_group(), 7u);
}

TEST(settings, release_rewrites_the_file_only_after_a_change)
{
    const std::string decorated = "# Written by hand.\n"
                                  "[Settings]\n"
                                  "# The hop limit.\n"
                                  "TTL=3\nEnabled=true\nMulticastGroupIPv4=239.255.77.1\n"
                                  "MulticastGroupIPv6=ff05::77\nMulticastPort=21844\nInterface=eth0\n"
                                  "KinwatchGroup=7\nMaxHosts=256\nComment=kept until the first change\n"
                                  "\n[Extra]\nKey=value\n";
    test::temp_dir dir;
    std::string path = dir.write("kinwatch.conf", decorated);

    settings::create(path).reset();
    EXPECT_EQ(dir.read("kinwatch.conf"), decorated);

    // A refused setter is no change either.
    {
        auto record = settings::create(path);
        ASSERT_TRUE(record);
        EXPECT_FALSE(record->set_port(0));
    }
    EXPECT_EQ(dir.read("kinwatch.conf"), decorated);

    // Setting the value already held still counts as a change.
    {
        auto record = settings::create(path);
        ASSERT_TRUE(record);
        EXPECT_TRUE(record->set_enabled(true));
    }
    EXPECT_EQ(dir.read("kinwatch.conf"), FULL);
}

TEST(settings, release_writes_again_after_an_explicit_save)
{
    test::temp_dir dir;
    std::string path = dir.write("kinwatch.conf", FULL);
    {
        auto record = settings::create(path);
        ASSERT_TRUE(record);
        EXPECT_TRUE(record->set_ttl(9));
        EXPECT_TRUE(record->save());
        EXPECT_TRUE(record->changed());
        dir.write("kinwatch.conf", "overwritten meanwhile\n");
    }
    EXPECT_EQ(dir.read("kinwatch.conf"), with_key("TTL", "9"));
}

TEST(settings, failed_write_at_release_is_logged)
{
    test::temp_dir dir;
    std::string folder = dir.file("gone");
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    std::string path = folder + "/kinwatch.conf";
    g_file_set_contents(path.c_str(), FULL, -1, nullptr);

    auto record = settings::create(path);
    ASSERT_TRUE(record);
    EXPECT_TRUE(record->set_max_hosts(4));
    std::filesystem::remove_all(folder);
    EXPECT_FALSE(record->save());

    test::log_capture log;
    record.reset();
    EXPECT_EQ(log.warnings(), std::vector<std::string> {"Failed to save configuration to file"});
}

TEST(settings, shipped_example_loads)
{
    test::log_capture log;
    auto record = settings::create(KW_EXAMPLE_CONFIG);
    ASSERT_TRUE(record);
    EXPECT_FALSE(record->get_enabled());
    EXPECT_GE(record->get_ttl(), 1);
    EXPECT_LE(record->get_ttl(), 255);
    EXPECT_GT(record->get_port(), 1024);
    EXPECT_GT(record->get_max_hosts(), 0);
    EXPECT_TRUE(log.lines().empty());
}

} // namespace
} // namespace kw
