#include "src/hostnet/mac_address.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <filesystem>

namespace kw {
namespace {

TEST(mac_address, reads_the_sysfs_line_parses_it_and_formats_ids_in_lower_case)
{
    test::temp_dir sysfs;
    struct {
        const char* file;
        std::optional<std::string> text;
        std::optional<node_id> id;
    } rows[] = {
        {"02:00:00:12:34:56\n", "02:00:00:12:34:56", 0x020000123456ULL},
        {"AA:BB:CC:DD:EE:0F\n", "AA:BB:CC:DD:EE:0F", 0xaabbccddee0fULL},
        {"80:00:02:08:fe:80:00:00:00:00:00:00:00:02:c9:03:00:0a:0b:0c\n", "80:00:02:08:fe:80", 0x80000208fe80ULL},
        // Leading blanks are skipped and a field without digits reads as 0.
        {" 1:zz:3:4:5:6\n", " 1:zz:3:4:5:6\n", 0x010003040506ULL},
        {"ab:cd:ef:01:23\n", "ab:cd:ef:01:23\n", std::nullopt},
        {"\n", "\n", std::nullopt},
        {"", std::nullopt, std::nullopt},
    };
    for (const auto& r : rows) {
        std::filesystem::create_directory(sysfs.file("if"));
        sysfs.write("if/address", r.file);
        EXPECT_EQ(mac_address::read("if", sysfs.path()), r.text) << r.file;
        EXPECT_EQ(r.text ? mac_address::parse(*r.text) : std::nullopt, r.id) << r.file;
    }
    for (auto [id, text] : {std::pair {0xaabbccddee0fULL, "aa:bb:cc:dd:ee:0f"}, {1ULL, "00:00:00:00:00:01"},
                            {0xffff020000123456ULL, "02:00:00:12:34:56"}})
        EXPECT_EQ(mac_address::format(id), text);

    test::log_capture log;
    EXPECT_EQ(mac_address::read("nosuch0", sysfs.path()), std::nullopt);
    EXPECT_EQ(log.warnings(), std::vector<std::string> {"Could not open: " + sysfs.path() + "/nosuch0/address"});
}

} // namespace
} // namespace kw
