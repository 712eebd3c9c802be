#include "platform/event_library.hpp"
#include "platform/g_ptr.hpp"
#include "platform/qvsd_daemon.hpp"
#include "platform/unique_fd.hpp"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kw {
namespace {

// Only the latest 64 sent events are kept, so that a service running for months does not grow.
TEST(event_library, a_producer_keeps_only_its_latest_64_sent_events)
{
    g_ptr<event_producer> producer(event_producer_new("Producer"));
    g_ptr<event_declaration> declaration(event_declaration_new(0));
    event_declaration_add_key(declaration.get(), "data", EVENT_VALUE_TEXT);
    event_declaration_id id = event_producer_declare(producer.get(), declaration.get());
    for (int i = 0; i < 70; ++i) {
        g_ptr<event> prepared(event_producer_prepare_event(producer.get(), id));
        event_set_value(prepared.get(), "data", std::to_string(i).c_str());
        EXPECT_TRUE(event_producer_send_event(producer.get(), prepared.get(), 0));
    }
    auto sent = event_library_producers().at(0).sent;
    ASSERT_EQ(sent.size(), 64u);
    EXPECT_EQ(sent.front().values.at(0).second + " " + sent.back().values.at(0).second, "6 69");
    producer.reset();
    EXPECT_TRUE(event_library_producers().empty());
}

// In a child, so that a wrong detach cannot end the test; the detached grandchild reports through a
// pipe. The caller leaves with 0 once it is ready (giving up the streams), with 1 if it ends before.
TEST(qvsd_daemon, foreground_and_unknown_modes_stay_and_background_detaches_until_ready)
{
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    for (bool ready : {true, false}) {
        unique_pipe reports;
        ASSERT_TRUE(reports.open());
        const pid_t caller = ::fork();
        if (caller == 0) {
            const pid_t pid = ::getpid(), sid = ::getsid(0);
            char* error = nullptr;
            bool stays = qvsd_daemon(nullptr, nullptr, "kinwatch", nullptr, QVSD_DAEMON_FOREGROUND, nullptr) == 0 &&
                         qvsd_daemon(nullptr, nullptr, "kinwatch", nullptr, 3, &error) != 0 && error && *error;
            g_free(error);
            int result = qvsd_daemon("kw-test", nullptr, "kinwatch", nullptr, QVSD_DAEMON_BACKGROUND, nullptr);
            auto nulls = [] {
                struct stat null_device {}, info {};
                ::stat("/dev/null", &null_device);
                long count = 0;
                for (int fd = 0; fd <= 2; ++fd)
                    count += ::fstat(fd, &info) == 0 && S_ISCHR(info.st_mode) && info.st_rdev == null_device.st_rdev;
                return count;
            };
            const long before = nulls();
            if (ready)
                qvsd_daemon_ready(QVSD_DAEMON_BACKGROUND);
            const long report[] = {stays, result, ::getpid() != pid, ::getsid(0) != sid && ::getsid(0) != ::getpid(), before, nulls()};
            ::_exit(::write(reports.write_end.get(), report, sizeof report) == sizeof report ? 0 : 1);
        }
        reports.write_end.reset();
        long report[6] = {};
        pollfd wait {reports.read_end.get(), POLLIN, 0};
        EXPECT_TRUE(::poll(&wait, 1, 10000) > 0 && ::read(wait.fd, report, sizeof report) == sizeof report);
        EXPECT_EQ(std::vector<long>(report, report + 6), (std::vector<long> {1, 0, 1, 1, 1, ready ? 3 : 1}));
        int status = -1;
        EXPECT_TRUE(::waitpid(caller, &status, 0) == caller && WIFEXITED(status) && WEXITSTATUS(status) == !ready);
        while (::waitpid(-1, nullptr, 0) > 0) // the grandchild handed to us
            ;
    }
}

} // namespace
} // namespace kw
