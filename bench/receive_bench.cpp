// Datagrams that reach the receive queue under a flood: a receiving thread
// (monitor_receiver over an mcast_receiver, pushing onto the engine's bounded
// receive queue) against a plain blocking recvfrom() loop on a second socket
// of the same group and interface, in the same run, so that both see the
// same offered load. IPv4 and IPv6.
//
// Two network namespaces of its own joined by a veth pair (root is needed):
// the sender in one offers valid LEAVE datagrams of the receiver's group as
// fast as one thread can for half a second per iteration; in the other a
// consumer thread empties the receive queue as the engine's tick would, only
// sooner, and the plain loop counts what it reads. Counters, per second:
// offered, queued (the receiving thread) and plain (the recvfrom loop), and
// the ratio queued/plain.
//
// Keyed: the receiving thread checks every datagram with a group_auth (the
// -k option), which took the sender once it answered a challenge, and the
// sender signs each one with a new sequence number, so every datagram passes
// all the checks and is queued.

#include "bench/brief.hpp"
#include "src/peer/group_auth.hpp"
#include "src/peer/mcast_receiver.hpp"
#include "src/peer/mcast_sender.hpp"
#include "src/peer/monitor_receiver.hpp"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

using namespace kw;

constexpr int port = 17900;
const std::string prefix = "kwbench" + std::to_string(getpid());

void must(const std::string& command)
{
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "failed: %s\n", command.c_str());
        std::exit(1);
    }
}

void enter(const std::string& ns)
{
    int fd = ::open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
        std::fprintf(stderr, "cannot enter %s\n", ns.c_str());
        std::exit(1);
    }
    ::close(fd);
}

// The sender's namespace with "tx0", the receiver's with "rx0", joined.
struct lab {
    lab()
    {
        must("ip netns add " + prefix + "-tx && ip netns add " + prefix + "-rx");
        must("ip -n " + prefix + "-tx link add tx0 type veth peer name rx0 && ip -n " + prefix +
             "-tx link set rx0 netns " + prefix + "-rx");
        for (const char* side : {"tx", "rx"})
            must("ip netns exec " + prefix + "-" + side + " sh -c 'sysctl -qw net.ipv6.conf.all.accept_dad=0 "
                 "net.ipv6.conf.default.accept_dad=0 net.ipv6.conf." + side + "0.accept_dad=0 && ip addr add 10.79.0." + (side[0] == 't' ? "1" : "2") +
                 "/24 dev " + side + "0 && ip link set lo up && ip link set " + side + "0 up && "
                 "ip route add 224.0.0.0/4 dev " + side + "0'");
        for (const char* side : {"tx", "rx"})
            must("ip netns exec " + prefix + "-" + side + " sh -c 'until ip -o link show dev " + side +
                 "0 2>/dev/null | grep -q \"state UP\"; do sleep 0.05; done'");
    }
    ~lab() { std::system(("ip netns del " + prefix + "-tx; ip netns del " + prefix + "-rx").c_str()); }
};

void receive_under_flood(benchmark::State& state, const char* group, bool keyed)
{
    std::string error;
    auto keys = group_keys::parse(std::string(64, '7'), "bench", error);
    auto signer = group_auth::create(keys), checker = group_auth::create(keys);
    static lab namespaces;
    bool ipv4 = std::string(group).find(':') == std::string::npos;

    enter(prefix + "-tx");
    auto sender = mcast_sender::create("tx0", group, port, 1);
    enter(prefix + "-rx");
    auto socket = mcast_receiver::create("rx0", group, port);
    auto plain = mcast_receiver::create("rx0", group, port);
    auto queue = message_queue::create(receive_queue_capacity);
    auto receiver = socket ? monitor_receiver::create(*socket, *queue, 7, {keyed ? checker.get() : nullptr}) : nullptr;
    // The checker takes the sender only once it has answered a challenge.
    auto signed_bytes = [&](std::unique_ptr<peer_message> message) {
        signer->sign(*message, signer->next_sequence());
        return *message->encode();
    };
    auto first = signed_bytes(peer_message::leave_new(0x020000000001ULL, 7));
    checker->decode(first.data(), ssize_t(first.size()), {});
    auto answer = peer_message::announce_new(0x020000000001ULL, 7, {}, {});
    auto challenges = checker->take_work().challenges;
    answer->set_nonce(challenges.empty() ? 0 : challenges[0].nonce);
    auto answer_bytes = signed_bytes(std::move(answer));
    if (keyed && !checker->decode(answer_bytes.data(), ssize_t(answer_bytes.size()), {})) {
        state.SkipWithError("the challenge was not answered");
        return;
    }
    if (!sender || !plain || !receiver || !receiver->start()) {
        state.SkipWithError("setup failed");
        return;
    }

    std::atomic<bool> done {false};
    std::atomic<long> queued {0}, plain_count {0};
    std::thread consumer([&] {
        while (!done || queue->length() > 0) {
            if (queue->try_pop())
                ++queued;
            else
                std::this_thread::yield();
        }
    });
    std::thread plain_loop([&] {
        timeval wake {0, 100000};
        setsockopt(plain->get_fd(), SOL_SOCKET, SO_RCVTIMEO, &wake, sizeof wake);
        std::uint8_t buffer[1024];
        while (!done)
            if (::recvfrom(plain->get_fd(), buffer, sizeof buffer, 0, nullptr, nullptr) > 0)
                ++plain_count;
    });

    auto bytes = *peer_message::leave_new(0x020000000001ULL, 7)->encode();
    long offered = 0;
    for (auto _ : state) {
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
        while (std::chrono::steady_clock::now() < end) {
            for (int i = 0; i < 64; ++i) {
                if (keyed) {
                    auto message = peer_message::leave_new(0x020000000001ULL, 7);
                    signer->sign(*message, signer->next_sequence());
                    bytes = *message->encode();
                }
                offered += sender->send(bytes.data(), bytes.size()) > 0;
            }
        }
        // Lets both readers take what is still in their sockets.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    receiver->stop();
    done = true;
    consumer.join();
    plain_loop.join();

    using benchmark::Counter;
    state.counters["offered"] = Counter(static_cast<double>(offered), Counter::kIsRate);
    state.counters["queued"] = Counter(static_cast<double>(queued), Counter::kIsRate);
    state.counters["plain"] = Counter(static_cast<double>(plain_count), Counter::kIsRate);
    state.counters["queued/plain"] = plain_count ? static_cast<double>(queued) / static_cast<double>(plain_count) : 0;
    state.SetLabel(std::string(ipv4 ? "IPv4" : "IPv6") + (keyed ? " keyed" : ""));
    if (queued == 0)
        state.SkipWithError("no datagram reached the receive queue");
}

BENCHMARK_CAPTURE(receive_under_flood, ipv4, "239.255.79.1", false)->UseRealTime()->Iterations(bench_iterations(6))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(receive_under_flood, ipv6, "ff15::79", false)->UseRealTime()->Iterations(bench_iterations(6))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(receive_under_flood, ipv4_keyed, "239.255.79.1", true)->UseRealTime()->Iterations(bench_iterations(6))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(receive_under_flood, ipv6_keyed, "ff15::79", true)->UseRealTime()->Iterations(bench_iterations(6))->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    return run_benchmarks(argc, argv);
}
