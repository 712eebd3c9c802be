// Cost of one process tick of the monitor against the number of known nodes:
//   silent/N    every one of N known nodes has been silent for 61 s and the
//               own id is the lowest, so the tick reports all N of them
//               (event, move to the lost table, DISPATCHED each);
//   announce/N  N ANNOUNCEs of new nodes wait in the receive queue.
//   announce_on_bus/N/S
//               the same with the service's object on a private bus, so
//               the tick also emits N NodeJoined signals; S = 1: a client
//               has asked for every signal of the service and reads none.
// The "per_node" counter is the time per node; it stays flat when the tick
// is linear in N.
//
// The process moves into a network namespace of its own first (root is
// needed); the monitor gets one interface without chains, so its messages
// go nowhere and the tick does all of its table and event work.

#include "bench/brief.hpp"
#include "src/config/settings.hpp"
#include "src/hostnet/mac_address.hpp"
#include "src/surfaces/dbus_api.hpp"
#include "src/tracking/monitor.hpp"

#include <benchmark/benchmark.h>
#include <glib/gstdio.h>
#include <malloc.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

namespace {

using namespace kw;

void ignore_log(const char*, GLogLevelFlags, const char*, gpointer) {}
// The journal entries of the events are written apart from the log lines.
GLogWriterOutput ignore_entry(GLogLevelFlags, const GLogField*, gsize, gpointer)
{
    return G_LOG_WRITER_HANDLED;
}

// A started monitor with one interface and a clock that moves by hand.
class bench_monitor {
public:
    bench_monitor()
    {
        char pattern[] = "/tmp/kw-bench-XXXXXX";
        m_dir = g_mkdtemp(pattern);
        g_mkdir_with_parents((m_dir + "/sys/eth0").c_str(), 0755);
        g_mkdir_with_parents((m_dir + "/packages/kinwatch").c_str(), 0755);
        std::ofstream(m_dir + "/sys/eth0/address") << "00:00:00:00:00:01\n";
        std::ofstream(m_dir + "/packages/kinwatch/is_running") << "Running\n";
        std::ofstream(m_dir + "/kinwatch.conf")
            << "[Settings]\nTTL=1\nEnabled=true\nMulticastGroupIPv4=239.255.77.1\nMulticastGroupIPv6=ff05::77\n"
               "MulticastPort=21844\nInterface=eth0\nKinwatchGroup=7\nMaxHosts=1000000\n";

        m_now = adopt(g_date_time_new_local(2026, 11, 22, 12, 0, 0.0));
        m_settings = settings::create(m_dir + "/kinwatch.conf");
        monitor_environment environment;
        environment.run_state = package(m_dir + "/packages");
        environment.sysfs_root = m_dir + "/sys";
        environment.clock = [this] { return ref(m_now.get()); };
        environment.monotonic = [this] { return m_monotonic_us; };
        m_monitor = monitor::create(*m_settings, std::move(environment));
        if (!m_monitor || !m_monitor->is_running()) {
            std::fprintf(stderr, "monitor did not start\n");
            std::exit(1);
        }
        interface_state state;
        state.up = TRUE;
        monitor::on_interface_changed(0, state, "bench0", m_monitor.get());
    }

    ~bench_monitor()
    {
        m_monitor.reset();
        m_settings.reset();
        std::system(("rm -rf " + m_dir).c_str());
    }

    monitor& engine() { return *m_monitor; }

    void queue_announces(std::int64_t count)
    {
        for (std::int64_t i = 0; i < count; ++i)
            m_monitor->get_receive_queue()->push(
                peer_message::announce_new(0x020000000000ULL + static_cast<node_id>(i) + 2, m_group, in_addr {},
                                           in6_addr {}));
    }

    // Silence is measured on the monotonic clock; the wall clock moves with
    // it so that first and last seen look as they would on a camera.
    void advance_seconds(int seconds)
    {
        m_now = adopt(g_date_time_add_seconds(m_now.get(), seconds));
        m_monotonic_us += seconds * G_TIME_SPAN_SECOND;
    }

