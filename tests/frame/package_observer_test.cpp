// Real GIO directory monitors on a camera's temporary package root, and a
// real monitor. The test thread stays in a private network namespace for the
// whole test, so every start the observer makes opens its sockets there.

#include "src/frame/package_observer.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <glib/gstdio.h>
#include <gtest/gtest.h>

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

// Runs the default main context until the condition holds or 10 s pass.
bool eventually(const std::function<bool()>& condition)
{
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        if (!g_main_context_iteration(nullptr, FALSE))
            g_usleep(10'000);
    }
    return true;
}

// Runs the default main context for a while, for checks that nothing happens.
void drain(std::chrono::milliseconds span)
{
    auto end = std::chrono::steady_clock::now() + span;
    while (std::chrono::steady_clock::now() < end)
        if (!g_main_context_iteration(nullptr, FALSE))
            g_usleep(10'000);
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
    witness(const witness&) = delete;
    witness& operator=(const witness&) = delete;
    ~witness() { g_signal_handlers_disconnect_by_data(m_monitor.get(), this); }

    bool saw(const std::string& path, GFileMonitorEvent event)
    {
        bool seen = eventually([&] {
            for (const auto& [seen_path, seen_event] : m_events)
                if (seen_path == path && seen_event == event)
                    return true;
            return false;
        });
        drain(300ms);
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
        m_observer = package_observer::create(*m_camera->engine(), run_state());
        return m_observer.get();
    }

    package run_state() const { return package(top()); }
    std::string top() const { return m_camera->dir().file("packages"); }
    std::string package_directory() const { return run_state().package_directory(); }
    std::string running_file() const { return run_state().running_file(); }
    void write_running_file(const std::string& content) const
    {
        m_camera->dir().write("packages/kinwatch/is_running", content);
    }
    bool running() const { return m_camera->engine()->is_running(); }
    bool stopped() const { return !running(); }

    std::unique_ptr<netns> m_ns;
    std::unique_ptr<netns_enter> m_inside;
    std::unique_ptr<camera> m_camera;
    std::unique_ptr<package_observer> m_observer;
};

TEST_F(package_observer_test, run_state_file_starts_and_stops_an_enabled_monitor)
{
    monitor& engine = make_camera();
    ASSERT_TRUE(engine.is_running());
    ASSERT_TRUE(observe());

    // Rewritten in place, and replaced through a temporary file and a rename.
    const std::pair<const char*, bool> rows[] = {
        {"Stopped\n", false}, {"Running\n", true}, {" Running\n", false},
        {"Running since boot", true}, {"running\n", false}, {"Running", true},
    };
    bool atomic = false;
    for (const auto& row : rows) {
        if (atomic)
            ASSERT_TRUE(g_file_set_contents(running_file().c_str(), row.first, -1, nullptr));
        else
            write_running_file(row.first);
        EXPECT_TRUE(eventually([&] { return engine.is_running() == row.second; }))
            << '"' << row.first << '"' << (atomic ? " replaced" : " written");
        atomic = !atomic;
    }

    ASSERT_EQ(g_remove(running_file().c_str()), 0);
    EXPECT_TRUE(eventually([&] { return stopped(); }));
    write_running_file("Running");
    EXPECT_TRUE(eventually([&] { return running(); }));

    // Once the observer is gone, nothing reaches it.
    witness watch(package_directory());
    m_observer.reset();
    ASSERT_EQ(g_remove(running_file().c_str()), 0);
    ASSERT_TRUE(watch.saw(running_file(), G_FILE_MONITOR_EVENT_DELETED));
    EXPECT_TRUE(running());
}

TEST_F(package_observer_test, other_entries_of_the_package_directory_change_nothing)
{
    make_camera();
    ASSERT_TRUE(observe());
    witness watch(package_directory());
    std::string notes = package_directory() + "/notes";

    m_camera->dir().write("packages/kinwatch/notes", "Stopped\n");
    ASSERT_TRUE(watch.saw(notes, G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT));
    ASSERT_EQ(g_remove(notes.c_str()), 0);
    ASSERT_TRUE(watch.saw(notes, G_FILE_MONITOR_EVENT_DELETED));
    EXPECT_TRUE(running());
}

TEST_F(package_observer_test, package_directory_removed_and_created_again)
{
    make_camera();
    ASSERT_TRUE(observe());
    ASSERT_TRUE(m_observer->get_package_directory_monitor());
    std::string elsewhere = m_camera->dir().file("elsewhere");
    witness watch(top());

    const std::pair<const char*, std::function<void()>> removals[] = {
        {"deleted", [&] { std::filesystem::remove_all(package_directory()); }},
        {"moved away", [&] { ASSERT_EQ(g_rename(package_directory().c_str(), elsewhere.c_str()), 0); }},
    };
    for (const auto& [how, remove] : removals) {
        SCOPED_TRACE(how);
        std::filesystem::remove_all(elsewhere);
        write_running_file("Running\n");
        EXPECT_TRUE(eventually([&] { return running(); }));

        remove();
        EXPECT_TRUE(eventually([&] { return stopped() && !m_observer->get_package_directory_monitor(); }));

        // The new directory is watched at once; its run state is absent.
        ASSERT_EQ(g_mkdir(package_directory().c_str(), 0755), 0);
        ASSERT_TRUE(watch.saw(package_directory(), G_FILE_MONITOR_EVENT_CREATED));
        EXPECT_TRUE(m_observer->get_package_directory_monitor());
        EXPECT_TRUE(stopped());
        write_running_file("Running\n");
        EXPECT_TRUE(eventually([&] { return running(); }));
    }

    // A directory that arrives with its run-state file already in it: only
    // the read made on its arrival can start the monitor.
    std::filesystem::remove_all(elsewhere);
    ASSERT_EQ(g_rename(package_directory().c_str(), elsewhere.c_str()), 0);
    EXPECT_TRUE(eventually([&] { return stopped() && !m_observer->get_package_directory_monitor(); }));
    ASSERT_EQ(g_rename(elsewhere.c_str(), package_directory().c_str()), 0);
    EXPECT_TRUE(eventually([&] { return running() && m_observer->get_package_directory_monitor(); }));
}

TEST_F(package_observer_test, nothing_happens_while_enabled_is_false)
{
    monitor& engine = make_camera({.enabled = false});
    ASSERT_TRUE(observe());
    witness in_package(package_directory());
    witness in_top(top());
    std::string elsewhere = m_camera->dir().file("elsewhere");

    ASSERT_TRUE(engine.start());
    ASSERT_EQ(g_remove(running_file().c_str()), 0);
    ASSERT_TRUE(in_package.saw(running_file(), G_FILE_MONITOR_EVENT_DELETED));
    EXPECT_TRUE(running());

    engine.stop();
    write_running_file("Running\n");
    ASSERT_TRUE(in_package.saw(running_file(), G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT));
    EXPECT_TRUE(stopped());

    ASSERT_TRUE(engine.start());
    ASSERT_EQ(g_rename(package_directory().c_str(), elsewhere.c_str()), 0);
    ASSERT_TRUE(in_top.saw(package_directory(), G_FILE_MONITOR_EVENT_DELETED));
    EXPECT_TRUE(running());

    engine.stop();
    ASSERT_EQ(g_rename(elsewhere.c_str(), package_directory().c_str()), 0);
    ASSERT_TRUE(in_top.saw(package_directory(), G_FILE_MONITOR_EVENT_CREATED));
    EXPECT_TRUE(stopped());

    // The monitors stayed alive all along and act once Enabled is set.
    m_camera->config().set_enabled(true);
    write_running_file("Running\n");
    EXPECT_TRUE(eventually([&] { return running(); }));
}

TEST_F(package_observer_test, other_packages_change_nothing)
{
    // Running while the run-state file is absent: reading it would stop the
    // monitor, so any reaction to another package shows.
    monitor& engine = make_camera({.running = false});
    ASSERT_TRUE(engine.start());
    ASSERT_TRUE(observe());
    witness watch(top());
    std::string other = top() + "/other";

    ASSERT_EQ(g_mkdir(other.c_str(), 0755), 0);
    m_camera->dir().write("packages/other/is_running", "Running\n");
    ASSERT_TRUE(watch.saw(other, G_FILE_MONITOR_EVENT_CREATED));
    EXPECT_TRUE(running());

    std::filesystem::remove_all(other);
    ASSERT_TRUE(watch.saw(other, G_FILE_MONITOR_EVENT_DELETED));
    EXPECT_TRUE(running());
}

// Every event value through both handlers, from two starting states that
// tell "nothing", "stop" and "read again" apart while the file says Running.
TEST_F(package_observer_test, event_table)
{
    monitor& engine = make_camera();
    ASSERT_TRUE(observe());
    auto run_state_file = adopt(g_file_new_for_path(running_file().c_str()));
    auto directory = adopt(g_file_new_for_path(package_directory().c_str()));
    auto other = adopt(g_file_new_for_path((top() + "/other").c_str()));

    enum class reaction { none, stop, reread };
    const reaction table[] = {
        reaction::reread, reaction::none, reaction::stop, reaction::reread, reaction::none, reaction::none,
        reaction::stop,   reaction::stop, reaction::none, reaction::none,   reaction::none,
    };
    static_assert(std::size(table) == G_FILE_MONITOR_EVENT_MOVED_OUT + 1);

    for (int value = 0; value < static_cast<int>(std::size(table)); ++value) {
        auto event = static_cast<GFileMonitorEvent>(value);
        for (bool was_running : {true, false}) {
            SCOPED_TRACE(testing::Message() << "event " << value << (was_running ? ", running" : ", stopped"));
            bool expected = table[value] == reaction::reread || (table[value] == reaction::none && was_running);
            auto restore = [&] {
                if (was_running)
                    engine.start();
                else
                    engine.stop();
            };

            restore();
            m_observer->on_package_changed(nullptr, run_state_file.get(), nullptr, event);
            EXPECT_EQ(running(), expected) << "package directory";

            restore();
            bool had_monitor = m_observer->get_package_directory_monitor();
            m_observer->on_top_changed(nullptr, directory.get(), nullptr, event);
            EXPECT_EQ(running(), expected) << "top directory";
            bool has_monitor = table[value] == reaction::none ? had_monitor : table[value] == reaction::reread;
            EXPECT_EQ(m_observer->get_package_directory_monitor() != nullptr, has_monitor);

            // No file, or another package's entry: nothing at all.
            m_observer->on_package_changed(nullptr, nullptr, nullptr, event);
            m_observer->on_top_changed(nullptr, nullptr, nullptr, event);
            m_observer->on_top_changed(nullptr, other.get(), nullptr, event);
            EXPECT_EQ(running(), expected) << "no file or another entry";
            EXPECT_EQ(m_observer->get_package_directory_monitor() != nullptr, has_monitor);
        }
    }
}

TEST_F(package_observer_test, creation_needs_the_top_directory_and_reads_no_run_state)
{
    monitor& engine = make_camera();
    {
        log_capture log;
        EXPECT_FALSE(package_observer::create(engine, package(top() + "/missing")));
        std::string expected = "Failed to create ombrix directory monitor for " + top() + "/missing";
        EXPECT_EQ(log.warnings(), std::vector<std::string> {expected});
    }

    // Running with no run-state file, then stopped with one saying Running.
    ASSERT_EQ(g_remove(running_file().c_str()), 0);
    ASSERT_TRUE(observe());
    EXPECT_TRUE(running());
    m_observer.reset();

    engine.stop();
    write_running_file("Running\n");
    ASSERT_TRUE(observe());
    EXPECT_TRUE(stopped());

    // A missing package directory is no failure, only not watched yet.
    m_observer.reset();
    std::filesystem::remove_all(package_directory());
    log_capture log;
    ASSERT_TRUE(observe());
    EXPECT_FALSE(m_observer->get_package_directory_monitor());
    EXPECT_TRUE(log.warnings().empty());
}

} // namespace
} // namespace kw::test
