// Cost of one process tick of the monitor against the number of known nodes:
//   silent/N    every one of N known nodes has been silent for 61 s and the
//               own id is the lowest, so the tick reports all N of them
//               (event, move to the lost table, DISPATCHED each);
//   announce/N  N ANNOUNCEs of new nodes wait in the receive queue.
// The "per_node" counter is the time per node; it stays flat when the tick
// is linear in N.
//
// The process moves into a network namespace of its own first (root is
// needed); the monitor gets one interface without chains, so its messages
// go nowhere and the tick does all of its table and event work.

#include "bench/brief.hpp"
#include "src/config/settings.hpp"
#include "src/hostnet/mac_address.hpp"
#include "src/tracking/monitor.hpp"

#include <benchmark/benchmark.h>
#include <glib/gstdio.h>
#include <malloc.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

using namespace kw;

void ignore_log(const char*, GLogLevelFlags, const char*, gpointer) {}

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
                peer_message::announce_new(0x020000000000ULL + static_cast<node_id>(i) + 2, 7, in_addr {},
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

// 1,000 to 1,000,000 nodes; a brief run stops at 100,000 (well past the
// receive queue's floor of 4,096), which takes a second instead of seven.
const std::int64_t largest = bench_brief() ? 100000 : 1000000;
BENCHMARK(silent)->RangeMultiplier(10)->Range(1000, largest)->Unit(benchmark::kMillisecond)->Iterations(bench_iterations(5));
BENCHMARK(announce)->RangeMultiplier(10)->Range(1000, largest)->Unit(benchmark::kMillisecond)->Iterations(bench_iterations(5));

} // namespace

int main(int argc, char** argv)
{
    if (geteuid() != 0 || unshare(CLONE_NEWNET) != 0) {
        std::fprintf(stderr, "process_tick_bench needs root to run in a network namespace of its own\n");
        return 1;
    }
    g_log_set_default_handler(&ignore_log, nullptr);
    return run_benchmarks(argc, argv);
}
