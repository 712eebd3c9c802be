// Real monitors in private network namespaces. Peer messages are injected
// into the receive queue as the receiver threads would push them; ticks are
// called and the clock is moved by hand. Probes on a second host hear what
// the monitor sends.

#include "tests/peer/probe.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <glib/gstdio.h>
#include <gtest/gtest.h>

namespace kw::test {
namespace {

constexpr GTimeSpan second = G_TIME_SPAN_SECOND;

class monitor_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        KW_REQUIRE_ROOT();
        m_lab = std::make_unique<netns_lab>(2);
        ASSERT_TRUE(m_lab->ok());
    }

    monitor& start(camera& cam)
    {
        EXPECT_TRUE(cam.create(m_lab->host(0).ns.get()));
        EXPECT_TRUE(cam.engine() && cam.engine()->is_running());
        return *cam.engine();
    }

    // Platform events sent since the test began, counted by their log lines.
    std::size_t events(const std::string& name) const
    {
        std::size_t count = 0;
        for (const auto& line : m_log.messages(G_LOG_LEVEL_MESSAGE))
            count += line.rfind("event Velmora/Kinwatch/" + name + ":", 0) == 0;
        return count;
    }

    std::unique_ptr<netns_lab> m_lab;
    log_capture m_log;
};

// Which tables hold the node.
std::string place(monitor& engine, node_id id)
{
    bool known = engine.get_known_nodes_table()->lookup(id), lost = engine.get_lost_nodes_table()->lookup(id);
    return known ? (lost ? "both" : "known") : (lost ? "lost" : "none");
}

// Decoded datagrams heard by a probe, up to and including the first LEAVE,
// each with the TTL it arrived with.
std::vector<std::pair<std::unique_ptr<peer_message>, int>> until_leave(probe& listener)
{
    std::vector<std::pair<std::unique_ptr<peer_message>, int>> heard;
    while (auto datagram = listener.receive()) {
        auto message = peer_message::decode(datagram->bytes.data(), static_cast<ssize_t>(datagram->bytes.size()));
        if (!message)
            continue;
        bool leave = message->get_type() == LEAVE;
        heard.emplace_back(std::move(message), datagram->ttl);
        if (leave)
            break;
    }
    return heard;
}

TEST_F(monitor_test, a_sibling_is_learnt_refreshed_dispatched_brought_back_and_left)
{
    camera cam;
    monitor& engine = start(cam);
    cam.inject_announce(0x42);
    cam.inject_announce(0x42);
    engine.process_tick();
    cam.clock().advance_us(10 * second);
    cam.inject_announce(0x42);
    engine.process_tick();
    EXPECT_EQ(m_log.messages(G_LOG_LEVEL_MESSAGE), std::vector<std::string> {"event Velmora/Kinwatch/SiblingConnected: "
              "serialnumber=00:00:00:00:00:42 ipv4address=10.77.0.9 ipv6address=fd77::9"});
    EXPECT_TRUE(m_log.contains(G_LOG_LEVEL_DEBUG, "ANNOUNCE: 000000000066, First seen: 2026-11-22 12:00:00, "
                                                  "Last seen: 2026-11-22 12:00:10"));

    // The sender of a DISPATCHED reports the loss; a second one finds nothing.
    cam.inject(peer_message::dispatched_new(0x10, 0x42, lab_group));
    cam.inject(peer_message::dispatched_new(0x10, 0x42, lab_group));
    engine.process_tick();
    EXPECT_EQ(place(engine, 0x42), "lost");
    EXPECT_EQ(m_log.count(G_LOG_LEVEL_WARNING, "Failed to extract message from known nodes table"), 1u);

    cam.clock().advance_us(30 * second);
    cam.inject_announce(0x42);
    cam.inject_announce(0x43);
    cam.inject(peer_message::dispatched_new(0x10, 0x43, lab_group));
    engine.process_tick();
    EXPECT_EQ(place(engine, 0x42) + place(engine, 0x43), "knownlost");
    EXPECT_TRUE(m_log.contains(G_LOG_LEVEL_DEBUG, "ANNOUNCE: 000000000066, First seen: 2026-11-22 12:00:40, "
                                                  "Last seen: 2026-11-22 12:00:40"));
    EXPECT_EQ(events("SiblingConnected"), 3u);

    // LEAVE forgets a node in either table, without an event.
    cam.inject(peer_message::leave_new(0x42, lab_group));
    cam.inject(peer_message::leave_new(0x43, lab_group));
    engine.process_tick();
    EXPECT_TRUE(engine.get_known_nodes().empty() && engine.get_lost_nodes().empty());
    EXPECT_EQ(events("SiblingDisconnected"), 0u);
}

