// kinwatchctl against the cameras of the lab: each camera is a real
// kinwatch with a system bus of its own, reached with --address. One lab
// serves every check, in an order that lets one camera leave, come back and
// be lost while a watch runs.

#include "tests/e2e/lab.hpp"
#include "tests/support/netns.hpp"
#include "tests/support/temp_dir.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sstream>

namespace kw::test {
namespace {

using namespace std::chrono_literals;

// A camera started after another learns it at that one's next ANNOUNCE.
constexpr auto convergence_limit = 70s;
// A LEAVE is applied at the next 5-s tick.
constexpr auto prompt_limit = 30s;
// Silence of 60 s, found at a 5-s tick, then read by the watch every 5 s.
constexpr auto loss_limit = 100s;

std::string line_of(const char* what, int camera)
{
    return std::string(what) + " " + lab_mac_of(camera) + " " + lab_ipv4_of(camera) + " " + lab_ipv6_of(camera) + "\n";
}

// One run of the tool with its output in files, readable while it runs.
class tool {
public:
    explicit tool(const std::vector<std::string>& arguments)
    {
        std::vector<const char*> argv {KW_KINWATCHCTL_BINARY};
        for (const auto& argument : arguments)
            argv.push_back(argument.c_str());
        argv.push_back(nullptr);
        auto launcher = adopt(g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_NONE));
        g_subprocess_launcher_set_stdout_file_path(launcher.get(), m_dir.file("out").c_str());
        g_subprocess_launcher_set_stderr_file_path(launcher.get(), m_dir.file("err").c_str());
        error_out error;
        m_process = adopt(g_subprocess_launcher_spawnv(launcher.get(), argv.data(), error.out()));
        EXPECT_TRUE(m_process) << "cannot run kinwatchctl: " << error.message();
    }
    tool(const tool&) = delete;
    tool& operator=(const tool&) = delete;
    ~tool()
    {
        if (m_process && !m_waited) {
            g_subprocess_force_exit(m_process.get());
            g_subprocess_wait(m_process.get(), nullptr, nullptr);
        }
    }

    // The exit status; -1 when the tool did not end normally.
    int status()
    {
        if (!m_process)
            return -1;
        m_waited = g_subprocess_wait(m_process.get(), nullptr, nullptr);
        if (!m_waited || !g_subprocess_get_if_exited(m_process.get()))
            return -1;
        return g_subprocess_get_exit_status(m_process.get());
    }
    void signal(int number) { g_subprocess_send_signal(m_process.get(), number); }

    std::string out() const { return m_dir.read("out").value_or(""); }
    std::string err() const { return m_dir.read("err").value_or(""); }

private:
    temp_dir m_dir;
    g_ptr<GSubprocess> m_process;
    bool m_waited = false;
};

struct outcome {
    int status;
    std::string out;
    std::string err;
};

outcome run_tool(const std::vector<std::string>& arguments)
{
    tool t(arguments);
    int status = t.status();
    return {status, t.out(), t.err()};
}

// The fields of one line of nodes --json, read back by hand: the five
// fields come in a fixed order with no nesting.
std::optional<lab_node> parse_json_line(const std::string& line)
{
    char mac[64], ipv4[64], ipv6[64];
    unsigned long long first = 0, last = 0;
    int end = 0;
    int matched = std::sscanf(line.c_str(),
                              "{\"mac\":\"%63[^\"]\",\"ipv4\":\"%63[^\"]\",\"ipv6\":\"%63[^\"]\","
                              "\"first_seen\":%llu,\"last_seen\":%llu}%n",
                              mac, ipv4, ipv6, &first, &last, &end);
    if (matched != 5 || static_cast<std::size_t>(end) != line.size())
        return std::nullopt;
    return lab_node {mac, ipv4, ipv6, first, last};
}

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

bool lists(const std::optional<std::vector<lab_node>>& nodes, int camera)
{
    return nodes && std::any_of(nodes->begin(), nodes->end(),
                                [&](const lab_node& node) { return node.mac == lab_mac_of(camera); });
}

TEST(kinwatchctl_test, lists_sets_and_watches_the_cameras_of_a_lab)
{
    KW_REQUIRE_ROOT();
    lab cameras(3);
    ASSERT_TRUE(cameras.ok());
    std::vector<std::string> address(4);
    for (int camera = 1; camera <= 3; ++camera) {
        std::string output;
        ASSERT_EQ(cameras.run("address " + std::to_string(camera), &output), 0) << output;
        address[static_cast<std::size_t>(camera)] = output.substr(0, output.find('\n'));
    }
    auto ctl = [&](int camera, std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--address", address[static_cast<std::size_t>(camera)]});
        return arguments;
    };

    std::string error;
    ASSERT_TRUE(wait_for([&] {
        auto known = cameras.nodes(1, "GetKnownNodes", &error);
        return lists(known, 2) && lists(known, 3);
    }, convergence_limit)) << "camera 1 did not learn the two others: " << error;

    {
        SCOPED_TRACE("nodes on camera 1 lists the two others");
        auto table = run_tool(ctl(1, {"nodes"}));
        EXPECT_EQ(table.status, 0) << table.err;
        auto rows = split_lines(table.out);
        ASSERT_EQ(rows.size(), 3u) << table.out;
        EXPECT_EQ(rows[0].rfind("HARDWARE ADDRESS", 0), 0u) << table.out;
        EXPECT_EQ(rows[1].rfind(lab_mac_of(2) + "  10.78.0.2  fd78::2  ", 0), 0u) << table.out;
        EXPECT_EQ(rows[2].rfind(lab_mac_of(3) + "  10.78.0.3  fd78::3  ", 0), 0u) << table.out;
        EXPECT_EQ(table.out.find(lab_mac_of(1)), std::string::npos) << table.out;
    }

    {
        SCOPED_TRACE("nodes --json matches GetKnownNodes");
        // A tick between the two readings can move last_seen; read again then.
        bool same = false;
        for (int attempt = 0; attempt < 5 && !same; ++attempt) {
            auto json = run_tool(ctl(1, {"nodes", "--json"}));
            ASSERT_EQ(json.status, 0) << json.err;
            auto reference = cameras.nodes(1, "GetKnownNodes");
            ASSERT_TRUE(reference);
            std::sort(reference->begin(), reference->end(),
                      [](const lab_node& a, const lab_node& b) { return a.mac < b.mac; });
            auto lines = split_lines(json.out);
            ASSERT_EQ(lines.size(), reference->size()) << json.out;
            same = true;
            for (std::size_t i = 0; i < lines.size(); ++i) {
                auto parsed = parse_json_line(lines[i]);
                ASSERT_TRUE(parsed) << "not a node line: " << lines[i];
                const lab_node& want = (*reference)[i];
                EXPECT_EQ(parsed->mac, want.mac);
                EXPECT_EQ(parsed->ipv4, want.ipv4);
                EXPECT_EQ(parsed->ipv6, want.ipv6);
                EXPECT_EQ(parsed->first_seen, want.first_seen);
                same = same && parsed->last_seen == want.last_seen;
            }
        }
        EXPECT_TRUE(same) << "last_seen never matched between the tool and the bus";
    }

    {
        SCOPED_TRACE("set ttl 0 is refused with the service's message");
        auto refused = run_tool(ctl(1, {"set", "ttl", "0"}));
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.err, "kinwatchctl: cannot set ttl: TTL must be in the range [1..255]\n");
    }

