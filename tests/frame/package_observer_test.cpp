// The observer's reaction to each directory event, called as GIO calls it (kinwatch_test has real
// monitors), from a private network namespace where every start opens its sockets.

#include "src/frame/package_observer.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <gtest/gtest.h>

namespace kw::test {
namespace {

enum class reaction { none, stop, reread };

const std::pair<GFileMonitorEvent, reaction> event_kinds[] = {
    {G_FILE_MONITOR_EVENT_CHANGED, reaction::reread},   {G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT, reaction::none},
    {G_FILE_MONITOR_EVENT_DELETED, reaction::stop},     {G_FILE_MONITOR_EVENT_CREATED, reaction::reread},
    {G_FILE_MONITOR_EVENT_ATTRIBUTE_CHANGED, reaction::none}, {G_FILE_MONITOR_EVENT_PRE_UNMOUNT, reaction::none},
    {G_FILE_MONITOR_EVENT_UNMOUNTED, reaction::stop},   {G_FILE_MONITOR_EVENT_MOVED, reaction::stop},
    {G_FILE_MONITOR_EVENT_RENAMED, reaction::none},     {G_FILE_MONITOR_EVENT_MOVED_IN, reaction::none},
    {G_FILE_MONITOR_EVENT_MOVED_OUT, reaction::none},
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
        ASSERT_TRUE(m_camera.create(nullptr));
        m_observer = package_observer::create(*m_camera.engine(), package(in_top("")));
        ASSERT_TRUE(m_observer);
    }

    std::string in_top(const char* name) { return m_camera.dir().file("packages") + (*name ? "/" : "") + name; }
    void write(const char* text) { m_camera.dir().write("packages/kinwatch/is_running", text); }
    monitor& engine() { return *m_camera.engine(); }

    std::unique_ptr<netns> m_ns;
    std::unique_ptr<netns_enter> m_inside;
    camera m_camera;
    std::unique_ptr<package_observer> m_observer;
};

// The run-state file says the opposite of the state: a re-read flips it, a stop only stops, nothing
// leaves it; events without a file or for other entries never count.
TEST_F(package_observer_test, each_event_kind_stops_rereads_or_does_nothing)
{
    auto other = adopt(g_file_new_for_path(in_top("kinwatch/notes").c_str()));
    auto other_package = adopt(g_file_new_for_path(in_top("other").c_str()));
    for (bool enabled : {true, false}) {
        m_camera.config().set_enabled(enabled);
        for (bool top : {false, true}) {
            auto file = adopt(g_file_new_for_path(in_top(top ? "kinwatch" : "kinwatch/is_running").c_str()));
            auto handle = [&](GFile* named, GFileMonitorEvent event) {
                top ? m_observer->on_top_changed(nullptr, named, nullptr, event)
                    : m_observer->on_package_changed(nullptr, named, nullptr, event);
            };
            for (auto [event, expected] : event_kinds) {
                for (bool was_running : {false, true}) {
                    SCOPED_TRACE(testing::Message() << "enabled " << enabled << ", top " << top << ", event "
                                                    << event << ", running " << was_running);
                    write(was_running ? "Stopped\n" : "Running\n");
                    was_running ? engine().start() : (engine().stop(), true);
                    for (GFile* ignored : {other.get(), other_package.get(), static_cast<GFile*>(nullptr)})
                        handle(ignored, event);
                    EXPECT_EQ(engine().is_running(), was_running) << "after events for other entries";
                    bool watched = m_observer->get_package_directory_monitor() != nullptr;
                    handle(file.get(), event);
                    reaction seen = enabled ? expected : reaction::none;
                    EXPECT_EQ(engine().is_running(), seen == reaction::none ? was_running
                                                                            : seen == reaction::reread && !was_running);
                    if (top && expected != reaction::none)
                        watched = expected == reaction::reread;
                    EXPECT_EQ(m_observer->get_package_directory_monitor() != nullptr, watched);
                }
            }
        }
    }
}

TEST_F(package_observer_test, creation_needs_the_top_directory)
{
    log_capture log;
    EXPECT_FALSE(package_observer::create(engine(), package(in_top("missing"))));
    EXPECT_EQ(log.warnings(), std::vector<std::string> {"Failed to create ombrix directory monitor for " + in_top("missing")});
}

} // namespace
} // namespace kw::test
