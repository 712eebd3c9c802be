// Real GIO directory monitors on a camera's temporary package root, and a
// real monitor. The test thread stays in a private network namespace for the
// whole test, so every start the observer makes opens its sockets there.

#include "src/frame/package_observer.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <glib/gstdio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <utility>
#include <vector>

#if defined(__SANITIZE_THREAD__)
#define KW_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KW_THREAD_SANITIZER 1
#endif
#endif

#ifdef KW_THREAD_SANITIZER
// GIO hands the watched paths and their events between this thread and its
// worker thread under GLib's own locks, which are futexes the sanitizer
// cannot see, inside libraries it does not instrument. Races are still
// looked for in everything this project compiles.
extern "C" const char* __tsan_default_options()
{
    return "ignore_noninstrumented_modules=1";
}
#endif

namespace kw::test {
namespace {

using namespace std::chrono_literals;

// Runs the default main context until the condition holds or the span passes.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds span = 10s)
{
    auto deadline = std::chrono::steady_clock::now() + span;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        if (!g_main_context_iteration(nullptr, FALSE))
            g_usleep(10'000);
    }
    return true;
}

// A directory monitor of the test's own. Once it has seen an event, the
// observer's monitor of the same directory has had it queued too, so a check
// that nothing happened can follow a short drain instead of a long sleep.
class witness {
public:
    explicit witness(const std::string& directory)
    {
        auto file = adopt(g_file_new_for_path(directory.c_str()));
        m_monitor = adopt(g_file_monitor_directory(file.get(), G_FILE_MONITOR_NONE, nullptr, nullptr));
        g_signal_connect_data(m_monitor.get(), "changed", G_CALLBACK(&witness::on_changed), this, nullptr,
                              static_cast<GConnectFlags>(0));
    }
    ~witness() { g_signal_handlers_disconnect_by_data(m_monitor.get(), this); }

    bool saw(const std::string& path, GFileMonitorEvent event)
    {
        bool seen = eventually([&] { return std::ranges::find(m_events, std::pair {path, event}) != m_events.end(); });
        // Lets the observer's monitor deliver the same event first.
        eventually([] { return false; }, 300ms);
        m_events.clear();
        return seen;
    }

private:
    static void on_changed(GFileMonitor*, GFile* file, GFile*, GFileMonitorEvent event, gpointer self)
    {
        static_cast<witness*>(self)->m_events.emplace_back(take_string(g_file_get_path(file)), event);
    }

    g_ptr<GFileMonitor> m_monitor;
    std::vector<std::pair<std::string, GFileMonitorEvent>> m_events;
};

class package_observer_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        KW_REQUIRE_ROOT();
        m_ns = std::make_unique<netns>("obs");
        ASSERT_TRUE(m_ns->ok());
        m_inside = std::make_unique<netns_enter>(*m_ns);
        ASSERT_TRUE(m_inside->ok());
    }

    monitor& make_camera(camera_options options = {})
    {
        m_camera = std::make_unique<camera>(options);
        monitor* engine = m_camera->create(nullptr);
        EXPECT_NE(engine, nullptr);
        return *engine;
    }

    package_observer* observe()
    {
        m_observer = package_observer::create(*m_camera->engine(), package(top()));
        return m_observer.get();
    }

    std::string top() const { return m_camera->dir().file("packages"); }
    std::string package_directory() const { return package(top()).package_directory(); }
    std::string running_file() const { return package(top()).running_file(); }
    void write_running_file(const char* text) const { m_camera->dir().write("packages/kinwatch/is_running", text); }
    bool running() const { return m_camera->engine()->is_running(); }

    std::unique_ptr<netns> m_ns;
    std::unique_ptr<netns_enter> m_inside;
    std::unique_ptr<camera> m_camera;
    std::unique_ptr<package_observer> m_observer;
};

