// Real monitors in private network namespaces. Peer messages are either
// injected into a monitor's receive queue, as its receiver threads would
// push them, or really sent between monitors of a lab; ticks are called by
// hand and the clock is moved by hand, so nothing waits for the timers.

#include "tests/peer/probe.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <gtest/gtest.h>

namespace kw::test {
namespace {

constexpr GTimeSpan second = G_TIME_SPAN_SECOND;

// Decoded datagrams heard by a probe, up to and including the first LEAVE.
// A monitor's LEAVE at stop follows everything it queued before on the same
// chain, so this sees all of it without waiting for silence.
std::vector<std::unique_ptr<peer_message>> until_leave(probe& listener)
{
    std::vector<std::unique_ptr<peer_message>> heard;
    while (auto datagram = listener.receive()) {
        auto message = peer_message::decode(datagram->bytes.data(), static_cast<ssize_t>(datagram->bytes.size()));
        if (!message)
            continue;
        bool leave = message->get_type() == LEAVE;
        heard.push_back(std::move(message));
        if (leave)
            break;
    }
    return heard;
}

std::size_t count_type(const std::vector<std::unique_ptr<peer_message>>& messages, peer_message_type type)
{
    std::size_t count = 0;
    for (const auto& message : messages)
        count += message->get_type() == type;
    return count;
}

bool known(monitor& engine, node_id id)
{
    return engine.get_known_nodes_table()->lookup(id);
}

bool lost(monitor& engine, node_id id)
{
    return engine.get_lost_nodes_table()->lookup(id);
}

// Host 0 of a two-host lab runs the monitor; host 1 listens with probes.
class monitor_in_lab : public ::testing::Test {
protected:
    void SetUp() override
    {
        KW_REQUIRE_ROOT();
        m_lab = std::make_unique<netns_lab>(2);
        ASSERT_TRUE(m_lab->ok());
    }

    netns& host() { return *m_lab->host(0).ns; }

    // Probes of both groups on host 1, open before anything is sent.
    void listen()
    {
        netns_enter inside(*m_lab->host(1).ns);
        m_ipv4 = probe::open("eth0", lab_ipv4_group, lab_port);
        m_ipv6 = probe::open("eth0", lab_ipv6_group, lab_port);
        ASSERT_TRUE(m_ipv4 && m_ipv6);
    }