// Only the lowest live node reports a silent one; a node never counts its own
// id as lower; each decision counts the marks made earlier in the same walk.
TEST_F(monitor_test, the_lowest_live_node_reports_a_node_silent_for_sixty_seconds)
{
    struct {
        node_id own;
        std::vector<node_id> live, silent;
        GTimeSpan advance;
        std::size_t lost_first, lost_second;
    } const cases[] = {
        {1, {2}, {3}, 59'999'999, 0, 0}, {1, {2}, {3}, 60'000'000, 1, 1}, {5, {2}, {3}, 61 * second, 0, 0},
        {3, {3}, {5}, 61 * second, 1, 1}, {3, {}, {3, 5}, 61 * second, 2, 2}, {9, {}, {4, 7}, 61 * second, 1, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "own " << c.own << ", after " << c.advance);
        m_log.clear();
        camera cam({.id = c.own});
        monitor& engine = start(cam);
        for (node_id id : c.silent)
            cam.inject_announce(id);
        for (node_id id : c.live)
            cam.inject_announce(id);
        engine.process_tick();
        cam.clock().advance_us(c.advance);
        for (node_id id : c.live)
            cam.inject_announce(id);
        for (std::size_t expected : {c.lost_first, c.lost_second}) {
            engine.process_tick();
            EXPECT_EQ(engine.get_lost_nodes().size(), expected);
            EXPECT_EQ(events("SiblingDisconnected"), expected);
            for (node_id id : c.silent) {
                monitor_message_type* record = nullptr;
                bool kept = engine.get_known_nodes_table()->lookup(id, &record);
                EXPECT_TRUE(!kept || record->is_stale() == (c.advance > 59'999'999)) << "stale mark of " << id;
            }
        }
    }
}

// Silence is measured on the monotonic clock; first and last seen stay wall-clock times.
TEST_F(monitor_test, a_wall_clock_step_neither_loses_a_live_sibling_nor_delays_a_loss)
{
    for (GTimeSpan step : {G_TIME_SPAN_HOUR, 30 * 365 * G_TIME_SPAN_DAY, -G_TIME_SPAN_HOUR}) {
        SCOPED_TRACE(step);
        m_log.clear();
        camera cam({.id = 1});
        monitor& engine = start(cam);
        cam.inject_announce(2);
        cam.inject_announce(3);
        engine.process_tick();
        cam.clock().step_wall_us(step);
        cam.clock().advance_us(5 * second);
        cam.inject_announce(2);
        engine.process_tick();
        monitor_message_type* two = nullptr;
        ASSERT_TRUE(engine.get_known_nodes_table()->lookup(2, &two));
        EXPECT_EQ(g_date_time_compare(two->get_last_seen(), cam.clock().now()), 0);
        EXPECT_EQ(g_date_time_difference(two->get_last_seen(), two->get_first_seen()), step + 5 * second);

        cam.clock().advance_us(55 * second - 1); // 3 was heard 59,999,999 us ago
        engine.process_tick();
        EXPECT_EQ(place(engine, 2) + place(engine, 3), "knownknown");
        EXPECT_EQ(events("SiblingDisconnected"), 0u);
        cam.clock().advance_us(1);
        engine.process_tick();
        EXPECT_EQ(place(engine, 2) + place(engine, 3), "knownlost");
        EXPECT_EQ(events("SiblingDisconnected"), 1u);
        EXPECT_EQ(events("SiblingConnected"), 2u);
    }
}

TEST_F(monitor_test, what_the_monitor_sends_from_start_to_stop)
{
    std::unique_ptr<probe> probes[2];
    {
        netns_enter inside(*m_lab->host(1).ns); // listening before anything is sent
        probes[0] = probe::open("eth0", lab_ipv4_group, lab_port);
        probes[1] = probe::open("eth0", lab_ipv6_group, lab_port);
        ASSERT_TRUE(probes[0] && probes[1]);
    }
    camera cam({.id = 1});
    cam.dir().write("kinwatch.conf", "# dropped by the start\n" + settings_text({.id = 1}));
    ASSERT_TRUE(cam.config().load());
    monitor& engine = start(cam);
    EXPECT_EQ(cam.config_text(), settings_text({.id = 1}));

    cam.inject_announce(3);
    engine.process_tick();
    cam.clock().advance_us(61 * second);
    cam.inject_announce(4);
    engine.process_tick(); // reports 3
    EXPECT_TRUE(engine.set_ttl(9));
    EXPECT_TRUE(engine.announce_tick());
    EXPECT_TRUE(engine.set_group(lab_group) && engine.set_ipv4_group(lab_ipv4_group)); // unchanged: nothing sent
    EXPECT_TRUE(engine.set_group(8));
    EXPECT_TRUE(engine.get_known_nodes().empty() && engine.get_lost_nodes().empty());
    cam.inject_announce(5);
    engine.process_tick();
    EXPECT_TRUE(engine.set_ipv4_group("239.255.77.2")); // a LEAVE on both; the nodes stay known
    EXPECT_EQ(place(engine, 5), "known");
    g_remove(cam.dir().file("packages/kinwatch/is_running").c_str()); // disabling stops all the same
    EXPECT_TRUE(engine.set_enabled(false));
    EXPECT_FALSE(engine.is_running());
    EXPECT_EQ(events("SiblingDisconnected"), 1u) << "stopping raises no event";
    for (const std::string line : {"TTL=9", "KinwatchGroup=8", "Enabled=false", "MulticastGroupIPv4=239.255.77.2"})
        EXPECT_NE(cam.config_text().find("\n" + line + "\n"), std::string::npos) << line;

    const peer_message_type types[] = {ANNOUNCE, DISPATCHED, ANNOUNCE, LEAVE, LEAVE};
    for (auto& listener : probes) {
        auto heard = until_leave(*listener);
        auto last = until_leave(*listener);
        ASSERT_EQ(heard.size(), 4u);
        ASSERT_EQ(last.size(), 1u);
        heard.push_back(std::move(last[0]));
        for (std::size_t i = 0; i < 5; ++i) {
            EXPECT_EQ(heard[i].first->get_type(), types[i]) << i;
            EXPECT_TRUE(i < 2 || heard[i].second == 9) << "sent after the TTL change: " << i;
            EXPECT_EQ(heard[i].first->get_node_id(), 1u) << i;
            EXPECT_EQ(heard[i].first->get_group(), i < 4 ? lab_group : 8u) << i;
        }
        EXPECT_EQ(heard[1].first->get_dispatched_node_id(), 3u);
        EXPECT_TRUE(listener == probes[1] ? until_leave(*listener).size() == 1 : listener->idle()) << "stop's LEAVE";
        auto own = monitor_message_type::create(heard[0].first->copy()); // the addresses of host 0's eth0
        EXPECT_EQ(own->get_ipv4_string() + " " + own->get_ipv6_string(), "10.77.0.1 fd77::1");
    }
}