TEST_F(package_observer_test, run_state_file_starts_and_stops_an_enabled_monitor)
{
    make_camera();
    ASSERT_TRUE(observe());

    write_running_file("Stopped\n");
    EXPECT_TRUE(eventually([&] { return !running(); }));
    write_running_file("Running\n");
    EXPECT_TRUE(eventually([&] { return running(); }));
    ASSERT_EQ(g_remove(running_file().c_str()), 0);
    EXPECT_TRUE(eventually([&] { return !running(); }));
}

TEST_F(package_observer_test, package_directory_removed_and_created_again)
{
    make_camera();
    ASSERT_TRUE(observe());
    std::filesystem::remove_all(package_directory());
    EXPECT_TRUE(eventually([&] { return !running() && !m_observer->get_package_directory_monitor(); }));

    // The directory arrives with its run-state file already in it: only the
    // read made on its arrival can start the monitor.
    std::string elsewhere = m_camera->dir().file("elsewhere");
    ASSERT_EQ(g_mkdir(elsewhere.c_str(), 0755), 0);
    m_camera->dir().write("elsewhere/is_running", "Running\n");
    ASSERT_EQ(g_rename(elsewhere.c_str(), package_directory().c_str()), 0);
    EXPECT_TRUE(eventually([&] { return running() && m_observer->get_package_directory_monitor(); }));

    // And the new directory monitor follows the file.
    write_running_file("Stopped\n");
    EXPECT_TRUE(eventually([&] { return !running(); }));
}

TEST_F(package_observer_test, nothing_happens_while_enabled_is_false)
{
    monitor& engine = make_camera({.enabled = false});
    ASSERT_TRUE(observe());
    witness watch(package_directory());

    ASSERT_TRUE(engine.start());
    ASSERT_EQ(g_remove(running_file().c_str()), 0);
    ASSERT_TRUE(watch.saw(running_file(), G_FILE_MONITOR_EVENT_DELETED));
    EXPECT_TRUE(running());

    engine.stop();
    write_running_file("Running\n");
    ASSERT_TRUE(watch.saw(running_file(), G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT));
    EXPECT_FALSE(running());

    // The monitors stayed alive all along and act once Enabled is set.
    m_camera->config().set_enabled(true);
    write_running_file("Running\n");
    EXPECT_TRUE(eventually([&] { return running(); }));
}

// Only the package's own run-state file and directory count: a deletion
// stops without reading the file, so any other entry would let an unrelated
// removal stop a running package.
TEST_F(package_observer_test, other_entries_and_other_packages_change_nothing)
{
    // Running while the run-state file is absent: reading it would stop the
    // monitor too, so any reaction shows.
    monitor& engine = make_camera({.running = false});
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(observe());
    witness in_package(package_directory());
    witness in_top(top());
    std::string notes = package_directory() + "/notes";
    std::string other = top() + "/other";

    m_camera->dir().write("packages/kinwatch/notes", "Running\n");
    ASSERT_TRUE(in_package.saw(notes, G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT));
    ASSERT_EQ(g_remove(notes.c_str()), 0);
    ASSERT_TRUE(in_package.saw(notes, G_FILE_MONITOR_EVENT_DELETED));
    EXPECT_TRUE(running());

    ASSERT_EQ(g_mkdir(other.c_str(), 0755), 0);
    m_camera->dir().write("packages/other/is_running", "Running\n");
    ASSERT_TRUE(in_top.saw(other, G_FILE_MONITOR_EVENT_CREATED));
    std::filesystem::remove_all(other);
    ASSERT_TRUE(in_top.saw(other, G_FILE_MONITOR_EVENT_DELETED));
    EXPECT_TRUE(running());
}

TEST_F(package_observer_test, creation_needs_the_top_directory)
{
    monitor& engine = make_camera();
    log_capture log;
    EXPECT_FALSE(package_observer::create(engine, package(top() + "/missing")));
    EXPECT_EQ(log.warnings(),
              std::vector<std::string> {"Failed to create ombrix directory monitor for " + top() + "/missing"});
}

} // namespace
} // namespace kw::test
