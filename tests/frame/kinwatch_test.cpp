#include "platform/g_ptr.hpp"
#include "tests/support/netns.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <thread>
#include <vector>

namespace kw {
namespace {

// Every run happens in a private mount and network namespace with an empty
// tmpfs over /usr/local and /run and the namespace's own sysfs, so the
// machine's own package directory, interfaces and system bus are never
// touched. The configured interface is the namespace's loopback.
const char* const PRIVATE_USR_LOCAL = "ulimit -c 0; mount -t tmpfs kwtest /usr/local || exit 99; "
                                      "mount -t sysfs kwtest /sys || exit 99; "
                                      "mount -t tmpfs kwtest /run || exit 99; unset DBUS_SYSTEM_BUS_ADDRESS; ";

struct outcome {
    int status = -1; // 128 + signal when the service was killed
    bool top_directory_created = false;
    std::string errors;
};

g_ptr<GSubprocess> spawn(const std::string& script, const std::vector<std::string>& args)
{
    std::vector<const char*> argv = {"unshare", "-m", "-n", "sh", "-c", script.c_str(), "sh", KW_KINWATCH_BINARY};
    for (const auto& arg : args)
        argv.push_back(arg.c_str());
    argv.push_back(nullptr);
    error_out error;
    auto process = adopt(g_subprocess_newv(argv.data(),
                                           static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                                                                         G_SUBPROCESS_FLAGS_STDERR_PIPE),
                                           error.out()));
    EXPECT_TRUE(process) << error.message();
    return process;
}

void communicate(GSubprocess* process, std::string& out, std::string& err)
{
    char* raw_out = nullptr;
    char* raw_err = nullptr;
    error_out error;
    EXPECT_TRUE(g_subprocess_communicate_utf8(process, nullptr, nullptr, &raw_out, &raw_err, error.out()))
        << error.message();
    out = take_string(raw_out);
    err = take_string(raw_err);
}

outcome run_kinwatch(const std::vector<std::string>& args)
{
    outcome result;
    auto process = spawn(std::string(PRIVATE_USR_LOCAL) + "\"$@\"; status=$?; "
                                                          "if [ -d /usr/local/packages ]; then echo created; fi; "
                                                          "echo status=$status",
                         args);
    if (!process)
        return result;
    std::string out;
    communicate(process.get(), out, result.errors);
    result.top_directory_created = out.find("created\n") != std::string::npos;
    auto at = out.find("status=");
    if (at != std::string::npos)
        result.status = std::stoi(out.substr(at + 7));
    return result;
}

// The warning lines of the service's standard error, in order.
std::vector<std::string> warnings_of(const std::string& errors)
{
    std::vector<std::string> lines;
    const std::string marker = "WARNING **: ";
    for (std::size_t at = errors.find(marker); at != std::string::npos; at = errors.find(marker, at + 1)) {
        // GLib puts a time stamp between the level and the message.
        std::size_t start = errors.find(": ", at + marker.size());
        std::size_t end = errors.find('\n', at);
        lines.push_back(errors.substr(start + 2, end - start - 2));
    }
    return lines;
}

const char* const VALID = "[Settings]\nTTL=1\nEnabled=false\nMulticastGroupIPv4=239.255.77.1\n"
                          "MulticastGroupIPv6=ff05::77\nMulticastPort=21844\nInterface=lo\n"
                          "KinwatchGroup=1\nMaxHosts=256\n";

TEST(kinwatch, without_a_configuration_file_prints_the_help_and_creates_nothing)
{
    KW_REQUIRE_ROOT();
    const std::vector<std::vector<std::string>> command_lines = {{"-n"}, {}, {"-i", "camera"}};
    for (const auto& args : command_lines) {
        SCOPED_TRACE(testing::PrintToString(args));
        outcome result = run_kinwatch(args);
        EXPECT_EQ(result.status, 1);
        EXPECT_FALSE(result.top_directory_created);
        for (const char* text : {"Usage:", " Kinwatch\n", "-n, --no-daemon", "Do not run in background",
                                 "-c, --config_file", "Specify configuration file, -c <filename>", "-i, --ident",
                                 "The name of the process, -i <ident>"})
            EXPECT_NE(result.errors.find(text), std::string::npos) << text << " in:\n" << result.errors;
    }
}

TEST(kinwatch, unreadable_configuration_ends_with_status_1)
{
    KW_REQUIRE_ROOT();
    test::temp_dir dir;
    const std::pair<std::string, const char*> files[] = {
        {"/nonexistent/kinwatch.conf", nullptr},
        {dir.write("no-max-hosts.conf", std::string(VALID).substr(0, std::string(VALID).find("MaxHosts"))),
         "MaxHosts"},
    };
    for (const auto& [path, named] : files) {
        SCOPED_TRACE(path);
        outcome result = run_kinwatch({"-n", "-c", path});
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(result.top_directory_created);
        auto warnings = warnings_of(result.errors);
        ASSERT_EQ(warnings.size(), 3u) << result.errors;
        EXPECT_EQ(warnings[0].rfind("Failure: ", 0), 0u) << warnings[0];
        if (named) {
            EXPECT_NE(warnings[0].find(named), std::string::npos) << warnings[0];
        }
        EXPECT_EQ(warnings[1], "No such file or file is not a valid configuration");
        EXPECT_EQ(warnings[2], "Failed to read configuration");
    }
}

TEST(kinwatch, malformed_command_line_is_fatal_before_creating_anything)
{
    KW_REQUIRE_ROOT();
    const std::pair<std::vector<std::string>, const char*> rows[] = {
        {{"-n", "--bogus"}, "Unknown option --bogus"},
        {{"-n", "-c"}, "Missing argument for -c"},
    };
    for (const auto& [args, message] : rows) {
        SCOPED_TRACE(message);
        outcome result = run_kinwatch(args);
        // GLib ends a fatal error with a breakpoint trap; an abort would do as well.
        EXPECT_TRUE(result.status == 128 + SIGTRAP || result.status == 128 + SIGABRT)
            << result.status << "\n" << result.errors;
        EXPECT_FALSE(result.top_directory_created);
        EXPECT_NE(result.errors.find(message), std::string::npos) << result.errors;
    }
}

// GLib's main context wakes its loop through an eventfd.
bool has_event_fd(const std::string& proc)
{
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(proc + "/fd", ignored))
        if (std::filesystem::read_symlink(entry.path(), ignored).string() == "anon_inode:[eventfd]")
            return true;
    return false;
}

