#include "tests/e2e/lab.hpp"
#include "tests/support/netns.hpp"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace kw::test {
namespace {

using namespace std::chrono_literals;

// A sibling's ANNOUNCE comes every 55 s; a camera started after another
// learns it at that one's next ANNOUNCE.
constexpr auto convergence_limit = 70s;
// The last ANNOUNCE is applied up to 5 s after it came, silence of 60 s is
// found at a 5-s tick, plus the time to poll.
constexpr auto loss_limit = 80s;
// A LEAVE or a start ANNOUNCE is applied at the next 5-s tick; well below
// the 60 s after which silence alone would remove a node.
constexpr auto prompt_limit = 30s;

// Whether a camera's list names the other camera; nothing when the call fails.
std::optional<bool> listed(lab& cameras, int camera, const char* method, int other)
{
    auto nodes = cameras.nodes(camera, method);
    if (!nodes)
        return std::nullopt;
    return std::any_of(nodes->begin(), nodes->end(), [&](const lab_node& node) { return node.mac == lab_mac_of(other); });
}

bool knows(lab& cameras, int camera, int other)
{
    return listed(cameras, camera, "GetKnownNodes", other).value_or(false);
}

// A failed call proves nothing, so it does not count as forgetting.
bool forgot(lab& cameras, int camera, int other)
{
    return !listed(cameras, camera, "GetKnownNodes", other).value_or(true);
}

bool lost(lab& cameras, int camera, int other)
{
    return listed(cameras, camera, "GetLostNodes", other).value_or(false);
}

bool not_lost(lab& cameras, int camera, int other)
{
    return !listed(cameras, camera, "GetLostNodes", other).value_or(true);
}

// Every camera lists every other one.
bool converged(lab& cameras, int count)
{
    for (int camera = 1; camera <= count; ++camera)
        for (int other = 1; other <= count; ++other)
            if (other != camera && !knows(cameras, camera, other))
                return false;
    return true;
}

int disconnects(const lab& cameras, int count)
{
    int total = 0;
    for (int camera = 1; camera <= count; ++camera)
        total += cameras.count_events(camera, "SiblingDisconnected");
    return total;
}

void report(const char* what, double seconds)
{
    std::cout << "[ timing ] " << what << ": " << seconds << " s" << std::endl;
    ::testing::Test::RecordProperty(what, std::to_string(seconds));
}

std::vector<std::uint8_t> announce_of(int camera, std::uint32_t group)
{
    std::vector<std::uint8_t> bytes = {0, 1};
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.push_back(static_cast<std::uint8_t>(group >> shift));
    for (std::uint8_t octet : {2, 0, 0, 0, 0})
        bytes.push_back(octet);
    bytes.push_back(static_cast<std::uint8_t>(camera));
    std::uint8_t ipv4[4];
    std::uint8_t ipv6[16];
    inet_pton(AF_INET, lab_ipv4_of(camera).c_str(), ipv4);
    inet_pton(AF_INET6, lab_ipv6_of(camera).c_str(), ipv6);
    bytes.insert(bytes.end(), ipv4, ipv4 + 4);
    bytes.insert(bytes.end(), ipv6, ipv6 + 16);
    return bytes;
}

// Waits until every camera knows every other one and checks what the lists
// and the logs say about that.
void expect_converged(lab& cameras, int count, std::uint64_t since)
{
    auto took = wait_for([&] { return converged(cameras, count); }, convergence_limit);
    ASSERT_TRUE(took) << "the cameras did not all learn each other within " << convergence_limit.count() << " s";
    report("convergence_seconds", *took);

    std::uint64_t now = unix_seconds();
    for (int camera = 1; camera <= count; ++camera) {
        SCOPED_TRACE("camera " + std::to_string(camera));
        std::string error;
        auto known = cameras.nodes(camera, "GetKnownNodes", &error);
        ASSERT_TRUE(known) << error;
        EXPECT_EQ(known->size(), static_cast<std::size_t>(count - 1));
        for (int other = 1; other <= count; ++other) {
            if (other == camera)
                continue;
            auto node = std::find_if(known->begin(), known->end(),
                                     [&](const lab_node& n) { return n.mac == lab_mac_of(other); });
            ASSERT_NE(node, known->end()) << lab_mac_of(other);
            EXPECT_EQ(node->ipv4, lab_ipv4_of(other));
            EXPECT_EQ(node->ipv6, lab_ipv6_of(other));
            EXPECT_LE(since, node->first_seen);
            EXPECT_LE(node->first_seen, node->last_seen);
            EXPECT_LE(node->last_seen, now);
            EXPECT_EQ(cameras.count_events(camera, "SiblingConnected", lab_mac_of(other)), 1) << lab_mac_of(other);
        }
        EXPECT_EQ(cameras.count_events(camera, "SiblingConnected"), count - 1);
    }
    EXPECT_EQ(disconnects(cameras, count), 0);
}

TEST(lab_test, three_cameras_learn_each_other_and_follow_run_state_and_group)
{
    KW_REQUIRE_ROOT();
    const std::uint64_t since = unix_seconds();
    lab cameras(3);
    ASSERT_TRUE(cameras.ok());

    // Started at once, so the capture runs while the cameras converge.
    const std::string capture = cameras.state_directory() + "/announce.pcap";
    auto capturing = cameras.start({"capture", capture, "4", "120"});
    ASSERT_TRUE(capturing);

    {
        SCOPED_TRACE("every camera learns the two others");
        expect_converged(cameras, 3, since);
        if (HasFatalFailure())
            return;
    }

    {
        SCOPED_TRACE("an ANNOUNCE on the bridge");
        error_out error;
        ASSERT_TRUE(g_subprocess_wait(capturing.get(), nullptr, error.out())) << error.message();
        ASSERT_EQ(g_subprocess_get_exit_status(capturing.get()), 0);
        auto datagrams = read_capture(capture);
        ASSERT_EQ(datagrams.size(), 4u);
        bool seen[2] = {false, false};
        for (const auto& datagram : datagrams) {
            ASSERT_EQ(datagram.payload.size(), 32u);
            int sender = datagram.payload[11];
            ASSERT_TRUE(sender >= 1 && sender <= 3) << sender;
            EXPECT_EQ(datagram.payload, announce_of(sender, 1)) << "from camera " << sender;
            EXPECT_EQ(datagram.destination_port, 21845);
            if (datagram.family == AF_INET) {
                EXPECT_EQ(datagram.source, lab_ipv4_of(sender));
                EXPECT_EQ(datagram.destination, "239.255.78.1");
            } else {
                EXPECT_EQ(datagram.source, lab_ipv6_of(sender));
                EXPECT_EQ(datagram.destination, "ff05::78");
            }
            seen[datagram.family == AF_INET6] = true;
        }
        EXPECT_TRUE(seen[0] && seen[1]) << "the ANNOUNCEs should go out over IPv4 and IPv6";
    }

    {
        SCOPED_TRACE("a camera whose package stops leaves without an event");
        ASSERT_TRUE(cameras.must("run-state 3 Stopped"));
        auto took = wait_for([&] { return forgot(cameras, 1, 3) && forgot(cameras, 2, 3); }, prompt_limit);
        ASSERT_TRUE(took) << "the siblings still list camera 3";
        report("leave_seconds", *took);
        const std::string leave = "LEAVE: " + std::to_string(0x020000000003ull);
        for (int camera : {1, 2}) {
            EXPECT_NE(cameras.log(camera).find(leave), std::string::npos) << "camera " << camera;
            EXPECT_TRUE(not_lost(cameras, camera, 3)) << "camera " << camera;
        }
        auto own = cameras.nodes(3, "GetKnownNodes");
        ASSERT_TRUE(own);
        EXPECT_TRUE(own->empty()) << "a stopped monitor has no lists";
        EXPECT_EQ(disconnects(cameras, 3), 0);

        ASSERT_TRUE(cameras.must("run-state 3 Running"));
        took = wait_for([&] { return knows(cameras, 1, 3) && knows(cameras, 2, 3); }, prompt_limit);
        ASSERT_TRUE(took) << "the siblings did not learn camera 3 again";
        report("rejoin_seconds", *took);
        for (int camera : {1, 2})
            EXPECT_EQ(cameras.count_events(camera, "SiblingConnected", lab_mac_of(3)), 2) << "camera " << camera;
        EXPECT_EQ(disconnects(cameras, 3), 0);
    }

    {
        SCOPED_TRACE("a group change over the bus");
        std::string error;
        ASSERT_TRUE(cameras.set_property(1, "Group", g_variant_new_uint32(5), &error)) << error;
        for (const char* method : {"GetKnownNodes", "GetLostNodes"}) {
            auto nodes = cameras.nodes(1, method, &error);
            ASSERT_TRUE(nodes) << error;
            EXPECT_TRUE(nodes->empty()) << method;
        }
        auto group = cameras.property(1, "Group", &error);
        ASSERT_TRUE(group) << error;
        EXPECT_EQ(g_variant_get_uint32(group.get()), 5u);
        EXPECT_NE(cameras.configuration(1).find("\nKinwatchGroup=5\n"), std::string::npos)
            << cameras.configuration(1);
        // Its LEAVE, still in the old group, reaches the two others.
        EXPECT_TRUE(wait_for([&] { return forgot(cameras, 2, 1) && forgot(cameras, 3, 1); }, prompt_limit));
        EXPECT_EQ(disconnects(cameras, 3), 0);
    }
}

TEST(lab_test, a_killed_camera_is_reported_once_by_the_lowest_id)
{
    KW_REQUIRE_ROOT();
    const std::uint64_t since = unix_seconds();
    lab cameras(3);
    ASSERT_TRUE(cameras.ok());
    expect_converged(cameras, 3, since);
    if (HasFatalFailure())
        return;

    ASSERT_TRUE(cameras.must("kill 3"));
    auto took = wait_for([&] { return cameras.count_events(1, "SiblingDisconnected", lab_mac_of(3)) > 0; },
                         loss_limit);
    ASSERT_TRUE(took) << "camera 1 did not report camera 3";
    report("loss_seconds", *took);

    // Once both list it as lost, neither can report it any more.
    ASSERT_TRUE(wait_for([&] { return lost(cameras, 1, 3) && lost(cameras, 2, 3); }, prompt_limit));
    EXPECT_EQ(cameras.count_events(1, "SiblingDisconnected"), 1);
    EXPECT_EQ(cameras.count_events(2, "SiblingDisconnected"), 0);
    for (auto [camera, other] : {std::pair {1, 2}, std::pair {2, 1}}) {
        EXPECT_TRUE(forgot(cameras, camera, 3)) << "camera " << camera;
        EXPECT_TRUE(knows(cameras, camera, other)) << "camera " << camera;
    }
}

bool gone(int pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::size_t end = text.rfind(')');
    return text.empty() || (end != std::string::npos && text.compare(end, 4, ") Z ") == 0);
}

std::string lines_naming(const std::string& path, const std::string& text)
{
    std::ifstream in(path);
    std::string found;
    for (std::string line; std::getline(in, line);)
        if (line.find(text) != std::string::npos)
            found += line + "\n";
    return found;
}

TEST(lab_test, down_leaves_no_namespace_process_or_mount)
{
    KW_REQUIRE_ROOT();
    std::vector<int> pids;
    std::string name;
    std::string state;
    {
        lab cameras(2);
        ASSERT_TRUE(cameras.ok());
        name = cameras.name();
        state = cameras.state_directory();
        auto processes = cameras.processes();
        ASSERT_EQ(processes.size(), 2u);
        for (const auto& camera : processes) {
            SCOPED_TRACE("camera " + std::to_string(camera.camera));
            ASSERT_GT(camera.kinwatch, 0);
            ASSERT_GT(camera.bus, 0);
            pids.push_back(camera.kinwatch);
            pids.push_back(camera.bus);
            // The service sees the camera's own interface and package directory.
            std::string seen;
            ASSERT_EQ(run("nsenter --target " + std::to_string(camera.bus) +
                              " --mount --net cat /sys/class/net/eth0/address "
                              "/usr/local/packages/kinwatch/is_running",
                          &seen),
                      0)
                << seen;
            EXPECT_EQ(seen, lab_mac_of(camera.camera) + "\nRunning\n");
        }
        EXPECT_EQ(lines_naming("/proc/mounts", state), "") << "mounts belong in the cameras' namespaces";

        // A lab whose processes died is cleaned as well, and twice is harmless.
        ASSERT_TRUE(cameras.must("kill 2"));
        EXPECT_EQ(cameras.run("down"), 0);
        EXPECT_EQ(cameras.run("down"), 0);
    }

    std::string namespaces;
    run("ip netns list", &namespaces);
    EXPECT_EQ(namespaces.find("kwlab-" + name + "-"), std::string::npos) << namespaces;
    for (int pid : pids)
        EXPECT_TRUE(wait_for([&] { return gone(pid); }, 10s)) << "process " << pid << " still runs";
    EXPECT_EQ(lines_naming("/proc/mounts", "kwlab-" + name + "-"), "");
    EXPECT_EQ(lines_naming("/proc/mounts", state), "");
    EXPECT_FALSE(std::filesystem::exists(state));
}

TEST(lab_test, refuses_to_run_without_root)
{
    KW_REQUIRE_ROOT();
    std::string output;
    int status = run("setpriv --reuid=65534 --regid=65534 --clear-groups " KW_LAB_SCRIPT " status", &output);
    EXPECT_NE(status, 0);
    EXPECT_NE(output.find("must run as root"), std::string::npos) << output;
}

} // namespace
} // namespace kw::test
