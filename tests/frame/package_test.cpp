#include "src/frame/package.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace kw {
namespace {

TEST(package, paths_follow_the_top_directory)
{
    package shipped;
    EXPECT_EQ(shipped.top_directory(), "/usr/local/packages");
    EXPECT_EQ(shipped.package_directory(), "/usr/local/packages/kinwatch");
    EXPECT_EQ(shipped.running_file(), "/usr/local/packages/kinwatch/is_running");

    package moved("/tmp/top");
    EXPECT_EQ(moved.package_directory(), "/tmp/top/kinwatch");
    EXPECT_EQ(moved.running_file(), "/tmp/top/kinwatch/is_running");
}

TEST(package, only_content_beginning_with_Running_counts_and_nothing_is_logged)
{
    const std::pair<const char*, bool> rows[] = {
        {"Running\n", true},  {"Running", true},   {"Running since boot\nmore", true},
        {"running\n", false}, {" Running\n", false}, {"\nRunning", false},
        {"Runnin", false},    {"Stopped\n", false}, {"", false},
    };
    test::temp_dir dir;
    test::log_capture log;
    for (const auto& [content, running] : rows)
        EXPECT_EQ(package::file_is_running(dir.write("is_running", content)), running) << '"' << content << '"';

    EXPECT_FALSE(package::file_is_running(dir.file("missing")));
    EXPECT_FALSE(package::file_is_running(dir.path())); // a directory cannot be read as a file
    EXPECT_TRUE(log.lines().empty());
}

TEST(package, is_running_reads_the_run_state_file_of_the_package_directory)
{
    test::temp_dir dir;
    package top(dir.path());
    EXPECT_FALSE(top.is_running());
    ASSERT_TRUE(std::filesystem::create_directory(top.package_directory()));
    dir.write("kinwatch/is_running", "Running\n");
    EXPECT_TRUE(top.is_running());
    dir.write("kinwatch/is_running", "Stopped\n");
    EXPECT_FALSE(top.is_running());
}

TEST(package, top_directory_is_created_with_its_parents_and_an_existing_one_is_fine)
{
    test::temp_dir dir;
    package top(dir.file("usr/local/packages"));
    test::log_capture log;
    mode_t saved = umask(0);
    bool created = top.create_top_directory();
    umask(saved);
    ASSERT_TRUE(created);

    struct stat info {};
    ASSERT_EQ(stat(top.top_directory().c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(info.st_mode & 07777, 0755u);

    EXPECT_TRUE(top.create_top_directory());
    EXPECT_TRUE(log.lines().empty());
}

TEST(package, top_directory_failure_is_logged_with_the_system_error)
{
    test::temp_dir dir;
    // A regular file where a parent directory should be stops even root.
    dir.write("usr", "not a directory\n");
    package top(dir.file("usr/local/packages"));
    test::log_capture log;
    EXPECT_FALSE(top.create_top_directory());
    EXPECT_EQ(log.warnings(),
              std::vector<std::string> {std::string("Failed to create Ombrix top directory: ") + g_strerror(ENOTDIR)});

    // Write permission only stops a process without root's override.
    if (geteuid() != 0) {
        std::filesystem::create_directory(dir.file("locked"));
        std::filesystem::permissions(dir.file("locked"), std::filesystem::perms::owner_read |
                                                             std::filesystem::perms::owner_exec);
        log.clear();
        EXPECT_FALSE(package(dir.file("locked/packages")).create_top_directory());
        EXPECT_EQ(log.warnings(), std::vector<std::string> {std::string("Failed to create Ombrix top directory: ") +
                                                            g_strerror(EACCES)});
    }
}

} // namespace
} // namespace kw
