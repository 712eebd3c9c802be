#include "platform/qvsd_daemon.hpp"

#include "platform/g_ptr.hpp"
#include "platform/unique_fd.hpp"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kw {
namespace {

// All in a child, so that a call that wrongly detached cannot end the test
// process; the detached grandchild reports through a pipe.
TEST(qvsd_daemon, foreground_and_unknown_modes_stay_and_background_detaches)
{
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    unique_pipe reports;
    ASSERT_TRUE(reports.open());
    if (::fork() == 0) {
        const pid_t pid = ::getpid(), sid = ::getsid(0);
        char* error = nullptr;
        bool stays = qvsd_daemon(nullptr, nullptr, "kinwatch", nullptr, QVSD_DAEMON_FOREGROUND, nullptr) == 0 &&
                     qvsd_daemon(nullptr, nullptr, "kinwatch", nullptr, 3, &error) != 0 && error && *error;
        g_free(error);
        int result = qvsd_daemon("kw-test", nullptr, "kinwatch", nullptr, QVSD_DAEMON_BACKGROUND, nullptr);
        struct stat null_device {}, info {};
        ::stat("/dev/null", &null_device);
        long nulls = 0;
        for (int fd = 0; fd <= 2; ++fd)
            nulls += ::fstat(fd, &info) == 0 && S_ISCHR(info.st_mode) && info.st_rdev == null_device.st_rdev;
        const long report[] = {stays, result, ::getpid() != pid, ::getsid(0) != sid && ::getsid(0) != ::getpid(),
                               nulls};
        ::_exit(::write(reports.write_end.get(), report, sizeof report) == sizeof report ? 0 : 1);
    }
    reports.write_end.reset();
    long report[5] = {};
    pollfd wait {reports.read_end.get(), POLLIN, 0};
    EXPECT_TRUE(::poll(&wait, 1, 10000) > 0 && ::read(wait.fd, report, sizeof report) == sizeof report);
    EXPECT_EQ(std::vector<long>(report, report + 5), (std::vector<long> {1, 0, 1, 1, 3}));
    while (::waitpid(-1, nullptr, 0) > 0) // the child and the grandchild handed to us
        ;
}

} // namespace
} // namespace kw
