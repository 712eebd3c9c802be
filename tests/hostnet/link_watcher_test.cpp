#include "src/hostnet/link_watcher.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/netns.hpp"

#include <arpa/inet.h>
#include <netdb.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace kw {
namespace {

// A listener call as "#<id> <name> up|down <ipv4> <ipv6>", "!" marking a family not enabled.
void record(std::uint32_t id, const interface_state& s, const char* name, void* calls)
{
    char ipv4[INET_ADDRSTRLEN], ipv6[INET6_ADDRSTRLEN];
    static_cast<std::vector<std::string>*>(calls)->push_back(
        "#" + std::to_string(id) + " " + name + (s.up ? " up " : " down ") + (s.ipv4_enabled ? "" : "!") +
        inet_ntop(AF_INET, &s.ipv4_address, ipv4, sizeof ipv4) + " " + (s.ipv6_enabled ? "" : "!") +
        inet_ntop(AF_INET6, &s.ipv6_address, ipv6, sizeof ipv6));
}

TEST(link_watcher, usable_addresses_exclude_unspecified_and_link_local)
{
    for (auto [text, usable] : {std::pair {"192.168.1.10", true}, {"0.0.0.0", false}, {"169.254.7.7", false},
                                {"169.253.0.1", true}, {"169.255.0.1", true}, {"170.254.0.1", true}, {"fd00::1", true},
                                {"::", false}, {"fe80::1", false}, {"febf::1", false}, {"fec0::1", true}, {"fe7f::1", true}}) {
        addrinfo hints {AI_NUMERICHOST}, *found = nullptr;
        ASSERT_EQ(getaddrinfo(text, nullptr, &hints, &found), 0) << text;
        EXPECT_EQ(address_is_usable(adopt(found)->ai_addr), usable) << text;
    }
    sockaddr other {AF_PACKET, {}};
    EXPECT_FALSE(address_is_usable(&other));
}

TEST(link_watcher, reports_multicast_links_and_their_usable_addresses_to_its_listeners)
{
    KW_REQUIRE_ROOT();
    test::netns ns("lw");
    // Peers have multicast off, so are never reported; va has no carrier until vb is up.
    ASSERT_TRUE(ns.must_exec("ip link add eth0 type veth peer name eth0p && ip link add va type veth peer name vb && "
                             "for l in eth0 eth0p va vb; do ip link set $l addrgenmode none multicast off; done && "
                             "ip link set eth0 multicast on up && ip link set eth0p up && ip link set va multicast on up "
                             "&& ip addr add 192.168.1.10/24 dev eth0 && ip addr add 169.254.7.7/16 dev eth0 && "
                             "ip -6 addr add fe80::1/64 dev eth0 nodad && ip addr add 127.0.0.2/8 dev lo"));
    ASSERT_TRUE(ns.wait_until_up("eth0"));
    test::netns_enter in(ns);
    auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    g_main_context_iteration(nullptr, FALSE); // makes the context's own descriptor
    auto before = descriptors();
    auto watcher = link_watcher::create();
    ASSERT_TRUE(watcher);
    std::vector<std::string> first, second;
    EXPECT_EQ(watcher->add_listener(&record, &first), 1u);
    EXPECT_EQ(watcher->add_listener(&record, &second), 2u);
    std::vector<std::string> expected {"#1 eth0 up 192.168.1.10 !::"};
    EXPECT_EQ(first, expected);
    EXPECT_EQ(second, std::vector<std::string> {"#2 eth0 up 192.168.1.10 !::"});
    watcher->remove_listener(2), watcher->remove_listener(99);

    // Each change and its reports; one for a quiet change would show before the next.
    struct {
        const char* command;
        std::vector<std::string> reports;
    } rows[] = {
        {"ip link set vb up", {"#1 va down !0.0.0.0 !::"}},
        {"ip addr add 10.1.0.2/24 dev va", {"#1 va up 10.1.0.2 !::"}},
        {"ip -6 addr add fd00::1/64 dev eth0 nodad", {"#1 eth0 up 192.168.1.10 fd00::1"}},
        {"ip addr add 169.254.7.8/16 dev eth0 && ip -6 addr add fe80::2/64 dev eth0 nodad", {}},
        {"ip addr add 10.9.9.9/32 dev lo && ip -6 addr add fd00::9/128 dev lo", {}},
        {"ip addr del 192.168.1.10/24 dev eth0", {"#1 eth0 up !0.0.0.0 fd00::1"}},
        // Down by itself is no report; losing the IPv6 addresses with it is.
        {"ip link set eth0 down", {"#1 eth0 up !0.0.0.0 !::"}},
        // Removed and made again (a new index) before the watcher reads: the removal keeps the
        // last addresses; the new link's first address message (its IPv6 link-local one) reports it up.
        {"ip link del va && ip link add va type veth peer name vb && ip link set vb multicast off up && "
         "ip addr add 10.1.0.2/24 dev va && ip link set va up",
         {"#1 va down !10.1.0.2 !::", "#1 va down !0.0.0.0 !::", "#1 va up 10.1.0.2 !::"}},
        // A link made later enters, and is up at its first address.
        {"ip link add vc type veth peer name vd && ip link set vc addrgenmode none && ip link set vd multicast off up && "
         "ip link set vc up", {"#1 vc down !0.0.0.0 !::"}},
        {"ip addr add 10.2.0.1/24 dev vc", {"#1 vc up 10.2.0.1 !::"}},
        {"ip addr add 192.168.1.11/24 dev eth0", {"#1 eth0 up 192.168.1.11 !::"}},
    };
    for (const auto& r : rows) {
        ASSERT_TRUE(ns.must_exec(r.command));
        expected.insert(expected.end(), r.reports.begin(), r.reports.end());
        test::wait_until([&] { return !g_main_context_iteration(nullptr, FALSE) && first.size() >= expected.size(); });
        EXPECT_EQ(first, expected) << r.command;
    }
    EXPECT_EQ(second.size(), 1u);

    // The first watcher leaves no watch nor descriptor. A second, its buffer far too
    // small, loses what follows a burst on a link it does not report: vc deleted, va
    // deleted and made again as it was, ve made. It ends with the links as they are,
    // and reports each deleted one removed as a delete-link message would.
    void* first_watcher = watcher.get();
    watcher.reset();
    EXPECT_EQ(g_main_context_find_source_by_user_data(nullptr, first_watcher), nullptr);
    EXPECT_EQ(descriptors(), before);
    watcher = link_watcher::create(4096);
    std::vector<std::string> third, now;
    watcher->add_listener(&record, &third);
    test::log_capture log;
    ASSERT_TRUE(ns.must_exec("(for i in $(seq 200); do echo addr add 10.3.0.$i/32 dev vd; done; echo link del vc; "
                             "echo link del va; for l in va ve; do echo link add $l type veth peer name p$l; echo link "
                             "set p$l multicast off up; echo link set $l up; done; echo addr add 10.1.0.2/24 dev va; "
                             "echo addr add 10.4.0.1/24 dev ve) | ip -batch -"));
    const std::vector<std::string> links {"va up 10.1.0.2 !::", "ve up 10.4.0.1 !::"};
    EXPECT_TRUE(test::wait_until([&] { // a replay shows the table, its listener's id cut off
        g_main_context_iteration(nullptr, FALSE), now.clear();
        watcher->remove_listener(watcher->add_listener(&record, &now));
        std::ranges::for_each(now, [](auto& line) { line.erase(0, line.find(' ') + 1); });
        return now == links;
    })) << testing::PrintToString(now);
    for (const char* removed : {"#1 vc down !10.2.0.1 !::", "#1 va down !10.1.0.2 !::"})
        EXPECT_EQ(std::ranges::count(third, removed), 1) << removed;
    EXPECT_TRUE(log.contains(G_LOG_LEVEL_WARNING, "Netlink receive buffer overrun, resynchronising"));
}

} // namespace
} // namespace kw
