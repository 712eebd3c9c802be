#include "src/config/settings.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

const std::string FULL = "[Settings]\nTTL=3\nEnabled=true\nMulticastGroupIPv4=239.255.77.1\nMulticastGroupIPv6=ff05::77\n"
                         "MulticastPort=21844\nInterface=eth0\nKinwatchGroup=7\nMaxHosts=256\n";

std::string summary(settings& record)
{
    std::string ipv4, ipv6, interface;
    EXPECT_TRUE(record.get_ipv4_group(ipv4) && record.get_ipv6_group(ipv6) && record.get_interface(interface));
    return std::to_string(record.get_ttl()) + (record.get_enabled() ? " on " : " off ") + ipv4 + " " + ipv6 + " " +
           std::to_string(record.get_port()) + " [" + interface + "] " + std::to_string(record.get_group()) + " " +
           std::to_string(record.get_max_hosts());
}

// FULL with one key's value replaced (or dropped): the values read, or the key the refusal names.
TEST(settings, key_file_values_taken_and_refused)
{
    const std::tuple<std::string, const char*, std::string> rows[] = {
        {"MulticastPort", "70000", "3 on 239.255.77.1 ff05::77 4464 [eth0] 7 256"},
        {"MulticastPort", "-1", "3 on 239.255.77.1 ff05::77 65535 [eth0] 7 256"},
        {"MulticastPort", "0", "3 on 239.255.77.1 ff05::77 0 [eth0] 7 256"},
        {"TTL", "0", "0 on 239.255.77.1 ff05::77 21844 [eth0] 7 256"},
        {"KinwatchGroup", "-1", "3 on 239.255.77.1 ff05::77 21844 [eth0] 4294967295 256"},
        {"Interface", "", "3 on 239.255.77.1 ff05::77 21844 [] 7 256"},
        {"MaxHosts", nullptr, "MaxHosts"}, {"Enabled", "yes", "Enabled"}, {"TTL", "x", "TTL"},
        {"KinwatchGroup", "7.5", "KinwatchGroup"},
    };
    for (const auto& [key, value, expected] : rows) {
        SCOPED_TRACE(key + "=" + (value ? value : "(none)"));
        std::string text = FULL;
        std::size_t start = text.find("\n" + key + "=") + 1;
        text.replace(start, text.find('\n', start) + 1 - start, value ? key + "=" + value + "\n" : "");
        test::temp_dir dir;
        test::log_capture log;
        if (auto record = settings::create(dir.write("kinwatch.conf", text))) {
            EXPECT_EQ(summary(*record), expected);
            continue;
        }
        auto warnings = log.warnings();
        ASSERT_EQ(warnings.size(), 2u);
        EXPECT_TRUE(warnings[0].starts_with("Failure: ") && warnings[0].find(expected) != std::string::npos) << warnings[0];
        EXPECT_EQ(warnings[1], "No such file or file is not a valid configuration");
    }
    test::temp_dir dir; // a copy: a faulty record must not rewrite the shipped example
    std::filesystem::copy_file(KW_EXAMPLE_CONFIG, dir.file("example.conf"));
    EXPECT_TRUE(settings::create(dir.file("example.conf"))) << "the example file that is shipped";
}

TEST(settings, setters_and_the_rewritten_file)
{
    const std::string by_hand = "# by hand\n[Settings]\nMaxHosts=256\nInterface=eth0\nKinwatchGroup=7\nMulticastPort=21844\n"
                                "MulticastGroupIPv6=ff05::77\nMulticastGroupIPv4=239.255.77.1\nEnabled=true\nTTL=3\n"
                                "Other=1\n[Extra]\nKey=value\n";
    test::temp_dir dir;
    std::string path = dir.write("kinwatch.conf", by_hand);
    test::log_capture log;
    settings::create(path)->set_ttl(0); // refused: the file stays untouched
    EXPECT_EQ(dir.read("kinwatch.conf"), by_hand);
    settings::create(path)->set_enabled(true); // the value held already is still a change
    EXPECT_EQ(dir.read("kinwatch.conf"), FULL);

    auto record = settings::create(path);
    EXPECT_FALSE(record->set_ttl(256) || record->set_port(0) || record->set_max_hosts(0));
    EXPECT_EQ(log.warnings(), (std::vector<std::string> {"TTL must be in the range 0 < ttl < 256",
        "TTL must be in the range 0 < ttl < 256", "Port number must be greater than zero",
        "The maximum number of hosts must be larger than 0"}));
    EXPECT_EQ(summary(*record), "3 on 239.255.77.1 ff05::77 21844 [eth0] 7 256");
    EXPECT_TRUE(record->set_ttl(1) && record->set_ttl(255) && record->set_enabled(false) &&
                record->set_ipv4_group("239.1.2.3") && record->set_ipv6_group("ff02::1") && record->set_port(1) &&
                record->set_interface("br0") && record->set_group(4294967295u) && record->set_max_hosts(9));
    EXPECT_TRUE(record->save());
    dir.write("kinwatch.conf", "overwritten since\n"); // the release writes once more
    record.reset();
    EXPECT_EQ(dir.read("kinwatch.conf"), "[Settings]\nTTL=255\nEnabled=false\nMulticastGroupIPv4=239.1.2.3\n"
                                         "MulticastGroupIPv6=ff02::1\nMulticastPort=1\nInterface=br0\n"
                                         "KinwatchGroup=-1\nMaxHosts=9\n");
}

} // namespace
} // namespace kw
