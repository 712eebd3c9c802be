#include "src/hostnet/mac_address.hpp"
#include "tests/support/log_capture.hpp"

#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <fstream>

namespace kw {
namespace {

// A throw-away sysfs-like tree: <root>/<interface>/address.
class fake_sysfs {
public:
    fake_sysfs()
    {
        char templ[] = "/tmp/kw-sysfs-XXXXXX";
        m_root = g_mkdtemp(templ);
    }
    ~fake_sysfs() { std::system(("rm -rf " + m_root).c_str()); }

    void write(const std::string& interface, const std::string& content)
    {
        std::string dir = m_root + "/" + interface;
        g_mkdir_with_parents(dir.c_str(), 0755);
        std::ofstream(dir + "/address") << content;
    }
    const std::string& root() const { return m_root; }

private:
    std::string m_root;
};

TEST(mac_address, reads_the_first_seventeen_characters_of_the_sysfs_file)
{
    fake_sysfs sysfs;
    sysfs.write("eth0", "02:00:00:12:34:56\n");
    sysfs.write("ib0", "80:00:02:08:fe:80:00:00:00:00:00:00:00:02:c9:03:00:0a:0b:0c\n");
    sysfs.write("short0", "ab:cd\n");
    sysfs.write("empty0", "");

    EXPECT_EQ(mac_address::read("eth0", sysfs.root()), "02:00:00:12:34:56");
    EXPECT_EQ(mac_address::read("ib0", sysfs.root()), "80:00:02:08:fe:80");
    EXPECT_EQ(mac_address::read("short0", sysfs.root()), "ab:cd\n");
    EXPECT_EQ(mac_address::read("empty0", sysfs.root()), std::nullopt);
}

TEST(mac_address, missing_interface_logs_the_full_path)
{
    fake_sysfs sysfs;
    test::log_capture log;
    EXPECT_EQ(mac_address::read("nosuch0", sysfs.root()), std::nullopt);
    EXPECT_EQ(log.warnings(), std::vector<std::string> {"Could not open: " + sysfs.root() + "/nosuch0/address"});
}

TEST(mac_address, parses_upper_and_lower_case_and_formats_lower_case)
{
    EXPECT_EQ(mac_address::parse("02:00:00:12:34:56"), 0x020000123456ULL);
    EXPECT_EQ(mac_address::parse("02:00:00:12:34:56\n"), 0x020000123456ULL);
    EXPECT_EQ(mac_address::parse("AA:BB:CC:DD:EE:0F"), 0xaabbccddee0fULL);
    EXPECT_EQ(mac_address::parse("aa:bb:cc:dd:ee:0f"), 0xaabbccddee0fULL);
    EXPECT_EQ(mac_address::format(*mac_address::parse("AA:BB:CC:DD:EE:0F")), "aa:bb:cc:dd:ee:0f");
    EXPECT_EQ(mac_address::format(1), "00:00:00:00:00:01");
    EXPECT_EQ(mac_address::format(0xffff020000123456ULL), "02:00:00:12:34:56");
    // Leading blanks are skipped and a field without digits reads as 0.
    EXPECT_EQ(mac_address::parse(" 1:zz:3:4:5:6"), 0x010003040506ULL);
}

TEST(mac_address, refuses_a_text_of_fewer_than_six_fields)
{
    EXPECT_EQ(mac_address::parse(""), std::nullopt);
    EXPECT_EQ(mac_address::parse("\n"), std::nullopt);
    EXPECT_EQ(mac_address::parse("ab:cd\n"), std::nullopt);
    EXPECT_EQ(mac_address::parse("01:02:03:04:05"), std::nullopt);
}

} // namespace
} // namespace kw