    // A new group number empties both tables. The freed records go back to
    // the system before the next measurement, as the tick that follows a flood
    // does on a camera; otherwise the timed tick's own trim would pay for the
    // previous benchmark's heap.
    void clear_tables()
    {
        m_monitor->set_group(++m_group);
        malloc_trim(0);
    }

private:
    std::string m_dir;
    g_ptr<GDateTime> m_now;
    gint64 m_monotonic_us = 0;
    std::unique_ptr<settings> m_settings;
    std::unique_ptr<monitor> m_monitor;
    std::uint32_t m_group = 7;
};

// A private bus daemon with the service's object on it, and a client that
// connects by hand, asks for every signal of the service and then never
// reads its socket: what the daemon cannot deliver piles up there, not in
// the service.
class bench_bus {
public:
    explicit bench_bus(monitor& engine, bool subscribed)
    {
        std::ofstream(m_config) << "<busconfig><type>system</type><listen>unix:dir=/tmp</listen><auth>EXTERNAL</auth>"
                                   "<policy context='default'><allow user='*'/><allow own='*'/>"
                                   "<allow send_type='method_call'/><allow send_type='method_return'/>"
                                   "<allow send_type='error'/><allow send_type='signal'/><allow receive_type='method_call'/>"
                                   "<allow receive_type='method_return'/><allow receive_type='error'/>"
                                   "<allow receive_type='signal'/></policy></busconfig>";
        g_ptr<GSubprocessLauncher> launcher = adopt(g_subprocess_launcher_new(GSubprocessFlags(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_SILENCE)));
        g_subprocess_launcher_set_child_setup(launcher.get(), [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGTERM); },
                                              nullptr, nullptr);
        m_daemon = adopt(g_subprocess_launcher_spawn(launcher.get(), nullptr, "dbus-daemon", "--nofork", "--nosyslog",
                                                     "--print-address", ("--config-file=" + m_config).c_str(),
                                                     nullptr));
        g_ptr<GDataInputStream> output =
            adopt(m_daemon ? g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_daemon.get())) : nullptr);
        g_ptr<char> address(output ? g_data_input_stream_read_line(output.get(), nullptr, nullptr, nullptr) : nullptr);
        if (!address || !*address)
            fail("no bus daemon");
        g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address.get(), TRUE);
        m_api = dbus_api::create(engine, false);
        // The object is registered before the name is asked for.
        auto client = adopt(g_dbus_connection_new_for_address_sync(
            address.get(),
            GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr));
        for (int tries = 0; !answers(client.get()); ++tries) {
            if (tries > 1000)
                fail("the service did not come on the bus");
            g_main_context_iteration(nullptr, FALSE);
            g_usleep(1000);
        }
        if (subscribed)
            subscribe(address.get());
    }
    ~bench_bus()
    {
        m_api.reset();
        g_subprocess_send_signal(m_daemon.get(), SIGTERM);
        g_subprocess_wait(m_daemon.get(), nullptr, nullptr);
        g_unlink(m_config.c_str());
    }

private:
    [[noreturn]] static void fail(const char* why)
    {
        std::fprintf(stderr, "process_tick_bench: %s\n", why);
        std::exit(1);
    }
    // The bus itself answers, since this thread serves the object.
    static bool answers(GDBusConnection* client)
    {
        g_ptr<GVariant> reply = adopt(g_dbus_connection_call_sync(
            client, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
            g_variant_new("(s)", dbus_api::bus_name), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 1000, nullptr,
            nullptr));
        gboolean owned = FALSE;
        if (reply)
            g_variant_get(reply.get(), "(b)", &owned);
        return owned;
    }
    void write_message(GDBusMessage* message, guint32 serial)
    {
        g_dbus_message_set_serial(message, serial);
        gsize size = 0;
        g_ptr<guchar> blob(g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr));
        if (!blob || ::write(m_client.get(), blob.get(), size) != static_cast<ssize_t>(size))
            fail("cannot write to the bus");
    }
    void subscribe(const char* address)
    {
        const char* path = std::strstr(address, "path=");
        sockaddr_un where {};
        where.sun_family = AF_UNIX;
        if (!path)
            fail("the bus address has no path");
        std::strncpy(where.sun_path, path + 5, std::strcspn(path + 5, ","));
        m_client = unique_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (connect(m_client.get(), reinterpret_cast<sockaddr*>(&where), sizeof where) != 0)
            fail("cannot reach the bus");
        // The uid's decimal text, each character as two hex digits.
        std::string hex;
        for (char c : std::to_string(geteuid())) {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(c));
            hex += digits;
        }
        std::string hello = std::string(1, '\0') + "AUTH EXTERNAL " + hex + "\r\n";
        char answer[256] = {};
        if (::write(m_client.get(), hello.data(), hello.size()) < 0 || ::read(m_client.get(), answer, sizeof answer) <= 0 ||
            std::strncmp(answer, "OK ", 3) != 0 || ::write(m_client.get(), "BEGIN\r\n", 7) != 7)
            fail("the bus refused the client");
        auto call = [](const char* method) {
            return adopt(g_dbus_message_new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                        "org.freedesktop.DBus", method));
        };
        auto hello_call = call("Hello");
        write_message(hello_call.get(), 1);
        auto match = call("AddMatch");
        g_dbus_message_set_body(match.get(), g_variant_new("(s)", "type='signal',sender='com.tavix.Kinwatch'"));
        write_message(match.get(), 2);
        // The replies wait unread with everything after them.
    }

    std::string m_config = "/tmp/kw-bench-bus-" + std::to_string(getpid()) + ".conf";
    g_ptr<GSubprocess> m_daemon;
    std::unique_ptr<dbus_api> m_api;
    unique_fd m_client;
};