    // Camera 3 leaves and its service ends, so that it can be started anew
    // while the watch runs.
    ASSERT_TRUE(cameras.must("run-state 3 Stopped"));
    ASSERT_TRUE(wait_for([&] {
        auto known = cameras.nodes(1, "GetKnownNodes");
        return known && !lists(known, 3) && !lists(cameras.nodes(1, "GetLostNodes"), 3);
    }, prompt_limit)) << "camera 1 still lists camera 3";
    ASSERT_TRUE(cameras.must("kill 3"));

    {
        SCOPED_TRACE("a camera without its service");
        auto absent = run_tool(ctl(3, {"status"}));
        EXPECT_EQ(absent.status, 3);
        EXPECT_EQ(absent.err, "kinwatchctl: the kinwatch service is not running on this bus\n");
        EXPECT_EQ(absent.out, "");
    }

    {
        SCOPED_TRACE("watch on camera 1 sees camera 3 join and be lost");
        tool watch(ctl(1, {"watch"}));
        ASSERT_TRUE(wait_for([&] { return watch.err().find("watching 1 known and 0 lost") != std::string::npos; },
                             prompt_limit)) << watch.err();
        ASSERT_TRUE(cameras.must("run-state 3 Running"));
        ASSERT_TRUE(cameras.must("start 3"));
        EXPECT_TRUE(wait_for([&] { return watch.out() == line_of("joined", 3); }, convergence_limit))
            << watch.out() << watch.err();
        ASSERT_TRUE(cameras.must("kill 3"));
        EXPECT_TRUE(wait_for([&] { return watch.out().find("lost") != std::string::npos; }, loss_limit))
            << watch.out() << watch.err();
        watch.signal(SIGINT);
        EXPECT_EQ(watch.status(), 0) << watch.err();
        EXPECT_EQ(watch.out(), line_of("joined", 3) + line_of("lost", 3));
    }

    {
        SCOPED_TRACE("set group 5 reaches camera 2's configuration file");
        auto set = run_tool(ctl(2, {"set", "group", "5"}));
        EXPECT_EQ(set.status, 0) << set.err;
        EXPECT_NE(cameras.configuration(2).find("\nKinwatchGroup=5\n"), std::string::npos)
            << cameras.configuration(2);
        auto status = run_tool(ctl(2, {"status"}));
        EXPECT_EQ(status.status, 0) << status.err;
        EXPECT_NE(status.out.find("\ngroup:       5\n"), std::string::npos) << status.out;
    }
}

} // namespace
} // namespace kw::test