TEST_F(monitor_test, max_hosts_bounds_both_tables)
{
    camera cam({.max_hosts = 1});
    monitor& engine = start(cam);
    cam.inject_announce(0x61);
    cam.inject_announce(0x62);
    engine.process_tick();
    cam.inject_announce(0x62);
    engine.process_tick();
    EXPECT_EQ(place(engine, 0x61) + place(engine, 0x62), "knownnone");
    EXPECT_EQ(events("SiblingConnected"), 1u) << "a node the table refused is not reported";

    cam.inject(peer_message::dispatched_new(0x10, 0x61, lab_group));
    cam.inject_announce(0x62);
    cam.inject(peer_message::dispatched_new(0x10, 0x62, lab_group));
    engine.process_tick();
    EXPECT_EQ(place(engine, 0x61) + place(engine, 0x62), "lostnone");
    EXPECT_EQ(m_log.count(G_LOG_LEVEL_WARNING, "Couldn't move message to lost nodes, table is full"), 1u);

    // Reporting still raises the event when the lost table has no room.
    cam.inject_announce(0x63);
    engine.process_tick();
    cam.clock().advance_us(61 * second);
    engine.process_tick();
    EXPECT_EQ(place(engine, 0x63), "none");
    EXPECT_EQ(events("SiblingDisconnected"), 1u);
}

TEST_F(monitor_test, refused_and_disabled_starts_and_a_tick_without_interfaces)
{
    netns empty("empty");
    camera bad({.ttl = 0});
    EXPECT_EQ(bad.create(&empty), nullptr);
    EXPECT_TRUE(m_log.contains(G_LOG_LEVEL_WARNING, "TTL must be in the range 0 < ttl < 256"));
    EXPECT_EQ(bad.config_text(), settings_text({.enabled = false, .ttl = 0}));

    camera off({.enabled = false});
    off.dir().write("kinwatch.conf", "# kept\n" + settings_text({.enabled = false}));
    ASSERT_TRUE(off.create(&empty));
    EXPECT_FALSE(off.engine()->is_running());
    off.destroy();
    EXPECT_EQ(off.config_text(), "# kept\n" + settings_text({.enabled = false}));

    camera cam;
    ASSERT_TRUE(cam.create(&empty));
    cam.inject_announce(0x70);
    cam.engine()->process_tick();
    EXPECT_EQ(cam.engine()->get_receive_queue()->length(), 1);
    EXPECT_TRUE(cam.engine()->get_known_nodes().empty());
}

TEST(monitor_settings, multicast_group_texts_and_enabling_while_the_package_is_stopped)
{
    const std::tuple<int, const char*, bool> groups[] = {
        {AF_INET, "224.0.0.1", true},   {AF_INET, "239.255.255.255", true}, {AF_INET, "223.255.255.255", false},
        {AF_INET, "240.0.0.1", false},  {AF_INET, "ff02::1", false},        {AF_INET, "foo", false},
        {AF_INET6, "ff02::1", true},    {AF_INET6, "fe80::1", false},       {AF_INET6, "239.1.2.3", false},
        {AF_UNIX, "239.1.2.3", false},
    };
    for (const auto& [family, text, accepted] : groups)
        EXPECT_EQ(monitor::is_multicast_group(family, text), accepted) << text;

    camera cam({.running = false});
    ASSERT_TRUE(cam.create(nullptr));
    EXPECT_TRUE(cam.engine()->set_enabled(false) && cam.engine()->set_enabled(true));
    EXPECT_FALSE(cam.engine()->is_running());
    EXPECT_TRUE(cam.engine()->get_known_nodes().empty() && cam.engine()->get_lost_nodes().empty());
    EXPECT_NE(cam.config_text().find("\nEnabled=true\n"), std::string::npos);
}

} // namespace
} // namespace kw::test
