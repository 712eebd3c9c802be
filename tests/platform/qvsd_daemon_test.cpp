#include "platform/qvsd_daemon.hpp"

#include "platform/g_ptr.hpp"
#include "platform/unique_fd.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <map>
#include <thread>

namespace kw {
namespace {

constexpr int DEADLINE_MS = 10000;

// What a process of the detach test says about itself.
struct facts {
    char label; // 'b' before the call, 'a' after it, 'x' the caller's exit, 'n' no terminal to start from
    int result;
    pid_t pid;
    pid_t sid;
    bool tty;
    int null_streams; // how many of the standard streams are /dev/null
};

// The child processes below report with one write each and end with _exit,
// so nothing of the test framework runs twice.
void report(const unique_fd& pipe, char label, int result = 0)
{
    facts self {label, result, ::getpid(), ::getsid(0),
                 static_cast<bool>(unique_fd(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC))), 0};
    struct stat null_device {}, info {};
    ::stat("/dev/null", &null_device);
    for (int fd = 0; fd <= 2; ++fd)
        self.null_streams += ::fstat(fd, &info) == 0 && S_ISCHR(info.st_mode) && info.st_rdev == null_device.st_rdev;
    if (::write(pipe.get(), &self, sizeof self) != sizeof self)
        ::_exit(3);
}

// The reports by label, until every writer has closed the pipe. Each report,
// and the end, comes within the deadline or not at all.
std::map<char, facts> read_reports(const unique_fd& pipe)
{
    std::map<char, facts> reports;
    pollfd wait {pipe.get(), POLLIN, 0};
    facts one {};
    while (::poll(&wait, 1, DEADLINE_MS) > 0 && ::read(pipe.get(), &one, sizeof one) == sizeof one)
        reports[one.label] = one;
    return reports;
}

// Reaps every child, including the orphans handed to the test as subreaper;
// fails when one is still running after the deadline.
void reap_children()
{
    for (int tries = 0; ::waitpid(-1, nullptr, WNOHANG) >= 0; ++tries) {
        ASSERT_LT(tries, DEADLINE_MS / 10) << "child processes still running";
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

TEST(qvsd_daemon, foreground_mode_leaves_the_process_as_it_is)
{
    const pid_t pid = ::getpid();
    const pid_t sid = ::getsid(0);
    char* error = nullptr;
    EXPECT_EQ(qvsd_daemon(nullptr, nullptr, "kinwatch", "kinwatch", QVSD_DAEMON_FOREGROUND, &error), 0);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(::getpid(), pid);
    EXPECT_EQ(::getsid(0), sid);
}

TEST(qvsd_daemon, an_unknown_mode_fails_with_a_text_in_the_calling_process)
{
    for (int mode : {0, 3, 11}) {
        // In a child: a call that wrongly forked would end the test process.
        pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            char* error = nullptr;
            int result = qvsd_daemon(nullptr, nullptr, "kinwatch", nullptr, mode, &error);
            g_ptr<char> text(error);
            ::_exit(result != 0 && text && *text ? 42 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << "mode " << mode;
    }
}

TEST(qvsd_daemon, background_mode_returns_in_a_detached_grandchild)
{
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    unique_pipe reports;
    ASSERT_TRUE(reports.open());

    pid_t leader = ::fork();
    ASSERT_GE(leader, 0);
    if (leader == 0) {
        // A session leader owning a terminal, as a login shell would; it keeps
        // the terminal until the test has its reports and ends it.
        reports.read_end.reset();
        unique_fd master(::posix_openpt(O_RDWR | O_NOCTTY));
        if (::setsid() < 0 || !master || ::grantpt(master.get()) != 0 || ::unlockpt(master.get()) != 0) {
            report(reports.write_end, 'n');
            ::_exit(0);
        }
        unique_fd terminal(::open(::ptsname(master.get()), O_RDWR));
        pid_t caller = ::fork();
        if (caller == 0) {
            for (int fd = 0; fd <= 2; ++fd)
                ::dup2(terminal.get(), fd);
            report(reports.write_end, 'b');
            int result = qvsd_daemon("kw-test", nullptr, "kinwatch", "kinwatch", QVSD_DAEMON_BACKGROUND, nullptr);
            report(reports.write_end, 'a', result);
            ::_exit(0);
        }
        int status = -1;
        ::waitpid(caller, &status, 0);
        report(reports.write_end, 'x', WIFEXITED(status) ? WEXITSTATUS(status) : -1);
        reports.write_end.reset();
        for (;;)
            ::pause();
    }

    reports.write_end.reset();
    auto got = read_reports(reports.read_end);
    ::kill(leader, SIGKILL);
    reap_children();

    if (got.count('n'))
        GTEST_SKIP() << "no pseudo-terminal to start from";
    ASSERT_TRUE(got.count('b') && got.count('a') && got.count('x'));
    const facts& before = got['b'];
    const facts& after = got['a'];
    EXPECT_EQ(got['x'].result, 0);
    EXPECT_EQ(after.result, 0);
    EXPECT_NE(after.pid, before.pid);
    // A new session whose leader has gone: the process cannot get a terminal back.
    EXPECT_NE(after.sid, before.sid);
    EXPECT_NE(after.sid, after.pid);
    EXPECT_TRUE(before.tty);
    EXPECT_FALSE(after.tty);
    EXPECT_EQ(after.null_streams, 3);
}

} // namespace
} // namespace kw