    std::unique_ptr<netns_lab> m_lab;
    std::unique_ptr<probe> m_ipv4;
    std::unique_ptr<probe> m_ipv6;
};

TEST_F(monitor_in_lab, new_node_announcing_twice_in_one_tick_connects_once_and_keeps_first_seen)
{
    camera cam;
    ASSERT_TRUE(cam.create(&host()));
    monitor& engine = *cam.engine();
    ASSERT_TRUE(engine.is_running());
    ASSERT_EQ(engine.get_interface_count(), 1u);

    cam.inject_announce(0x42);
    cam.inject_announce(0x42);
    engine.process_tick();
    EXPECT_EQ(count_sent("SiblingConnected"), 1u);

    g_ptr<GDateTime> first = ref(cam.clock().now());
    cam.clock().advance_us(10 * second);
    cam.inject_announce(0x42, "10.77.0.42");
    engine.process_tick();

    auto nodes = engine.get_known_nodes();
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(g_date_time_compare(nodes[0]->get_first_seen(), first.get()), 0);
    EXPECT_EQ(g_date_time_difference(nodes[0]->get_last_seen(), first.get()), 10 * second);
    EXPECT_EQ(nodes[0]->get_ipv4_string(), "10.77.0.42");
    EXPECT_EQ(count_sent("SiblingConnected"), 1u);
}

TEST_F(monitor_in_lab, a_node_is_silent_after_exactly_sixty_seconds)
{
    camera cam; // own id 02:00:00:00:00:01 is lower than the sibling's
    ASSERT_TRUE(cam.create(&host()));
    monitor& engine = *cam.engine();
    const node_id sibling = 0x020000000002ULL;

    cam.inject_announce(sibling);
    engine.process_tick();
    cam.clock().advance_us(60 * second - 1);
    engine.process_tick();
    EXPECT_TRUE(known(engine, sibling));
    EXPECT_EQ(count_sent("SiblingDisconnected"), 0u);

    cam.clock().advance_us(1);
    engine.process_tick();
    EXPECT_FALSE(known(engine, sibling));
    EXPECT_TRUE(lost(engine, sibling));
    EXPECT_EQ(count_sent("SiblingDisconnected"), 1u);
}

// Node 3 falls silent while node 2 keeps announcing.
TEST_F(monitor_in_lab, only_the_lowest_live_node_reports_a_silent_sibling)
{
    listen();
    for (node_id own : {5, 1}) {
        SCOPED_TRACE(own);
        camera_options options;
        options.id = own;
        camera cam(options);
        ASSERT_TRUE(cam.create(&host()));
        monitor& engine = *cam.engine();

        cam.inject_announce(3);
        cam.inject_announce(2);
        engine.process_tick();
        cam.clock().advance_us(61 * second);
        cam.inject_announce(2);
        engine.process_tick();

        monitor_message_type* record = nullptr;
        if (own == 5) {
            ASSERT_TRUE(engine.get_known_nodes_table()->lookup(3, &record));
            EXPECT_EQ(record->is_stale(), 1);
            EXPECT_FALSE(engine.is_reporter());
            EXPECT_EQ(count_sent("SiblingDisconnected"), 0u);
        } else {
            EXPECT_FALSE(known(engine, 3));
            EXPECT_TRUE(lost(engine, 3));
            EXPECT_TRUE(engine.is_reporter());
            EXPECT_EQ(count_sent("SiblingDisconnected"), 1u);
        }

        cam.destroy(); // LEAVE closes what each chain sent
        for (probe* listener : {m_ipv4.get(), m_ipv6.get()}) {
            auto heard = until_leave(*listener);
            EXPECT_EQ(count_type(heard, ANNOUNCE), 1u);
            std::vector<node_id> dispatched;
            for (const auto& message : heard)
                if (message->get_type() == DISPATCHED) {
                    EXPECT_EQ(message->get_node_id(), own);
                    dispatched.push_back(message->get_dispatched_node_id());
                }
            EXPECT_EQ(dispatched, own == 1 ? std::vector<node_id> {3} : std::vector<node_id> {});
        }
    }
}

TEST_F(monitor_in_lab, a_higher_node_reports_two_silent_lower_nodes_over_two_ticks)
{
    camera_options options;
    options.id = 9;
    camera cam(options);
    ASSERT_TRUE(cam.create(&host()));
    monitor& engine = *cam.engine();

    cam.inject_announce(4);
    cam.inject_announce(7);
    engine.process_tick();
    cam.clock().advance_us(61 * second);

    engine.process_tick();
    EXPECT_EQ(count_sent("SiblingDisconnected"), 1u);
    EXPECT_EQ(engine.get_known_nodes().size(), 1u);
    EXPECT_EQ(engine.get_lost_nodes().size(), 1u);
    EXPECT_EQ(engine.get_known_nodes()[0]->is_stale(), 0) << "a copy never carries the mark";
    monitor_message_type* left = nullptr;
    node_id left_id = known(engine, 4) ? 4 : 7;
    ASSERT_TRUE(engine.get_known_nodes_table()->lookup(left_id, &left));
    EXPECT_EQ(left->is_stale(), 1);

    engine.process_tick();
    EXPECT_EQ(count_sent("SiblingDisconnected"), 2u);
    EXPECT_TRUE(lost(engine, 4));
    EXPECT_TRUE(lost(engine, 7));
}

TEST_F(monitor_in_lab, dispatched_leave_and_return_of_a_sibling)
{
    camera cam;
    ASSERT_TRUE(cam.create(&host()));
    monitor& engine = *cam.engine();
    log_capture log;

    cam.inject_announce(0x50);
    engine.process_tick();
    cam.inject(peer_message::dispatched_new(0x10, 0x50, lab_group));
    cam.inject(peer_message::dispatched_new(0x10, 0x50, lab_group));
    engine.process_tick();
    EXPECT_TRUE(lost(engine, 0x50));
    EXPECT_EQ(log.count(G_LOG_LEVEL_WARNING, "Failed to extract message from known nodes table"), 1u);
    EXPECT_EQ(count_sent("SiblingDisconnected"), 0u) << "the sender of the DISPATCHED reports";

    cam.inject(peer_message::leave_new(0x50, lab_group));
    engine.process_tick();
    EXPECT_FALSE(known(engine, 0x50));
    EXPECT_FALSE(lost(engine, 0x50));
    EXPECT_EQ(count_sent("SiblingDisconnected"), 0u);

    cam.clock().advance_us(30 * second);
    cam.inject_announce(0x50);
    engine.process_tick();
    EXPECT_EQ(count_sent("SiblingConnected"), 2u);
    auto nodes = engine.get_known_nodes();
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(g_date_time_compare(nodes[0]->get_first_seen(), cam.clock().now()), 0);
    EXPECT_EQ(g_date_time_compare(nodes[0]->get_last_seen(), cam.clock().now()), 0);
}

TEST_F(monitor_in_lab, a_full_known_table_keeps_a_new_node_out_without_an_event)
{
    camera_options options;
    options.max_hosts = 1;
    camera cam(options);
    ASSERT_TRUE(cam.create(&host()));
    monitor& engine = *cam.engine();

    cam.inject_announce(0x61);
    cam.inject_announce(0x62);
    engine.process_tick();
    cam.inject_announce(0x62);
    engine.process_tick();
    EXPECT_TRUE(known(engine, 0x61));
    EXPECT_FALSE(known(engine, 0x62));
    EXPECT_EQ(count_sent("SiblingConnected"), 1u);
}

TEST_F(monitor_in_lab, without_an_interface_a_tick_leaves_queue_and_nodes_alone)
{
    netns empty("empty");
    ASSERT_TRUE(empty.ok());
    camera cam;
    ASSERT_TRUE(cam.create(&empty));
    monitor& engine = *cam.engine();
    ASSERT_EQ(engine.get_interface_count(), 0u);

    cam.inject_announce(0x70);
    engine.process_tick();
    EXPECT_EQ(engine.get_receive_queue()->length(), 1);
    EXPECT_TRUE(engine.get_known_nodes().empty());
}

TEST_F(monitor_in_lab, start_announces_once_per_chain_and_stop_sends_one_leave_without_events)
{
    listen();
    camera fresh;
    fresh.dir().write("kinwatch.conf", "# a comment the start removes\n" + settings_text({}));
    ASSERT_TRUE(fresh.config().load());
    ASSERT_TRUE(fresh.create(&host()));
    EXPECT_EQ(fresh.config_text().find("comment"), std::string::npos) << "every start rewrites the file";

    fresh.inject_announce(0x80);
    fresh.engine()->process_tick();
    fresh.engine()->stop();
    EXPECT_FALSE(fresh.engine()->is_running());
    EXPECT_EQ(count_sent("SiblingDisconnected"), 0u);

    for (probe* listener : {m_ipv4.get(), m_ipv6.get()}) {
        auto heard = until_leave(*listener);
        ASSERT_EQ(heard.size(), 2u);
        EXPECT_EQ(heard[0]->get_type(), ANNOUNCE);
        EXPECT_EQ(heard[0]->get_node_id(), 0x020000000001ULL);
        EXPECT_EQ(heard[0]->get_group(), lab_group);
        EXPECT_EQ(heard[1]->get_type(), LEAVE);
    }
}

TEST(monitor_start, ttl_out_of_range_fails_the_start_and_leaves_enabled_false)
{
    KW_REQUIRE_ROOT();
    netns ns("ttl");
    camera_options options;
    options.ttl = 0;
    camera cam(options);
    log_capture log;
    EXPECT_EQ(cam.create(&ns), nullptr);
    EXPECT_TRUE(log.contains(G_LOG_LEVEL_WARNING, "TTL must be in the range 0 < ttl < 256"));
    EXPECT_NE(cam.config_text().find("Enabled=false"), std::string::npos);
    EXPECT_NE(cam.config_text().find("TTL=0"), std::string::npos);
}

TEST(monitor_start, a_disabled_monitor_stays_off_the_network_and_writes_nothing)
{
    // No namespace is needed: a disabled monitor opens no socket.
    camera_options options;
    options.enabled = false;
    camera cam(options);
    cam.dir().write("kinwatch.conf", "# kept\n" + settings_text(options));
    ASSERT_TRUE(cam.create(nullptr));
    EXPECT_FALSE(cam.engine()->is_running());
    EXPECT_TRUE(cam.engine()->get_known_nodes().empty());
    cam.destroy();
    EXPECT_EQ(cam.config_text().rfind("# kept\n", 0), 0u);
}

TEST_F(monitor_in_lab, group_change_on_a_running_monitor_leaves_and_empties_the_lists)
{
    listen();
    camera cam;
    ASSERT_TRUE(cam.create(&host()));
    monitor& engine = *cam.engine();
    cam.inject_announce(0x90);
    engine.process_tick();
    cam.inject(peer_message::dispatched_new(0x10, 0x90, lab_group));
    cam.inject_announce(0x91);
    engine.process_tick();
    ASSERT_EQ(engine.get_known_nodes().size(), 1u);
    ASSERT_EQ(engine.get_lost_nodes().size(), 1u);

    EXPECT_TRUE(engine.set_group(lab_group)) << "the same group changes nothing";
    EXPECT_TRUE(engine.set_group(8));
    EXPECT_TRUE(engine.get_known_nodes().empty());
    EXPECT_TRUE(engine.get_lost_nodes().empty());
    EXPECT_NE(cam.config_text().find("KinwatchGroup=8\n"), std::string::npos);

    // Messages of the old group no longer count; the new group does.
    cam.destroy();
    for (probe* listener : {m_ipv4.get(), m_ipv6.get()}) {
        auto heard = until_leave(*listener);
        ASSERT_EQ(heard.size(), 2u) << "the ANNOUNCE of the start, then one LEAVE";
        EXPECT_EQ(heard[1]->get_type(), LEAVE);
        EXPECT_EQ(heard[1]->get_group(), lab_group);
        auto last = until_leave(*listener);
        ASSERT_EQ(last.size(), 1u) << "the LEAVE of the teardown";
        EXPECT_EQ(last[0]->get_group(), 8u);
    }
}

TEST(monitor_settings, multicast_group_texts)
{
    struct {
        int family;
        const char* text;
        bool accepted;
    } const cases[] = {
        {AF_INET, "239.1.2.3", true},   {AF_INET, "224.0.0.1", true}, {AF_INET, "192.168.1.1", false},
        {AF_INET, "240.0.0.1", false},  {AF_INET, "ff02::1", false},  {AF_INET, "foo", false},
        {AF_INET6, "ff02::1", true},    {AF_INET6, "ff05::77", true}, {AF_INET6, "fe80::1", false},
        {AF_INET6, "239.1.2.3", false}, {AF_UNIX, "239.1.2.3", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(monitor::is_multicast_group(c.family, c.text), c.accepted) << c.family << " " << c.text;
}

TEST(monitor_settings, setters_on_a_stopped_monitor_store_and_write)
{
    camera_options options;
    options.running = false; // Enabled, but the package does not run
    camera cam(options);
    ASSERT_TRUE(cam.create(nullptr));
    monitor& engine = *cam.engine();
    ASSERT_FALSE(engine.is_running());
    EXPECT_TRUE(engine.get_known_nodes().empty());

    EXPECT_TRUE(engine.set_group(4294967295u));
    EXPECT_NE(cam.config_text().find("KinwatchGroup=-1\n"), std::string::npos);

    EXPECT_FALSE(engine.set_ttl(0));
    EXPECT_FALSE(engine.set_ttl(256));
    EXPECT_NE(cam.config_text().find("TTL=1\n"), std::string::npos);
    EXPECT_TRUE(engine.set_ttl(9));
    EXPECT_NE(cam.config_text().find("TTL=9\n"), std::string::npos);

    EXPECT_FALSE(engine.set_ipv4_group("192.168.1.1"));
    EXPECT_FALSE(engine.set_ipv6_group("fe80::1"));
    EXPECT_TRUE(engine.set_ipv4_group("239.1.2.3"));
    EXPECT_TRUE(engine.set_ipv6_group("ff02::1"));
    EXPECT_NE(cam.config_text().find("MulticastGroupIPv4=239.1.2.3\n"), std::string::npos);
    EXPECT_NE(cam.config_text().find("MulticastGroupIPv6=ff02::1\n"), std::string::npos);

    EXPECT_TRUE(engine.set_enabled(false));
    EXPECT_NE(cam.config_text().find("Enabled=false\n"), std::string::npos);
    EXPECT_TRUE(engine.set_enabled(true)) << "the package is not running: stored, not started";
    EXPECT_FALSE(engine.is_running());
    EXPECT_NE(cam.config_text().find("Enabled=true\n"), std::string::npos);
}

TEST_F(monitor_in_lab, enabled_false_stops_a_running_monitor_and_writes_the_file)
{
    camera cam;
    ASSERT_TRUE(cam.create(&host()));
    ASSERT_TRUE(cam.engine()->is_running());
    cam.set_running(false); // the package stops too; the write must still happen
    EXPECT_TRUE(cam.engine()->set_enabled(false));
    EXPECT_FALSE(cam.engine()->is_running());
    EXPECT_NE(cam.config_text().find("Enabled=false\n"), std::string::npos);
}

// Three cameras on one bridge: 30 falls silent, 10 reports it, 20 does not.
TEST(monitor_siblings, the_group_raises_one_disconnected_for_a_silent_sibling)
{
    KW_REQUIRE_ROOT();
    netns_lab lab(3);
    ASSERT_TRUE(lab.ok());
    const node_id ids[] = {10, 20, 30};
    std::vector<std::unique_ptr<camera>> cams;
    for (int i = 0; i < 3; ++i) {
        camera_options options;
        options.id = ids[i];
        cams.push_back(std::make_unique<camera>(options));
        ASSERT_TRUE(cams.back()->create(lab.host(i).ns.get()));
    }
    monitor& a = *cams[0]->engine();
    monitor& b = *cams[1]->engine();
    monitor& c = *cams[2]->engine();

    // Every datagram sent must be in a queue before a tick, or a late one
    // would refresh a node after the clock moved. So the counts are exact:
    // the start ANNOUNCE of 20 reached 10, the one of 30 reached 10 and 20,
    // and one more ANNOUNCE of 10 and of 20 reaches each other camera. Each
    // family carries its own copy.
    a.send_announce();
    b.send_announce();
    auto wait_and_tick = [&](monitor& receiver, int expected) {
        ASSERT_TRUE(wait_until([&] { return receiver.get_receive_queue()->length() >= expected; }));
        EXPECT_EQ(receiver.get_receive_queue()->length(), expected);
        receiver.process_tick();
    };
    wait_and_tick(a, 6);
    wait_and_tick(b, 4);
    wait_and_tick(c, 4);
    for (monitor* m : {&a, &b, &c})
        ASSERT_EQ(m->get_known_nodes().size(), 2u);
    EXPECT_EQ(count_sent("SiblingConnected"), 6u);

    // 30 stays silent while 10 and 20 keep announcing to each other.
    cams[0]->clock().advance_us(61 * second);
    cams[1]->clock().advance_us(61 * second);
    a.send_announce();
    b.send_announce();
    wait_and_tick(a, 2);
    EXPECT_TRUE(lost(a, 30));
    // The ANNOUNCE and the DISPATCHED of 10, on both families.
    wait_and_tick(b, 4);
    EXPECT_TRUE(lost(b, 30));
    EXPECT_FALSE(known(b, 30));
    EXPECT_EQ(count_sent("SiblingDisconnected"), 1u);

    // 30 speaks again: both others connect it anew.
    c.send_announce();
    wait_and_tick(a, 2);
    wait_and_tick(b, 2);
    EXPECT_TRUE(known(a, 30));
    EXPECT_TRUE(known(b, 30));
    EXPECT_EQ(count_sent("SiblingConnected"), 8u);
}

} // namespace
} // namespace kw::test
