#include "src/frame/package.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace kw {
namespace {

TEST(package, runs_only_while_the_run_state_file_begins_with_Running)
{
    EXPECT_EQ(package().running_file(), "/usr/local/packages/kinwatch/is_running");
    const std::pair<const char*, bool> rows[] = {
        {"Running\n", true},   {"Running", true},   {"Running since boot\nmore", true},
        {"running\n", false},  {" Running\n", false}, {"\nRunning", false},
        {"Runnin", false},     {"Stopped\n", false},  {"", false},
    };
    test::temp_dir dir;
    package top(dir.path());
    test::log_capture log;
    EXPECT_FALSE(top.is_running()); // no package directory, no file
    ASSERT_TRUE(std::filesystem::create_directory(top.package_directory()));
    for (const auto& [content, running] : rows) {
        dir.write("kinwatch/is_running", content);
        EXPECT_EQ(top.is_running(), running) << '"' << content << '"';
    }
    EXPECT_FALSE(package::file_is_running(dir.path())); // a directory cannot be read
    EXPECT_TRUE(log.lines().empty());
}

TEST(package, top_directory_is_made_with_its_parents_or_a_warning)
{
    test::temp_dir dir;
    package top(dir.file("usr/local/packages"));
    test::log_capture log;
    mode_t saved = umask(0);
    EXPECT_TRUE(top.create_top_directory());
    umask(saved);
    struct stat info {};
    ASSERT_EQ(stat(top.top_directory().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755u);
    EXPECT_TRUE(top.create_top_directory()); // an existing one is fine
    EXPECT_TRUE(log.lines().empty());

    dir.write("file", "not a directory\n");
    EXPECT_FALSE(package(dir.file("file/packages")).create_top_directory());
    EXPECT_EQ(log.warnings(),
              std::vector<std::string> {std::string("Failed to create Ombrix top directory: ") + g_strerror(ENOTDIR)});
}

} // namespace
} // namespace kw
