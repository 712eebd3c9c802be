// The built service in private mount and network namespaces, loopback as its interface.

#include "platform/g_ptr.hpp"
#include "src/peer/mcast_sender.hpp"
#include "src/peer/peer_message.hpp"
#include "tests/support/dbus_daemon.hpp"
#include "tests/support/netns.hpp"
#include "tests/support/notify_socket.hpp"
#include "tests/support/process.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>

namespace kw {
namespace {

const std::string PRIVATE = "ulimit -c 0; mount -t tmpfs kw /usr/local && mount -t sysfs kw /sys && "
                            "mount -t tmpfs kw /run || exit 99; unset DBUS_SYSTEM_BUS_ADDRESS; ";
const std::string STATE = "/usr/local/packages/kinwatch/is_running";
const std::string RUNNING = "mkdir -p /usr/local/packages/kinwatch; echo Running >" + STATE + "; ";

std::string settings(const char* ttl, const char* enabled)
{
    return std::string("[Settings]\nTTL=") + ttl + "\nEnabled=" + enabled +
           "\nMulticastGroupIPv4=239.255.77.1\nMulticastGroupIPv6=ff05::77\nMulticastPort=21844\n"
           "Interface=lo\nKinwatchGroup=1\nMaxHosts=256\n";
}

// In a network namespace of its own, or in the one named.
g_ptr<GSubprocess> spawn(const std::string& script, const std::vector<std::string>& args, const char* ns = nullptr)
{
    std::vector<const char*> argv = {"unshare", "-m", "-n", "sh", "-c", script.c_str(), "sh", KW_KINWATCH_BINARY};
    if (ns)
        argv.erase(argv.begin(), argv.begin() + 3), argv.insert(argv.begin(), {"ip", "netns", "exec", ns});
    for (const auto& arg : args)
        argv.push_back(arg.c_str());
    argv.push_back(nullptr);
    auto flags = static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE);
    return adopt(g_subprocess_newv(argv.data(), flags, nullptr));
}

TEST(kinwatch, start_up_failures_end_with_status_1_or_abort)
{
    KW_REQUIRE_ROOT();
    test::temp_dir dir;
    std::string bad_ttl = dir.write("bad_ttl.conf", "# dropped\n" + settings("0", "true"));
    const int fatal = -1;
    auto key_file = [&](const std::string& name, const std::string& text, mode_t mode = 0600) {
        std::string path = dir.write(name, text);
        chmod(path.c_str(), mode);
        return std::vector<std::string> {"-n", "-c", bad_ttl, "-k", path};
    };
    const std::string key = std::string(64, 'a') + "\n";
    auto period = [&](const char* value) { return std::vector<std::string> {"-n", "-c", bad_ttl, "-p", value}; };
    const struct {
        std::vector<std::string> args;
        int status;
        bool top_directory; // made before anything but the command line
        std::vector<const char*> texts;
    } rows[] = {
        {{"-n"}, 1, false, {"Usage:", " Kinwatch\n", "-n, --no-daemon", "Do not run in background", "-c, --config_file",
                            "Specify configuration file, -c <filename>", "-i, --ident", "The name of the process, -i <ident>",
                            "-f, --fast-join", "Answer a newly heard sibling with an ANNOUNCE at once",
                            "-k, --key-file=FILE", "Authenticate the group with the keys in FILE", "-I, --interfaces=PATTERNS",
                            "Use only the interfaces PATTERNS admits (shell patterns, comma-separated, ! to exclude)",
                            "-p, --announce-period=SECONDS",
                            "Announce every SECONDS (1 to 55) and judge each sibling by its own period"}},
        {{"-n", "--bogus"}, fatal, false, {"Unknown option --bogus"}},
        {{"-n", "-c"}, fatal, false, {"Missing argument for -c"}},
        {{"-n", "-c", dir.file("missing.conf")}, 1, true, {"WARNING **: ", ": Failed to read configuration\n"}},
        {{"-n", "-c", bad_ttl}, 1, true, {": Failed to set up monitor\n"}},
        // A refused key file stops the start before the configuration is read.
        {key_file("shared.key", key, 0640), 1, true, {"shared.key: readable or writable by group or others (mode 0640)"}},
        {key_file("hex.key", "# ok\n" + key + key.substr(1, 63) + "x\n"), 1, true, {"hex.key: line 3 is not a key of 64 hex digits\n"}},
        {key_file("short.key", key.substr(32)), 1, true, {"short.key: line 1 is not a key of 64 hex digits\n"}},
        {key_file("empty.key", "# none\n"), 1, true, {"empty.key: no key\n"}},
        {key_file("five.key", key + key + "\n# rotated\n" + key + key + key), 1, true, {"five.key: more than 4 keys\n"}},
        {{"-n", "-c", bad_ttl, "-k", dir.file("missing.key")}, 1, true, {"missing.key: cannot open: No such file or directory\n"}},
        // So does a list of interfaces that cannot be meant.
        {{"-n", "-c", bad_ttl, "-I", ""}, 1, false, {": Invalid -I/--interfaces: an empty list\n"}},
        {{"-n", "-c", bad_ttl, "--interfaces=e*,,x"}, 1, false, {": Invalid -I/--interfaces: an empty pattern in \"e*,,x\"\n"}},
        {{"-n", "-c", bad_ttl, "-I", "e*,!"}, 1, false, {": Invalid -I/--interfaces: \"!\" without a pattern in \"e*,!\"\n"}},
        // A bad period stops the start before anything else is done.
        {period("0"), 1, false, {": --announce-period must be a whole number of seconds from 1 to 55, not \"0\"\n"}},
        {period("56"), 1, false, {"55, not \"56\"\n"}}, {period("-1"), 1, false, {"55, not \"-1\"\n"}},
        {period("1s"), 1, false, {"55, not \"1s\"\n"}}, {period(""), 1, false, {"55, not \"\"\n"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        bool with_file = row.args.back() == bad_ttl;
        auto process = spawn(PRIVATE + (with_file ? RUNNING : std::string()) +
                                 "\"$@\"; s=$?; [ -d /usr/local/packages ] && s=$((s + 1000)); echo $s", row.args);
        char *out = nullptr, *err = nullptr;
        ASSERT_TRUE(process && g_subprocess_communicate_utf8(process.get(), nullptr, nullptr, &out, &err, nullptr));
        int status = std::atoi(take_string(out).c_str());
        std::string errors = take_string(err);
        // A fatal log ends the process with a breakpoint trap or an abort.
        int ended = status % 1000;
        EXPECT_TRUE(row.status == fatal ? ended == 128 + SIGTRAP || ended == 128 + SIGABRT : ended == row.status)
            << status << errors;
        EXPECT_TRUE(with_file || (status >= 1000) == row.top_directory);
        for (const char* text : row.texts)
            EXPECT_NE(errors.find(text), std::string::npos) << text << " in:\n" << errors;
    }
    // The failed start leaves the monitor disabled, in a rewritten file.
    EXPECT_EQ(dir.read("bad_ttl.conf"), settings("0", "false"));
}

// Started with the package stopped: only the running main loop can start the monitor, whose start
// rewrites the file; a signal ends the service without teardown, leaving the file.
TEST(kinwatch, runs_its_main_loop_until_terminated)
{
    KW_REQUIRE_ROOT();
    test::temp_dir dir;
    std::string config = dir.write("kinwatch.conf", "# dropped\n" + settings("1", "true") + "Extra=1\n");
    test::notify_socket manager; // no bus at all: ready all the same, the STATUS line says so
    g_setenv("NOTIFY_SOCKET", manager.path().c_str(), TRUE);
    auto process = spawn(PRIVATE + RUNNING + "echo Stopped >" + STATE + "; exec \"$@\" 2>" + dir.file("err"),
                         {"-n", "-c", config});
    ASSERT_TRUE(process);
    std::string proc = std::string("/proc/") + g_subprocess_get_identifier(process.get());
    auto watches = [&] {
        std::string count;
        test::run("cat " + proc + "/fdinfo/* | grep -c '^inotify wd:'", &count);
        return std::atoi(count.c_str());
    };
    for (int tries = 0; tries < 1000 && watches() < 2; ++tries)
        g_usleep(10'000);
    std::ofstream(proc + "/root" + STATE) << "Running\n";
    for (int tries = 0; tries < 1000 && dir.read("kinwatch.conf") != settings("1", "true"); ++tries)
        g_usleep(10'000);
    // No bus in its namespace: one warning, and the monitor runs all the same.
    for (int tries = 0; tries < 1000 && !dir.read("err").value_or("").ends_with("retrying\n"); ++tries)
        g_usleep(10'000);
    // The bus's failure (and READY after it) and the monitor's start are told in either order.
    const std::string running = "STATUS=0 known, 0 lost, 0 interfaces; no system bus, retrying";
    std::vector<std::string> told;
    while (auto message = manager.receive())
        if (told.emplace_back(*message), std::ranges::count(told, "READY=1") && std::ranges::count(told, running))
            break;
    test::end_process(process.get());
    EXPECT_TRUE(told.size() >= 3 && told.front() == "STATUS=monitor off: the package is not running" &&
                std::ranges::count(told, "READY=1") == 1 && std::ranges::count(told, running) == 1)
        << testing::PrintToString(told);
    std::string errors = *dir.read("err");
    EXPECT_EQ(std::ranges::count(errors, '\n'), 2) << errors;
    EXPECT_TRUE(errors.ends_with(": Failed to connect to the system bus: Could not connect: No such file or directory; "
                                 "retrying\n")) << errors;
    EXPECT_TRUE(g_subprocess_get_if_signaled(process.get()) && g_subprocess_get_term_sig(process.get()) == SIGTERM);
    EXPECT_EQ(dir.read("kinwatch.conf"), settings("1", "true"));
}

// Under a service manager: READY=1 once the bus name is owned (none while the bus hangs), WATCHDOG=1
// once a second for a period of two, and a STATUS line that follows a sibling joining.
TEST(kinwatch, tells_the_service_manager_it_is_ready_alive_and_what_it_knows)
{
    KW_REQUIRE_ROOT();
    test::dbus_daemon bus;
    test::netns_lab lab(2);
    test::notify_socket manager;
    test::temp_dir dir;
    ASSERT_TRUE(bus.ok() && lab.ok());
    g_setenv("NOTIFY_SOCKET", manager.path().c_str(), TRUE);
    g_setenv("WATCHDOG_USEC", "2000000", TRUE);
    bus.signal(SIGSTOP);
    // ip netns exec mounts the namespace's own /sys already.
    auto process = spawn("mount -t tmpfs kw /usr/local && mount -t tmpfs kw /run || exit 99; " + RUNNING + "exec \"$@\" 2>" + dir.file("err"),
                         {"-n", "-c", dir.write("kinwatch.conf", settings("1", "true"))}, lab.host(0).ns->name().c_str());
    std::vector<std::string> told;
    gint64 first = 0, last = 0, pings = 0, end = g_get_monotonic_time() + 60 * G_USEC_PER_SEC;
    for (auto message = manager.receive(); message && last < end; message = manager.receive()) {
        if (*message == "WATCHDOG=1") {
            last = g_get_monotonic_time(), first = first ? first : last;
            if (++pings == 2)
                bus.signal(SIGCONT);
            continue;
        }
        if (told.emplace_back(*message).starts_with("STATUS=1 known"))
            break;
        if (*message != "READY=1")
            continue;
        EXPECT_GE(pings, 2) << "ready while the bus did not answer";
        std::string reply;
        EXPECT_EQ(test::run("timeout 10 gdbus call --system -d com.tavix.Kinwatch -o /com/tavix/Kinwatch -m "
                            "com.tavix.Kinwatch.GetKnownNodes", &reply), 0) << reply;
        test::netns_enter in(*lab.host(1).ns); // a sibling announces itself
        auto sent = *peer_message::announce_new(0x020000000042ULL, 1, {}, {})->encode();
        mcast_sender::create("eth0", "239.255.77.1", 21844, 1)->send(sent.data(), sent.size());
    }
    test::end_process(process.get());
    EXPECT_EQ(told, (std::vector<std::string> {"STATUS=0 known, 0 lost, 1 interface", "READY=1",
                                              "STATUS=1 known, 0 lost, 1 interface"})) << dir.read("err").value_or("");
    // On average: on a loaded machine the test may read one late, and the next then seems early.
    EXPECT_TRUE(pings >= 3 && (last - first) / (pings - 1) < 3 * G_USEC_PER_SEC / 2) << pings << " pings";
}

} // namespace
} // namespace kw