TEST(kinwatch, runs_in_the_foreground_until_terminated_without_rewriting_its_file)
{
    KW_REQUIRE_ROOT();
    test::temp_dir dir;
    std::string config = dir.write("kinwatch.conf", std::string("# kept\n") + VALID);
    auto process = spawn(std::string(PRIVATE_USR_LOCAL) + "exec \"$@\"", {"-n", "-c", config});
    ASSERT_TRUE(process);
    std::string proc = std::string("/proc/") + g_subprocess_get_identifier(process.get());

    // Ready once the service itself runs (same process: no fork in the
    // foreground) with its top directory made and its main loop's wake-up
    // descriptor open.
    bool ready = false;
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
         !ready && std::chrono::steady_clock::now() < end;
         std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
        char* comm = nullptr;
        g_file_get_contents((proc + "/comm").c_str(), &comm, nullptr, nullptr);
        ready = take_string(comm) == "kinwatch\n" &&
                g_file_test((proc + "/root/usr/local/packages").c_str(), G_FILE_TEST_IS_DIR) && has_event_fd(proc);
    }
    g_subprocess_send_signal(process.get(), SIGTERM);
    std::string out, err;
    communicate(process.get(), out, err);
    EXPECT_TRUE(ready);
    EXPECT_TRUE(g_subprocess_get_if_signaled(process.get()));
    EXPECT_EQ(g_subprocess_get_term_sig(process.get()), SIGTERM);
    EXPECT_EQ(err, "");
    EXPECT_EQ(dir.read("kinwatch.conf"), std::string("# kept\n") + VALID);
}

} // namespace
} // namespace kw
