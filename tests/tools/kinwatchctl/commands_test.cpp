// The kinwatchctl program against the service's real bus object on a
// private dbus-daemon. The service side runs on the default main context of
// the test thread; the tool runs as a child process, and the test iterates
// that context until the child has finished.

#include "src/surfaces/dbus_api.hpp"
#include "tests/support/dbus_daemon.hpp"
#include "tests/support/temp_dir.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace kw::test {
namespace {

// The harness clock starts at 12:00 local time; in UTC that is a known
// Unix time, and the tool shows times in the zone it inherits.
[[maybe_unused]] const bool zone_is_set = [] { return setenv("TZ", "UTC", 1) == 0; }();
constexpr guint64 harness_noon = 1795348800; // 2026-11-22 12:00:00 UTC

constexpr gint64 deadline_us = 20 * G_USEC_PER_SEC;

gboolean keep_waking(gpointer)
{
    return G_SOURCE_CONTINUE;
}

bool iterate_until(const std::function<bool()>& done, gint64 limit_us = deadline_us)
{
    guint wake = g_timeout_add(50, &keep_waking, nullptr);
    gint64 deadline = g_get_monotonic_time() + limit_us;
    while (!done() && g_get_monotonic_time() < deadline)
        g_main_context_iteration(nullptr, TRUE);
    g_source_remove(wake);
    return done();
}

// One run of the tool, its output going to files that the test can read
// while it still runs.
class tool {
public:
    explicit tool(const std::vector<std::string>& command)
    {
        std::vector<const char*> argv;
        for (const auto& argument : command)
            argv.push_back(argument.c_str());
        argv.push_back(nullptr);
        auto launcher = adopt(g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE));
        g_subprocess_launcher_set_stdout_file_path(launcher.get(), m_dir.file("out").c_str());
        g_subprocess_launcher_set_stderr_file_path(launcher.get(), m_dir.file("err").c_str());
        error_out error;
        m_process = adopt(g_subprocess_launcher_spawnv(launcher.get(), argv.data(), error.out()));
        if (!m_process) {
            ADD_FAILURE() << "cannot run kinwatchctl: " << error.message();
            m_done = true;
            return;
        }
        g_subprocess_wait_async(m_process.get(), nullptr, &tool::finished, this);
    }
    tool(const tool&) = delete;
    tool& operator=(const tool&) = delete;
    ~tool()
    {
        if (!m_done) {
            g_subprocess_force_exit(m_process.get());
            iterate_until([this] { return m_done; });
        }
    }

    // The exit status once the tool has ended; -1 when it did not end.
    int status()
    {
        EXPECT_TRUE(iterate_until([this] { return m_done; })) << "kinwatchctl did not end";
        if (!m_done || !g_subprocess_get_if_exited(m_process.get()))
            return -1;
        return g_subprocess_get_exit_status(m_process.get());
    }
    void signal(int number) { g_subprocess_send_signal(m_process.get(), number); }

    std::string out() const { return m_dir.read("out").value_or(""); }
    std::string err() const { return m_dir.read("err").value_or(""); }

private:
    static void finished(GObject*, GAsyncResult*, gpointer self) { static_cast<tool*>(self)->m_done = true; }

    temp_dir m_dir;
    g_ptr<GSubprocess> m_process;
    bool m_done = false;
};

struct outcome {
    int status;
    std::string out;
    std::string err;
};

// The tool's command line with these arguments.
std::vector<std::string> kinwatchctl(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), KW_KINWATCHCTL_BINARY);
    return arguments;
}

outcome run(const std::vector<std::string>& command)
{
    tool t(command);
    int status = t.status();
    return {status, t.out(), t.err()};
}

bool has_line(const camera& cam, const std::string& line)
{
    return ("\n" + cam.config_text()).find("\n" + line + "\n") != std::string::npos;
}

class commands_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        KW_REQUIRE_ROOT(); // the bus policy lets root alone own the name and write
        m_bus = std::make_unique<dbus_daemon>();
        ASSERT_TRUE(m_bus->ok());
        m_client = m_bus->connect();
        ASSERT_TRUE(m_client);
    }

    // Serves the engine and waits until its name is owned.
    std::unique_ptr<dbus_api> serve(monitor& engine)
    {
        auto api = dbus_api::create(engine, false);
        EXPECT_TRUE(api);
        EXPECT_TRUE(iterate_until([&] {
            auto reply = adopt(g_dbus_connection_call_sync(
                m_client.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "NameHasOwner", g_variant_new("(s)", dbus_api::bus_name), G_VARIANT_TYPE("(b)"),
                G_DBUS_CALL_FLAGS_NONE, 1000, nullptr, nullptr));
            gboolean owned = FALSE;
            if (reply)
                g_variant_get(reply.get(), "(b)", &owned);
            if (!owned)
                g_main_context_iteration(nullptr, FALSE);
            return owned;
        }));
        return api;
    }

    std::vector<std::string> on_bus(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"--address", m_bus->address()});
        return kinwatchctl(arguments);
    }
    outcome ctl(std::vector<std::string> arguments) { return run(on_bus(std::move(arguments))); }

    std::unique_ptr<dbus_daemon> m_bus;
    g_ptr<GDBusConnection> m_client;
};