bench_monitor& shared_monitor()
{
    static bench_monitor instance;
    return instance;
}

void set_per_node(benchmark::State& state)
{
    state.counters["per_node"] = benchmark::Counter(static_cast<double>(state.range(0)),
                                                    benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}

void silent(benchmark::State& state)
{
    bench_monitor& bench = shared_monitor();
    for (auto _ : state) {
        state.PauseTiming();
        bench.clear_tables();
        bench.queue_announces(state.range(0));
        bench.engine().process_tick();
        bench.advance_seconds(61);
        state.ResumeTiming();

        bench.engine().process_tick();

        state.PauseTiming();
        if (bench.engine().get_lost_nodes_table()->get_size() != state.range(0)) {
            state.SkipWithError("not every silent node was reported");
            break;
        }
        state.ResumeTiming();
    }
    set_per_node(state);
}

void announce(benchmark::State& state)
{
    bench_monitor& bench = shared_monitor();
    for (auto _ : state) {
        state.PauseTiming();
        bench.clear_tables();
        bench.queue_announces(state.range(0));
        state.ResumeTiming();

        bench.engine().process_tick();

        state.PauseTiming();
        if (bench.engine().get_known_nodes_table()->get_size() != state.range(0)) {
            state.SkipWithError("not every node was learnt");
            break;
        }
        state.ResumeTiming();
    }
    set_per_node(state);
}

void announce_on_bus(benchmark::State& state)
{
    bench_monitor& bench = shared_monitor();
    bench_bus bus(bench.engine(), state.range(1) != 0);
    announce(state);
}

// 1,000 to 1,000,000 nodes; a brief run stops at 100,000 (well past the
// receive queue's floor of 4,096), which takes a second instead of seven.
const std::int64_t largest = bench_brief() ? 100000 : 1000000;
BENCHMARK(silent)->RangeMultiplier(10)->Range(1000, largest)->Unit(benchmark::kMillisecond)->Iterations(bench_iterations(5));
BENCHMARK(announce)->RangeMultiplier(10)->Range(1000, largest)->Unit(benchmark::kMillisecond)->Iterations(bench_iterations(5));
BENCHMARK(announce_on_bus)->Args({1000, 0})->Args({1000, 1})->Unit(benchmark::kMillisecond)->Iterations(bench_iterations(20));

} // namespace

int main(int argc, char** argv)
{
    if (geteuid() != 0 || unshare(CLONE_NEWNET) != 0) {
        std::fprintf(stderr, "process_tick_bench needs root to run in a network namespace of its own\n");
        return 1;
    }
    g_log_set_default_handler(&ignore_log, nullptr);
    // Set before anything logs: silent unless KW_BENCH_LOG_ENTRIES is set, to
    // show what writing them costs.
    if (!g_getenv("KW_BENCH_LOG_ENTRIES"))
        g_log_set_writer_func(&ignore_entry, nullptr, nullptr);
    return run_benchmarks(argc, argv);
}
