// The kinwatchctl program against the service's real bus object on a
// private dbus-daemon. The service side runs on the default main context of
// the test thread; the tool runs as a child process, and the test iterates
// that context until the child has finished.

#include "src/surfaces/dbus_api.hpp"
#include "tests/support/dbus_daemon.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace kw::test {
namespace {

// The harness clock starts at 12:00 local time, here 2026-11-22 12:00:00 UTC,
// which is 1795348800 in Unix seconds.
[[maybe_unused]] const bool zone_is_set = [] { return setenv("TZ", "UTC", 1) == 0; }();

gboolean keep_waking(gpointer)
{
    return G_SOURCE_CONTINUE;
}

bool iterate_until(const std::function<bool()>& done)
{
    guint wake = g_timeout_add(50, &keep_waking, nullptr);
    gint64 deadline = g_get_monotonic_time() + 20 * G_USEC_PER_SEC;
    while (!done() && g_get_monotonic_time() < deadline)
        g_main_context_iteration(nullptr, TRUE);
    g_source_remove(wake);
    return done();
}

// One finished run of the tool; status -1 when it did not exit.
struct outcome {
    bool done = false;
    int status = -1;
    std::string out;
    std::string err;

    static void finish(GObject* object, GAsyncResult* result, gpointer self)
    {
        auto* run = static_cast<outcome*>(self);
        GSubprocess* process = G_SUBPROCESS(object);
        char* out = nullptr;
        char* err = nullptr;
        if (g_subprocess_communicate_utf8_finish(process, result, &out, &err, nullptr) &&
            g_subprocess_get_if_exited(process))
            run->status = g_subprocess_get_exit_status(process);
        run->out = take_string(out);
        run->err = take_string(err);
        run->done = true;
    }
};

outcome run(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), KW_KINWATCHCTL_BINARY);
    arguments.push_back(nullptr);
    outcome result;
    error_out error;
    const auto pipes = static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE);
    g_ptr<GSubprocess> process = adopt(g_subprocess_newv(arguments.data(), pipes, error.out()));
    EXPECT_TRUE(process) << "cannot run kinwatchctl: " << error.message();
    if (!process)
        return result;
    g_subprocess_communicate_utf8_async(process.get(), nullptr, nullptr, &outcome::finish, &result);
    // A tool that hangs is ended, and shows as status -1.
    if (!iterate_until([&] { return result.done; }))
        g_subprocess_force_exit(process.get());
    iterate_until([&] { return result.done; });
    return result;
}

void expect_outcome(const outcome& run, int status, const std::string& out, const std::string& err)
{
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_EQ(run.out, out);
    EXPECT_EQ(run.err, err);
}

class commands_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        KW_REQUIRE_ROOT(); // the bus policy lets root alone own the name and write
        m_bus = std::make_unique<dbus_daemon>();
        ASSERT_TRUE(m_bus->ok());
    }

    // Serves the engine and waits until its name is owned.
    std::unique_ptr<dbus_api> serve(monitor& engine)
    {
        auto api = dbus_api::create(engine, false);
        EXPECT_TRUE(api);
        g_ptr<GDBusConnection> client = m_bus->connect();
        EXPECT_TRUE(iterate_until([&] {
            return adopt(g_dbus_connection_call_sync(client.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                     "org.freedesktop.DBus", "GetNameOwner",
                                                     g_variant_new("(s)", dbus_api::bus_name), nullptr,
                                                     G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr)) != nullptr;
        }));
        return api;
    }

    outcome ctl(std::vector<const char*> arguments)
    {
        arguments.insert(arguments.begin(), {"--address", m_bus->address().c_str()});
        return run(std::move(arguments));
    }

    std::unique_ptr<dbus_daemon> m_bus;
};

TEST_F(commands_test, status_set_and_errors_are_told_in_one_line)
{
    expect_outcome(run({"set", "ttl", "300"}), 2, "",
                   "kinwatchctl: invalid value '300' for ttl: expected a whole number from 0 to 255\n"
                   "Try 'kinwatchctl --help'.\n");
    expect_outcome(ctl({"status"}), 3, "", "kinwatchctl: the kinwatch service is not running on this bus\n");

    camera cam({.enabled = false, .running = false, .ttl = 200});
    ASSERT_TRUE(cam.create(nullptr));
    auto api = serve(*cam.engine());

    expect_outcome(ctl({"status"}), 0,
                   "enabled:     false\n"
                   "ttl:         200\n"
                   "group:       7\n"
                   "ipv4-group:  239.255.77.1\n"
                   "ipv6-group:  ff05::77\n"
                   "known nodes: - (not enabled)\n"
                   "lost nodes:  - (not enabled)\n",
                   "");
    expect_outcome(ctl({"set", "ttl", "0"}), 1, "",
                   "kinwatchctl: cannot set ttl: TTL must be in the range [1..255]\n");
    expect_outcome(ctl({"set", "ttl", "9"}), 0, "", "");
    EXPECT_NE(("\n" + cam.config_text()).find("\nTTL=9\n"), std::string::npos) << cam.config_text();
}

TEST_F(commands_test, nodes_are_listed_sorted_as_json)
{
    // The monitor takes in announcements only with an interface to hear them on.
    netns_lab lab(1);
    ASSERT_TRUE(lab.ok());
    netns& host = *lab.host(0).ns;
    netns_enter inside(host);
    camera cam;
    monitor* engine = cam.create(&host);
    ASSERT_TRUE(engine && engine->is_running());
    auto api = serve(*engine);

    cam.inject_announce(0x02000000000bULL, "10.77.0.11", "fd77::b");
    cam.inject_announce(0x020000000002ULL, "10.77.0.2", "fd77::2");
    engine->process_tick();

    expect_outcome(ctl({"nodes", "--json"}), 0,
                   "{\"mac\":\"02:00:00:00:00:02\",\"ipv4\":\"10.77.0.2\",\"ipv6\":\"fd77::2\","
                   "\"first_seen\":1795348800,\"last_seen\":1795348800}\n"
                   "{\"mac\":\"02:00:00:00:00:0b\",\"ipv4\":\"10.77.0.11\",\"ipv6\":\"fd77::b\","
                   "\"first_seen\":1795348800,\"last_seen\":1795348800}\n",
                   "");
}

} // namespace
} // namespace kw::test