TEST_F(commands_test, status_set_and_refusals_on_a_stopped_service)
{
    camera cam({.enabled = false, .running = false, .ttl = 200});
    ASSERT_TRUE(cam.create(nullptr));
    auto api = serve(*cam.engine());

    auto status = ctl({"status"});
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_EQ(status.out, "enabled:     false\n"
                          "ttl:         200\n"
                          "group:       7\n"
                          "ipv4-group:  239.255.77.1\n"
                          "ipv6-group:  ff05::77\n"
                          "known nodes: - (not enabled)\n"
                          "lost nodes:  - (not enabled)\n");

    auto nodes = ctl({"nodes", "--lost"});
    EXPECT_EQ(nodes.status, 1);
    EXPECT_EQ(nodes.err, "kinwatchctl: cannot list the lost nodes: Kinwatch is not enabled\n");

    const struct {
        const char* setting;
        const char* value;
        int status;
        const char* err;    // for a refusal
        const char* line;   // in the file after success
    } cases[] = {
        {"ttl", "0", 1, "kinwatchctl: cannot set ttl: TTL must be in the range [1..255]\n", nullptr},
        {"ipv4-group", "10.0.0.1", 1, "kinwatchctl: cannot set ipv4-group: Illegal multicast group supplied\n",
         nullptr},
        {"ipv6-group", "239.1.2.3", 1, "kinwatchctl: cannot set ipv6-group: Illegal multicast group supplied\n",
         nullptr},
        {"ttl", "9", 0, "", "TTL=9"},
        {"group", "4294967295", 0, "", "KinwatchGroup=-1"},
        {"ipv4-group", "239.1.2.3", 0, "", "MulticastGroupIPv4=239.1.2.3"},
        {"ipv6-group", "ff02::1", 0, "", "MulticastGroupIPv6=ff02::1"},
        // The package is not running, so enabling stores the flag only.
        {"enabled", "on", 0, "", "Enabled=true"},
    };
    for (const auto& c : cases) {
        auto result = ctl({"set", c.setting, c.value});
        EXPECT_EQ(result.status, c.status) << c.setting << " " << c.value << ": " << result.err;
        EXPECT_EQ(result.err, c.err) << c.setting << " " << c.value;
        EXPECT_EQ(result.out, "");
        if (c.line) {
            EXPECT_TRUE(has_line(cam, c.line)) << c.line << " missing from\n" << cam.config_text();
        }
    }

    // The bus policy lets other users read but not write.
    auto as_nobody = [&](std::vector<std::string> arguments) {
        auto command = on_bus(std::move(arguments));
        command.insert(command.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
        return run(command);
    };
    auto denied = as_nobody({"set", "group", "8"});
    EXPECT_EQ(denied.status, 1);
    EXPECT_EQ(denied.err, "kinwatchctl: cannot set group: access denied by the bus policy\n");
    EXPECT_TRUE(has_line(cam, "KinwatchGroup=-1")) << cam.config_text();
    auto read = as_nobody({"status"});
    EXPECT_EQ(read.status, 0) << read.err;

    status = ctl({"status"});
    EXPECT_EQ(status.status, 0) << status.err;
    EXPECT_EQ(status.out, "enabled:     true\n"
                          "ttl:         9\n"
                          "group:       4294967295\n"
                          "ipv4-group:  239.1.2.3\n"
                          "ipv6-group:  ff02::1\n"
                          "known nodes: 0\n"
                          "lost nodes:  0\n");
}

TEST_F(commands_test, nodes_are_listed_sorted_as_a_table_or_json_and_watched)
{
    // The monitor takes in announcements only with an interface to hear them on.
    netns_lab lab(1);
    ASSERT_TRUE(lab.ok());
    netns& host = *lab.host(0).ns;
    netns_enter inside(host);
    camera cam;
    ASSERT_TRUE(cam.create(&host));
    monitor& engine = *cam.engine();
    ASSERT_TRUE(engine.is_running());
    auto api = serve(engine);

    cam.inject_announce(0x02000000000bULL, "10.77.0.11", "fd77::b");
    cam.inject_announce(0x020000000002ULL, "10.77.0.2", "fd77::2");
    engine.process_tick();

    auto json = ctl({"nodes", "--json"});
    EXPECT_EQ(json.status, 0) << json.err;
    const std::string noon = std::to_string(harness_noon);
    EXPECT_EQ(json.out, "{\"mac\":\"02:00:00:00:00:02\",\"ipv4\":\"10.77.0.2\",\"ipv6\":\"fd77::2\","
                        "\"first_seen\":" + noon + ",\"last_seen\":" + noon + "}\n"
                        "{\"mac\":\"02:00:00:00:00:0b\",\"ipv4\":\"10.77.0.11\",\"ipv6\":\"fd77::b\","
                        "\"first_seen\":" + noon + ",\"last_seen\":" + noon + "}\n");

    // The ages depend on the real clock; the columns do not.
    auto table = ctl({"nodes"});
    EXPECT_EQ(table.status, 0) << table.err;
    std::vector<std::string> rows;
    gchar** split = g_strsplit(table.out.c_str(), "\n", -1);
    for (gchar** row = split; *row; ++row)
        rows.emplace_back(*row);
    g_strfreev(split);
    ASSERT_EQ(rows.size(), 4u) << table.out;
    EXPECT_EQ(rows[0].rfind("HARDWARE ADDRESS   IPV4        IPV6     FIRST SEEN", 0), 0u) << table.out;
    EXPECT_EQ(rows[1].rfind("02:00:00:00:00:02  10.77.0.2   fd77::2  2026-11-22 12:00:00 (", 0), 0u) << table.out;
    EXPECT_EQ(rows[2].rfind("02:00:00:00:00:0b  10.77.0.11  fd77::b  2026-11-22 12:00:00 (", 0), 0u) << table.out;
    EXPECT_EQ(rows[3], "");

    auto lost = ctl({"nodes", "--lost"});
    EXPECT_EQ(lost.status, 0) << lost.err;
    EXPECT_EQ(lost.out, "No lost nodes.\n");

    // The watch reads every 5 s: a new node joins, a silent one is lost.
    tool watch(on_bus({"watch"}));
    ASSERT_TRUE(iterate_until([&] { return watch.err().find("watching 2 known and 0 lost") != std::string::npos; }))
        << watch.err();
    cam.clock().advance_us(30 * G_TIME_SPAN_SECOND);
    cam.inject_announce(0x020000000003ULL, "10.77.0.3", "fd77::3");
    cam.inject_announce(0x020000000002ULL, "10.77.0.2", "fd77::2");
    engine.process_tick();
    EXPECT_TRUE(iterate_until([&] { return !watch.out().empty(); }));
    cam.clock().advance_us(31 * G_TIME_SPAN_SECOND);
    engine.process_tick(); // 0b has been silent for 61 s
    EXPECT_TRUE(iterate_until([&] { return watch.out().find("lost") != std::string::npos; }));
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.status(), 0) << watch.err();
    EXPECT_EQ(watch.out(), "joined 02:00:00:00:00:03 10.77.0.3 fd77::3\n"
                           "lost 02:00:00:00:00:0b 10.77.0.11 fd77::b\n");
}

TEST_F(commands_test, an_absent_service_is_told_in_one_line)
{
    const std::string absent = "kinwatchctl: the kinwatch service is not running on this bus\n";
    const std::vector<std::vector<std::string>> commands = {
        {"status"}, {"nodes", "--json"}, {"set", "group", "5"}, {"watch"}};
    for (const auto& command : commands) {
        auto result = ctl(command);
        EXPECT_EQ(result.status, 3) << command[0];
        EXPECT_EQ(result.err, absent) << command[0];
        EXPECT_EQ(result.out, "") << command[0];
    }

    temp_dir nowhere;
    auto unreachable = run(kinwatchctl({"--address", "unix:path=" + nowhere.file("no-bus"), "status"}));
    EXPECT_EQ(unreachable.status, 3);
    EXPECT_EQ(unreachable.err, absent);

    auto usage = run(kinwatchctl({"set", "ttl", "300"}));
    EXPECT_EQ(usage.status, 2);
    EXPECT_EQ(usage.err, "kinwatchctl: invalid value '300' for ttl: expected a whole number from 0 to 255\n"
                         "Try 'kinwatchctl --help'.\n");
}

} // namespace
} // namespace kw::test
