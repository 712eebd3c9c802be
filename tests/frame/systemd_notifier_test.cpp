#include "src/frame/systemd_notifier.hpp"
#include "tests/support/notify_socket.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

// Watchdog pings come from a timer of the main loop: while it is blocked (not run), none comes.
TEST(systemd_notifier, tells_ready_once_each_new_status_and_pings_only_while_its_loop_runs)
{
    test::notify_socket manager;
    g_setenv("NOTIFY_SOCKET", manager.path().c_str(), TRUE);
    g_setenv("WATCHDOG_USEC", "200000", TRUE); // a ping every 100 ms
    g_ptr<GMainContext> loop = adopt(g_main_context_new());
    systemd_notifier notifier(loop.get());
    notifier.set_status("a"), notifier.set_status("a"), notifier.ready(), notifier.ready(), notifier.set_status("b");
    for (const char* told : {"STATUS=a", "READY=1", "STATUS=b"})
        EXPECT_EQ(manager.receive(), told);

    for (int run = 0; run < 2; ++run) {
        const gint64 deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
        for (int pings = 0; pings < 3;) {
            ASSERT_LT(g_get_monotonic_time(), deadline) << "no ping within 10 s of running the loop";
            g_main_context_iteration(loop.get(), FALSE);
            for (auto told = manager.receive(10); told; told = manager.receive(0), ++pings)
                EXPECT_EQ(*told, "WATCHDOG=1");
        }
        g_usleep(G_USEC_PER_SEC / 2); // five periods, the loop blocked
        EXPECT_EQ(manager.receive(0), std::nullopt) << "a ping while the loop was blocked";
    }
}

} // namespace
} // namespace kw
