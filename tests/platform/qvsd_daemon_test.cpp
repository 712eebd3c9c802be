#include "platform/qvsd_daemon.hpp"

#include "platform/g_ptr.hpp"
#include "platform/unique_fd.hpp"
#include "tests/support/netns.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <map>
#include <sstream>
#include <thread>

namespace kw {
namespace {

using steady = std::chrono::steady_clock;
constexpr auto DEADLINE = std::chrono::seconds(10);

using facts = std::map<std::string, std::string>;

// The child processes below report through pipes and end with _exit, so
// nothing of the test framework runs twice.
void report(const unique_fd& fd, const std::string& text)
{
    if (::write(fd.get(), text.data(), text.size()) < 0)
        ::_exit(3);
}

std::string current_directory()
{
    char buffer[PATH_MAX] = {};
    return ::getcwd(buffer, sizeof buffer) ? buffer : "?";
}

// One line of "key=value" words describing the calling process.
std::string describe_process()
{
    std::ostringstream out;
    out << "pid=" << ::getpid() << " sid=" << ::getsid(0) << " pgid=" << ::getpgrp();
    unique_fd tty(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    out << " tty=" << (tty ? 1 : 0);
    struct stat null_device {};
    ::stat("/dev/null", &null_device);
    for (int fd = 0; fd <= 2; ++fd) {
        struct stat info {};
        bool is_null = ::fstat(fd, &info) == 0 && S_ISCHR(info.st_mode) && info.st_rdev == null_device.st_rdev;
        out << " fd" << fd << '=' << (is_null ? "null" : "other");
    }
    out << " cwd=" << current_directory() << '\n';
    return out.str();
}

// Lines "<label> key=value ..." keyed by label.
std::map<std::string, facts> parse_reports(const std::string& text)
{
    std::map<std::string, facts> out;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string label, word;
        words >> label;
        while (words >> word) {
            auto equals = word.find('=');
            out[label][word.substr(0, equals)] = equals == std::string::npos ? "" : word.substr(equals + 1);
        }
    }
    return out;
}

std::string read_until_eof(const unique_fd& fd)
{
    std::string out;
    auto end = steady::now() + DEADLINE;
    while (steady::now() < end) {
        pollfd wait {fd.get(), POLLIN, 0};
        if (::poll(&wait, 1, 100) <= 0)
            continue;
        char buffer[512];
        ssize_t length = ::read(fd.get(), buffer, sizeof buffer);
        if (length <= 0)
            return out;
        out.append(buffer, static_cast<std::size_t>(length));
    }
    ADD_FAILURE() << "no end of the report within the deadline; got: " << out;
    return out;
}

// Reaps every child, including the orphans handed to the test as subreaper,
// so that no process outlives the test.
void reap_children()
{
    auto end = steady::now() + DEADLINE;
    for (;;) {
        pid_t pid = ::waitpid(-1, nullptr, WNOHANG);
        if (pid < 0)
            return;
        if (pid == 0) {
            if (steady::now() > end) {
                ADD_FAILURE() << "child processes still running";
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

TEST(qvsd_daemon, foreground_mode_leaves_the_process_as_it_is)
{
    pid_t pid = ::getpid();
    pid_t sid = ::getsid(0);
    std::string cwd = current_directory();
    struct stat error_stream {};
    ASSERT_EQ(::fstat(STDERR_FILENO, &error_stream), 0);

    int option = 18;
    char* error = nullptr;
    EXPECT_EQ(qvsd_daemon(nullptr, &option, "kinwatch", "kinwatch", QVSD_DAEMON_FOREGROUND, &error), 0);
    EXPECT_EQ(error, nullptr);

    struct stat after {};
    ASSERT_EQ(::fstat(STDERR_FILENO, &after), 0);
    EXPECT_EQ(::getpid(), pid);
    EXPECT_EQ(::getsid(0), sid);
    EXPECT_EQ(current_directory(), cwd);
    EXPECT_EQ(after.st_ino, error_stream.st_ino);
    EXPECT_EQ(option, 18);
}

TEST(qvsd_daemon, refused_calls_fail_with_a_text_in_the_calling_process)
{
    struct row {
        const char* ident;
        const char* name;
        int mode;
    };
    const row rows[] = {
        {nullptr, "kinwatch", 0},  {nullptr, "kinwatch", 1},  {"x", "kinwatch", 3},
        {nullptr, "kinwatch", 11}, {nullptr, "kinwatch", -2}, {nullptr, nullptr, QVSD_DAEMON_BACKGROUND},
    };
    constexpr int REFUSED_HERE = 42;
    for (const auto& r : rows) {
        // In a child: a call that wrongly forked would end the test process.
        pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            pid_t pid = ::getpid();
            int option = 18;
            char* error = nullptr;
            int result = qvsd_daemon(r.ident, &option, r.name, r.name, r.mode, &error);
            g_ptr<char> text(error);
            bool ok = result != 0 && text && *text && ::getpid() == pid;
            // Without an error slot the refusal is the same.
            ok = ok && qvsd_daemon(r.ident, nullptr, r.name, nullptr, r.mode, nullptr) != 0;
            ::_exit(ok ? REFUSED_HERE : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == REFUSED_HERE) << "mode " << r.mode;
    }
}

TEST(qvsd_daemon, background_mode_returns_in_a_detached_grandchild)
{
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    unique_pipe reports;
    unique_pipe release;
    ASSERT_TRUE(reports.open());
    ASSERT_TRUE(release.open());

    pid_t leader = ::fork();
    ASSERT_GE(leader, 0);
    if (leader == 0) {
        // A session leader owning a terminal, as a login shell would; it keeps
        // the terminal until the test has its report.
        reports.read_end.reset();
        release.write_end.reset();
        unique_fd master(::posix_openpt(O_RDWR | O_NOCTTY));
        if (::setsid() < 0 || !master || ::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0) {
            report(reports.write_end, "nopty\n");
            ::_exit(0);
        }
        unique_fd terminal(::open(::ptsname(master.get()), O_RDWR));

        pid_t caller = ::fork();
        if (caller == 0) {
            for (int fd = 0; fd <= 2; ++fd)
                ::dup2(terminal.get(), fd);
            if (::chdir("/tmp") != 0)
                ::_exit(3);
            report(reports.write_end, "before " + describe_process());
            int option = 18;
            char* error = nullptr;
            int result = qvsd_daemon("kw-test", &option, "kinwatch", "kinwatch", QVSD_DAEMON_BACKGROUND, &error);
            report(reports.write_end, "after result=" + std::to_string(result) + " " + describe_process());
            ::_exit(0);
        }
        int status = -1;
        ::waitpid(caller, &status, 0);
        report(reports.write_end, "caller exit=" + std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) +
                                      "\n");
        reports.write_end.reset();
        char byte;
        while (::read(release.read_end.get(), &byte, 1) > 0) {
        }
        ::_exit(0);
    }

    reports.write_end.reset();
    release.read_end.reset();
    std::string text = read_until_eof(reports.read_end);
    release.write_end.reset();
    reap_children();

    if (text == "nopty\n")
        GTEST_SKIP() << "no pseudo-terminal to start from";
    auto lines = parse_reports(text);
    facts before = lines["before"];
    facts after = lines["after"];
    ASSERT_FALSE(after.empty()) << text;

    EXPECT_EQ(lines["caller"]["exit"], "0") << text;
    EXPECT_EQ(after["result"], "0");
    EXPECT_NE(after["pid"], before["pid"]);

    // A new session whose leader has gone: the process cannot get a terminal back.
    EXPECT_NE(after["sid"], before["sid"]);
    EXPECT_NE(after["sid"], after["pid"]);
    EXPECT_EQ(after["pgid"], after["sid"]);
    EXPECT_EQ(before["tty"], "1");
    EXPECT_EQ(after["tty"], "0");

    EXPECT_EQ(before["fd0"], "other");
    for (const char* fd : {"fd0", "fd1", "fd2"})
        EXPECT_EQ(after[fd], "null") << fd;
    EXPECT_EQ(before["cwd"], "/tmp");
    EXPECT_EQ(after["cwd"], "/");
}

// Detaches a child whose /dev holds only null and a "log" socket of the test,
// logs a warning and a debug line there and returns every datagram received.
std::vector<std::string> log_through_syslog(bool debug_wanted, std::string& pid)
{
    test::temp_dir dir;
    std::string socket_path = dir.file("log");
    std::string private_dev = dir.file("dev");
    std::filesystem::create_directory(private_dev);

    unique_fd logger(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    socket_path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (!logger || ::bind(logger.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ADD_FAILURE() << "cannot bind " << socket_path;
        return {};
    }

    unique_pipe done;
    if (!done.open() || ::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
        ADD_FAILURE() << "cannot prepare the child";
        return {};
    }
    pid_t child = ::fork();
    if (child == 0) {
        done.read_end.reset();
        bool ready = ::unshare(CLONE_NEWNS) == 0 &&
                     ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     ::mount("kwtest", private_dev.c_str(), "tmpfs", 0, "mode=0755") == 0;
        for (const char* name : {"/null", "/log"})
            ready = ready && unique_fd(::open((private_dev + name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        ready = ready && ::mount("/dev/null", (private_dev + "/null").c_str(), nullptr, MS_BIND, nullptr) == 0 &&
                ::mount(socket_path.c_str(), (private_dev + "/log").c_str(), nullptr, MS_BIND, nullptr) == 0 &&
                ::mount(private_dev.c_str(), "/dev", nullptr, MS_MOVE, nullptr) == 0;
        if (!ready)
            ::_exit(10);
        if (debug_wanted)
            g_setenv("G_MESSAGES_DEBUG", "all", TRUE);
        else
            g_unsetenv("G_MESSAGES_DEBUG");

        if (qvsd_daemon(nullptr, nullptr, "kw-syslog-test", nullptr, QVSD_DAEMON_BACKGROUND, nullptr) != 0)
            ::_exit(11);
        g_debug("a debug line");
        g_warning("a warning for the logger");
        report(done.write_end, std::to_string(::getpid()));
        ::_exit(0);
    }
    done.write_end.reset();
    pid = read_until_eof(done.read_end);
    reap_children();

    // Each datagram was queued before the report was written.
    std::vector<std::string> datagrams;
    char buffer[1024];
    ssize_t length;
    while ((length = ::recv(logger.get(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
        datagrams.emplace_back(buffer, static_cast<std::size_t>(length));
    return datagrams;
}

TEST(qvsd_daemon, background_mode_sends_the_log_to_syslog_under_the_program_name)
{
    KW_REQUIRE_ROOT();
    for (bool debug_wanted : {false, true}) {
        SCOPED_TRACE(debug_wanted ? "G_MESSAGES_DEBUG=all" : "G_MESSAGES_DEBUG unset");
        std::string pid;
        auto datagrams = log_through_syslog(debug_wanted, pid);
        ASSERT_FALSE(pid.empty());
        std::string tag = "kw-syslog-test[" + pid + "]: ";

        // Facility daemon (3 << 3) with warning (4) and debug (7).
        std::vector<std::string> expected;
        if (debug_wanted)
            expected.push_back("<31>|" + tag + "a debug line");
        expected.push_back("<28>|" + tag + "a warning for the logger");

        std::vector<std::string> received;
        for (const auto& datagram : datagrams) {
            auto tag_start = datagram.find("kw-syslog-test[");
            received.push_back(datagram.substr(0, datagram.find('>') + 1) + "|" +
                               (tag_start == std::string::npos ? datagram : datagram.substr(tag_start)));
        }
        EXPECT_EQ(received, expected);
    }
}

} // namespace
} // namespace kw
