// Real monitors in private network namespaces, fed through the receive queue,
// ticked by hand. Probes on a second host hear what the monitor sends.

#include "src/peer/mcast_sender.hpp"
#include "tests/peer/probe.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>

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
        // This thread makes the chains of setters and later links: it stays inside.
        m_inside.emplace(*m_lab->host(0).ns);
    }
    monitor& start(camera& cam)
    {
        EXPECT_TRUE(cam.create(m_lab->host(0).ns.get()));
        EXPECT_TRUE(cam.engine() && cam.engine()->is_running());
        return *cam.engine();
    }
    // A probe or a sender on eth0 of host 1, or of the namespace given, made there.
    std::unique_ptr<probe> listen(const char* group = lab_ipv4_group, const netns* ns = nullptr)
    {
        netns_enter in(ns ? *ns : *m_lab->host(1).ns);
        return probe::open("eth0", group, lab_port);
    }
    std::unique_ptr<mcast_sender> sender(const netns* ns = nullptr, const char* group = lab_ipv4_group)
    {
        netns_enter in(ns ? *ns : *m_lab->host(1).ns);
        return mcast_sender::create("eth0", group, lab_port, 1);
    }
    // Platform events sent since the test began, counted by their log lines.
    std::size_t events(const std::string& name) const
    {
        auto lines = m_log.messages(G_LOG_LEVEL_MESSAGE);
        return std::ranges::count_if(lines, [&](auto& l) { return l.starts_with("event Velmora/Kinwatch/" + name + ":"); });
    }
    std::unique_ptr<netns_lab> m_lab;
    log_capture m_log;
    std::optional<netns_enter> m_inside;
};

// Which tables hold the node.
std::string place(monitor& engine, node_id id)
{
    bool known = engine.get_known_nodes_table()->lookup(id), lost = engine.get_lost_nodes_table()->lookup(id);
    return known ? (lost ? "both" : "known") : (lost ? "lost" : "none");
}

TEST_F(monitor_test, a_sibling_is_learnt_refreshed_dispatched_brought_back_and_left)
{
    camera cam;
    monitor& engine = start(cam);
    cam.inject_announce(0x42);
    cam.inject_announce(0x42);
    engine.process_tick();
    cam.advance_us(10 * second);
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

    cam.advance_us(30 * second);
    cam.inject_announce(0x42);
    cam.inject_announce(0x43);
    cam.inject(peer_message::dispatched_new(0x10, 0x43, lab_group));
    engine.process_tick();
    EXPECT_EQ(place(engine, 0x42) + place(engine, 0x43), "knownlost");
    EXPECT_TRUE(m_log.contains(G_LOG_LEVEL_DEBUG, "ANNOUNCE: 000000000066, First seen: 2026-11-22 12:00:40, "
                                                  "Last seen: 2026-11-22 12:00:40"));
    EXPECT_EQ(events("SiblingConnected"), 3u);
    cam.inject(peer_message::leave_new(0x42, lab_group)); // forgets a node in either table, without an event
    cam.inject(peer_message::leave_new(0x43, lab_group));
    engine.process_tick();
    EXPECT_TRUE(engine.get_known_nodes().empty() && engine.get_lost_nodes().empty());
    EXPECT_EQ(events("SiblingDisconnected"), 0u);
}

// Only the lowest live node reports a silent one, counting earlier marks; silence
// is on the monotonic clock: a wall-clock step neither loses nor delays a loss.
TEST_F(monitor_test, the_lowest_live_node_reports_a_node_silent_for_sixty_seconds)
{
    constexpr GTimeSpan hour = G_TIME_SPAN_HOUR, limit = 60'000'000;
    struct {
        node_id own;
        std::vector<node_id> live, silent;
        GTimeSpan advance, wall_step;
        std::size_t lost_first, lost_second;
    } const cases[] = {
        {1, {2}, {3}, limit - 1, hour, 0, 0},         {1, {2}, {3}, limit - 1, 30 * 365 * G_TIME_SPAN_DAY, 0, 0},
        {1, {2}, {3}, limit, -hour, 1, 1},            {5, {2}, {3}, 61 * second, 0, 0, 0},
        {3, {4}, {5}, 61 * second, 0, 1, 1},          {9, {}, {4, 7}, 61 * second, 0, 1, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "own " << c.own << ", after " << c.advance << ", step " << c.wall_step);
        m_log.clear();
        camera cam({.id = c.own});
        monitor& engine = start(cam);
        for (const auto& ids : {c.silent, c.live})
            for (node_id id : ids)
                cam.inject_announce(id);
        engine.process_tick();
        cam.step_wall_us(c.wall_step);
        cam.advance_us(c.advance);
        for (node_id id : c.live)
            cam.inject_announce(id);
        for (std::size_t expected : {c.lost_first, c.lost_second}) {
            engine.process_tick();
            EXPECT_EQ(engine.get_lost_nodes().size(), expected);
            EXPECT_EQ(events("SiblingDisconnected"), expected);
            for (node_id id : c.silent) {
                monitor_message_type* r = nullptr;
                EXPECT_TRUE(!engine.get_known_nodes_table()->lookup(id, &r) || r->is_stale() == (c.advance >= limit));
            }
        }
        for (node_id id : c.live)
            EXPECT_EQ(place(engine, id), "known");
    }
}

// "<type> <group>/<ttl> <node>" and more of the next datagrams (the first two, sent around a TTL change, without TTL).
std::string heard(probe& listener, int count)
{
    std::string out;
    for (int i = 0; i < count; ++i) {
        auto d = listener.receive();
        auto m = d ? peer_message::decode(d->bytes.data(), ssize_t(d->bytes.size())) : nullptr;
        if (!m)
            return out + "nothing";
        auto own = monitor_message_type::create(*m);
        // Piece by piece: GCC 12 warns falsely (-Wrestrict) on string + literal.
        out += "ADL"[m->get_type() % 3];
        out.append(" ").append(std::to_string(m->get_group()));
        if (i >= 2)
            out.append("/").append(std::to_string(d->ttl));
        out.append(" ").append(std::to_string(m->get_node_id()));
        if (m->get_type() == DISPATCHED)
            out.append(" of ").append(std::to_string(m->get_dispatched_node_id()));
        if (own)
            out.append(" at ").append(own->get_ipv4_string()).append(" ").append(own->get_ipv6_string());
        out += ", ";
    }
    return out;
}

TEST_F(monitor_test, what_the_monitor_sends_from_start_to_stop)
{
    std::unique_ptr<probe> probes[2] = {listen(), listen(lab_ipv6_group)}; // listening before anything is sent
    ASSERT_TRUE(probes[0] && probes[1]);
    camera cam({.id = 1});
    monitor& engine = start(cam);

    cam.inject_announce(3);
    engine.process_tick();
    cam.advance_us(61 * second);
    cam.inject_announce(4);
    engine.process_tick(); // reports 3
    EXPECT_TRUE(engine.set_ttl(9));
    EXPECT_TRUE(engine.announce_tick());
    // Unchanged, if written in another form: nothing sent, nothing stored.
    EXPECT_TRUE(engine.set_group(lab_group) && engine.set_ipv4_group(lab_ipv4_group) && engine.set_ipv6_group("FF05:0::77"));
    // Neither what waits at a group change nor what a receiver pushes after it, read in the old group, is taken.
    cam.inject_announce(0x42);
    EXPECT_TRUE(engine.set_group(8));
    EXPECT_EQ(engine.get_receive_queue()->length(), 0);
    EXPECT_TRUE(engine.get_known_nodes().empty() && engine.get_lost_nodes().empty());
    cam.inject_announce(0x43, "10.77.0.9", "fd77::9", lab_group), cam.inject_announce(5);
    engine.process_tick();
    EXPECT_TRUE(engine.set_ipv4_group("239.255.77.2")); // a LEAVE on both; the nodes stay known
    EXPECT_EQ(place(engine, 5) + place(engine, 0x42) + place(engine, 0x43), "knownnonenone");
    std::filesystem::remove(cam.dir().file("packages/kinwatch/is_running")); // disabling stops all the same
    EXPECT_TRUE(engine.set_enabled(false));
    EXPECT_FALSE(engine.is_running());
    EXPECT_EQ(events("SiblingDisconnected"), 1u) << "stopping raises no event";
    for (const std::string line : {"TTL=9", "KinwatchGroup=8", "Enabled=false", "MulticastGroupIPv4=239.255.77.2", "MulticastGroupIPv6=ff05::77"})
        EXPECT_NE(cam.config_text().find("\n" + line + "\n"), std::string::npos) << line;

    const std::string sent = "A 7 1 at 10.77.0.1 fd77::1, D 7 1 of 3, A 7/9 1 at 10.77.0.1 fd77::1, L 7/9 1, "
                             "L 8/9 1, ";
    EXPECT_EQ(heard(*probes[0], 5), sent);
    EXPECT_TRUE(probes[0]->idle()) << "the stop's LEAVE goes to the new IPv4 group";
    EXPECT_EQ(heard(*probes[1], 6), sent + "L 8/9 1, ");
}

// Two ports on one network hear their own datagrams; with "e*,!eth1" the third, elsewhere, is unused
// until renamed eth3. Each port announces its own addresses; the id comes from eth0, used or not.
TEST_F(monitor_test, a_camera_on_two_networks_uses_the_interfaces_admitted_and_never_hears_itself)
{
    netns far("far");
    netns& host = *m_lab->host(0).ns;
    ASSERT_TRUE(far.ok());
    ASSERT_TRUE(m_lab->bridge().must_exec("ip link add vh1b type veth peer name vb1b && ip link set vb1b master br0 up"
                                          " && ip link set vh1b netns " + host.name()));
    ASSERT_TRUE(host.must_exec("ip link set vh1b name eth2 && ip addr add 10.77.0.11/24 dev eth2 && ip -6 addr add "
                               "fd77::11/64 dev eth2 nodad && ip link set eth2 up && ip link add eth1 type veth peer "
                               "name eth0 netns " + far.name() + " && sysctl -qw net.ipv6.conf.eth1.keep_addr_on_down=1"
                               " && ip addr add 10.88.0.1/24 dev eth1 && ip -6 addr add fd88::1/64 dev eth1 nodad && "
                               "ip link set eth1 up"));
    ASSERT_TRUE(far.must_exec("ip addr add 10.88.0.2/24 dev eth0 && ip link set eth0 up"));
    ASSERT_TRUE(host.wait_until_up("eth1") && host.wait_until_up("eth2") && far.wait_until_up("eth0"));
    std::unique_ptr<probe> near[2] = {listen(), listen(lab_ipv6_group)};
    std::unique_ptr<probe> away[2] = {listen(lab_ipv4_group, &far), listen(lab_ipv6_group, &far)};
    ASSERT_TRUE(near[0] && near[1] && away[0] && away[1]);
    auto from = [&](const netns* ns, node_id id) {
        auto sent = *announce(id, "10.1.1.1", "fd01::1")->encode();
        sender(ns)->send(sent.data(), sent.size());
    };

    camera cam({.id = 1, .interfaces = "e*,!eth1"});
    monitor& engine = start(cam);
    auto in_use = [&] {
        std::string text;
        for (const auto& i : engine.get_interfaces())
            text += i.name + " " + i.ipv4 + " " + i.ipv6 + ", ";
        return text;
    };
    const std::string used = "eth0 10.77.0.1 fd77::1, eth2 10.77.0.11 fd77::11, ";
    EXPECT_EQ(in_use(), used);
    for (auto& listener : near) {
        std::string got[] = {heard(*listener, 1), heard(*listener, 1)};
        std::ranges::sort(got);
        EXPECT_EQ(got[0] + got[1], "A 7 1 at 10.77.0.1 fd77::1, A 7 1 at 10.77.0.11 fd77::11, ");
    }
    from(&far, 0x50);
    from(nullptr, 0x51);
    // eth0's IPv6 ANNOUNCE reaches eth2 through the bridge and vice versa.
    ASSERT_TRUE(wait_until([&] { return engine.get_receive_queue()->length() >= 3; }));
    engine.process_tick();
    EXPECT_EQ(place(engine, 1) + place(engine, 0x50) + place(engine, 0x51), "nonenoneknown");

    auto settle = [&](const std::string& expected) {
        return wait_until([&] { return !g_main_context_iteration(nullptr, FALSE) && in_use() == expected; });
    };
    for (auto [was, name] : {std::pair {"eth1", "eth3"}, {"eth3", "eth1"}}) {
        ASSERT_TRUE(host.must_exec(std::string("ip link set ") + was + " down && ip link set " + was + " name " + name +
                                   " && ip link set " + name + " up"));
        ASSERT_TRUE(settle(name[3] == '3' ? used + "eth3 10.88.0.1 fd88::1, " : used)) << in_use();
        EXPECT_TRUE(engine.announce_tick());
    }
    for (auto& listener : away)
        EXPECT_EQ(heard(*listener, 1), "A 7 1 at 10.88.0.1 fd88::1, ");
    engine.stop();
    EXPECT_TRUE(away[0]->idle() && away[1]->idle()) << "nothing but what eth3 sent";

    camera unused({.id = 2, .interfaces = "!eth0"});
    ASSERT_TRUE(host.wait_until_up("eth1"));
    EXPECT_EQ(start(unused).get_own_node_id(), 2u);
    EXPECT_EQ(unused.engine()->get_interface_count(), 2u) << "eth1 and eth2";
}

// Fast join: LEAVE and ANNOUNCE at start on IPv4 alone; news applied as it comes and
// answered, never within 500 ms of the last ANNOUNCE; a refresh and the plain monitor wait for the tick.
TEST_F(monitor_test, fast_join_applies_news_as_it_comes_and_answers_at_most_twice_a_second)
{
    for (bool fast_join : {false, true}) {
        SCOPED_TRACE(fast_join);
        std::unique_ptr<probe> v4 = listen(), v6 = listen(lab_ipv6_group);
        ASSERT_TRUE(v4 && v6);
        camera cam({.fast_join = fast_join, .id = 1});
        monitor& engine = start(cam);
        auto run_loop = [](int ms) {
            for (gint64 end = g_get_monotonic_time() + ms * 1000; g_get_monotonic_time() < end;)
                if (!g_main_context_iteration(nullptr, FALSE))
                    g_usleep(1000);
        };
        cam.advance_us(second);
        cam.inject_announce(3);
        run_loop(100);
        EXPECT_EQ(place(engine, 3), fast_join ? "known" : "none");
        cam.advance_us(second / 4);
        cam.inject_announce(3), cam.inject_announce(4);
        run_loop(100);
        EXPECT_EQ(engine.get_known_nodes().size(), fast_join ? 2u : 0u);
        monitor_message_type* three = nullptr; // a refresh waits for the tick
        EXPECT_TRUE(!fast_join || (engine.get_known_nodes_table()->lookup(3, &three) && three->get_last_heard() == 7 * G_TIME_SPAN_DAY + second));
        const std::string announce = "A 7 1 at 10.77.0.1 fd77::1, ", later = "A 7/1 1 at 10.77.0.1 fd77::1, ";
        EXPECT_EQ(heard(*v6, 1), announce); // the start's, or the first answer
        EXPECT_TRUE(v6->idle()) << "the second answer waits until 500 ms after the first";
        run_loop(300);
        cam.advance_us(second);
        cam.inject(peer_message::dispatched_new(3, 1, lab_group));
        engine.process_tick();
        EXPECT_EQ(engine.get_known_nodes().size(), 2u);
        EXPECT_EQ(heard(*v4, fast_join ? 5 : 1), fast_join ? "L 7 1, " + announce + later + later + later : announce);
        EXPECT_EQ(heard(*v6, fast_join ? 2 : 0), fast_join ? announce + announce : "");
        engine.stop();
        EXPECT_EQ(heard(*v4, 1), "L 7 1, ") << "nothing else was sent";
    }
}

// Each sibling judged by its own period: one heard every second is lost 3.25 s after it was
// last heard, not after two lost ANNOUNCEs; one every 55 s (answering news every second) after 60 s.
TEST_F(monitor_test, announce_period_judges_each_sibling_by_its_own_period)
{
    camera cam({.announce_period = 1, .id = 1});
    monitor& engine = start(cam);
    cam.inject_announce(3), cam.inject_announce(5);
    for (int t = 1; t <= 11; ++t) {
        cam.advance_us(second);
        cam.inject_announce(3), cam.inject_announce(3); // both families
        if (t < 6) // news, and the 55-s sibling's answers to it
            cam.inject_announce(0x40 + t), cam.inject_announce(5);
        engine.process_tick();
    }
    // 3's two next ANNOUNCEs are lost and the third is late; 5 was last heard 9 s ago.
    const std::pair<GTimeSpan, const char*> steps[] = {{3 * second + second / 4 - 1, "knownknown"}, {2, "lostknown"},
                                                       {51 * second - second / 4 - 2, "lostknown"}, {1, "lostlost"}};
    for (auto [step, places] : steps) {
        cam.advance_us(step);
        engine.process_tick();
        EXPECT_EQ(place(engine, 3) + place(engine, 5), places) << step;
    }
}

using bytes = std::vector<std::uint8_t>;

// Sends the challenges and answers the receivers ask for, as the main loop would, until done.
bool pump(const std::vector<camera*>& cams, const std::function<bool()>& done)
{
    return wait_until([&] {
        for (camera* c : cams)
            if (c->engine())
                c->engine()->send_challenges();
        return done();
    });
}

// The camera's receive queue holds a message of the node (of the type, if given): it passed every check.
bool queued(camera& cam, node_id id, int type = -1)
{
    bool found = false;
    cam.engine()->get_receive_queue()->foreach(
        [&](auto* m) { found = found || (m && m->get_node_id() == id && (type < 0 || m->get_type() == type)); });
    return found;
}

std::uint64_t stat(camera& cam, const std::string& name)
{
    auto all = cam.engine()->get_statistics();
    return std::ranges::find_if(all, [&](auto& counter) { return counter.first == name; })->second;
}

// What a probe heard meanwhile, added to what it heard before.
std::vector<bytes>& record(probe& from, std::vector<bytes>& wire)
{
    while (!from.idle())
        wire.push_back(from.receive()->bytes);
    return wire;
}

// Datagrams of one type from one of the lab's small node ids.
std::vector<bytes> of(const std::vector<bytes>& wire, peer_message_type type, node_id id)
{
    std::vector<bytes> kept;
    std::ranges::copy_if(wire, std::back_inserter(kept), [&](const bytes& d) { return d[0] == type && d[11] == id; });
    return kept;
}

// Keyed cameras take each other once each answered the other's challenge (62 bytes; the
// answer, an ANNOUNCE of 68, carries its nonce). From a third host: a forgery, tampering,
// junk and a replay change nothing and are warned of; 2's ANNOUNCEs, replayed every 2 s
// from 25 s after its LEAVE, get a challenge each, unanswered: 1 never lists it again.
TEST_F(monitor_test, a_keyed_camera_takes_only_siblings_that_answer_its_challenges)
{
    netns_lab lab(3);
    ASSERT_TRUE(lab.ok());
    const netns* third = lab.host(2).ns.get();
    auto recorder = listen(lab_ipv4_group, third);
    auto replayer = sender(third), v6 = sender(third, lab_ipv6_group);
    ASSERT_TRUE(recorder && replayer && v6);
    camera one({.id = 1, .keys = "# in use\n\n" + test_key('a') + test_key('b')}), two({.id = 2, .keys = test_key('a')});
    ASSERT_TRUE(one.create(lab.host(0).ns.get()) && two.create(lab.host(1).ns.get()) && one.engine()->announce_tick());
    const std::vector<camera*> both {&one, &two};
    monitor& engine = *one.engine();
    // Once 1 has read as many of 2's datagrams on IPv6 as on IPv4 (which has `extra` from the third host too), a
    // datagram sent from there on each family is read after them: 1 has judged them all, a late copy none.
    auto judged = [&](std::uint64_t extra) {
        auto read = [&](const char* family) { return stat(one, std::string("received_") + family); };
        bool even = pump(both, [&] { return read("ipv4") == read("ipv6") + extra; });
        const auto read4 = read("ipv4"), read6 = read("ipv6");
        replayer->send("", 1), v6->send("", 1);
        return even && pump(both, [&] { return read("ipv4") > read4 && read("ipv6") > read6; });
    };
    std::vector<bytes> wire;
    ASSERT_TRUE(pump(both, [&] { return queued(one, 2) && queued(two, 1) && of(record(*recorder, wire), ANNOUNCE, 2).size() >= 2 &&
                                        !of(wire, CHALLENGE, 1).empty(); }) && judged(0));
    engine.process_tick();
    EXPECT_EQ(place(engine, 2), "known");
    const bytes challenge = of(wire, CHALLENGE, 1).at(0), answer = of(wire, ANNOUNCE, 2).at(1), genuine = of(wire, ANNOUNCE, 2).at(0);
    EXPECT_EQ(challenge.size() + answer.size() + genuine.size(), 62u + 68 + 60);
    EXPECT_EQ(challenge[17], 2); // the node challenged, then the nonce that the answer carries
    EXPECT_EQ(bytes(&challenge[18], &challenge[26]), bytes(&answer[32], &answer[40]));

    auto send = [&](const bytes& d) { EXPECT_EQ(replayer->send(d.data(), d.size()), ssize_t(d.size())); };
    bytes tampered = genuine, stranger = genuine; // a changed address; another key's identifier
    tampered[15] ^= 1, stranger[33] ^= 1;
    one.advance_us(5 * second), two.advance_us(5 * second);
    two.engine()->announce_tick(); // its mark now 5 s above the first ANNOUNCE's number
    ASSERT_TRUE(pump(both, [&] { return queued(one, 2); }));
    for (const bytes& d : {tampered, stranger, bytes(genuine.begin(), genuine.begin() + 32), genuine})
        send(d);
    ASSERT_TRUE(pump(both, [&] { return stat(one, "refused_replayed") && stat(one, "refused_no_trailer"); }));
    engine.process_tick();
    EXPECT_EQ(place(engine, 2), "known") << "the replay changes nothing";
    const std::string from = ", last from 10.77.0.3";
    EXPECT_EQ(m_log.warnings(), (std::vector<std::string> {"Refused 1 datagrams without a trailer" + from,
              "Refused 1 datagrams signed with an unknown key" + from, "Refused 1 datagrams with a bad MAC" + from,
              "Refused 1 replayed datagrams" + from}));

    two.engine()->stop(); // its LEAVE, both copies judged before 1 forgets 2
    ASSERT_TRUE(pump(both, [&] { return queued(one, 2, LEAVE); }) && judged(4));
    const std::vector<bytes> recorded = of(record(*recorder, wire), ANNOUNCE, 2);
    // Answers to challenges of the past are dropped unchecked; the others are unverified.
    const auto unanswering = std::ranges::count_if(recorded, [](auto& d) { return d.size() == 60; });
    const std::uint64_t challenges = stat(one, "sent_challenge"), unverified = stat(one, "refused_unverified");
    for (int s = 0; s <= 40; ++s) {
        for (std::size_t i = 0; s >= 25 && s < 40 && s % 2 == 1 && i < recorded.size(); ++i)
            send(recorded[i]);
        const std::uint64_t replays = s < 25 ? 0 : std::min((s - 25) / 2 + 1, 8) * unanswering;
        ASSERT_TRUE(pump(both, [&] { return stat(one, "refused_unverified") >= unverified + replays; })) << s;
        if (s % 5 == 0)
            engine.process_tick();
        one.advance_us(second);
    }
    EXPECT_EQ(place(engine, 2), "none");
    EXPECT_EQ(stat(one, "refused_unverified"), unverified + 8 * unanswering);
    EXPECT_EQ(stat(one, "events_connected"), 1u);
    EXPECT_EQ(stat(one, "sent_challenge"), challenges + 8 * 2) << "a challenge per replay, on both families";
}

// A keyed camera restarted an hour behind is taken again at once (the sibling's clock still);
// it learns live siblings only, not a dead one's recorded ANNOUNCEs and DISPATCHEDs.
TEST_F(monitor_test, a_restarted_keyed_camera_is_taken_at_once_and_learns_only_live_siblings)
{
    netns_lab lab(3);
    ASSERT_TRUE(lab.ok());
    auto recorder = listen(lab_ipv4_group, lab.host(0).ns.get()); // hears all but camera 3
    auto replayer = sender(lab.host(1).ns.get()); // heard by 3, not 2
    ASSERT_TRUE(recorder && replayer);
    // The dead one has the lowest id: it reports the others lost.
    camera restarted({.id = 3, .keys = test_key('a')}), live({.id = 2, .keys = test_key('a')}), dead({.id = 1, .keys = test_key('a')});
    const std::vector<camera*> cams {&restarted, &live, &dead};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(cams[i]->create(lab.host(i).ns.get()));
    for (camera* c : cams)
        c->engine()->announce_tick();
    ASSERT_TRUE(pump(cams, [&] { return queued(restarted, 1) && queued(restarted, 2) && queued(live, 1) && queued(live, 3) &&
                                  queued(dead, 2) && queued(dead, 3); }));
    for (camera* c : cams)
        c->engine()->process_tick();
    dead.advance_us(61 * second);
    dead.engine()->process_tick();
    std::vector<bytes> wire; // its DISPATCHED naming each of the others
    ASSERT_TRUE(wait_until([&] { return of(record(*recorder, wire), DISPATCHED, 1).size() >= 2; }));
    dead.forget();

    restarted.step_wall_us(-G_TIME_SPAN_HOUR);
    restarted.forget();
    ASSERT_TRUE(pump(cams, [&] { return queued(live, 3, LEAVE); }));
    live.engine()->process_tick();
    ASSERT_TRUE(restarted.create(lab.host(0).ns.get()));
    ASSERT_TRUE(pump(cams, [&] { return queued(live, 3) && stat(live, "refused_replayed") >= 2; }));
    live.engine()->process_tick();
    EXPECT_EQ(place(*live.engine(), 3), "known");
    EXPECT_EQ(stat(live, "refused_replayed"), 2u) << "its first ANNOUNCE, on both families, was below the mark";

    live.engine()->announce_tick();
    ASSERT_TRUE(pump(cams, [&] { return queued(restarted, 2); }));
    const auto unverified = stat(restarted, "refused_unverified");
    std::vector<bytes> replays = of(wire, ANNOUNCE, 1), dispatched = of(wire, DISPATCHED, 1);
    replays.insert(replays.end(), dispatched.begin(), dispatched.end());
    for (const bytes& d : replays)
        EXPECT_EQ(replayer->send(d.data(), d.size()), ssize_t(d.size()));
    const auto unanswering = std::ranges::count_if(replays, [](auto& d) { return d.size() != 68; });
    ASSERT_TRUE(pump(cams, [&] { return stat(restarted, "refused_unverified") >= unverified + unanswering; }));
    for (int tick = 0; tick < 3; ++tick, restarted.advance_us(5 * second))
        restarted.engine()->process_tick();
    EXPECT_EQ(place(*restarted.engine(), 2) + place(*restarted.engine(), 1), "knownnone");
    EXPECT_EQ(stat(restarted, "refused_unverified"), unverified + unanswering);
    EXPECT_EQ(stat(restarted, "events_connected") + stat(restarted, "events_disconnected"), 1u);
}

// A link without an address at start (IPv6 off), or made later and addressed up or down, gets a chain at
// its first address, where a fast-joining camera announces at once and learns a sibling; a deleted
// one's threads end. A group write meeting it deleted unseen leaves eth0 on the old group.
TEST_F(monitor_test, a_link_is_used_from_its_first_address_whenever_it_comes_until_deleted)
{
    netns &here = *m_lab->host(0).ns, other("other"); // the fixture is in here, where the new chains are made
    const std::string make = "ip link add eth1 type veth peer name eth0 && ip link set eth1 netns " + here.name() +
                             " && ip addr add 10.78.0.2/24 dev eth0 && ip link set eth0 up";
    ASSERT_TRUE(other.must_exec(make) && here.must_exec("sysctl -qw net.ipv6.conf.eth1.disable_ipv6=1 && ip link set eth1 up"));
    std::unique_ptr<probe> near = listen(), listener;
    ASSERT_TRUE(near);
    camera cam({.fast_join = true, .id = 1});
    monitor& engine = start(cam);
    auto threads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    auto settle_at = [&](long count) {
        return wait_until([&] { return !g_main_context_iteration(nullptr, FALSE) && threads() == count; });
    };
    const auto before = threads();
    const std::string addresses[] = {"ip addr add 10.78.0.1/24 dev eth1", "ip link set eth1 up && ip addr add 10.78.0.1/24 dev eth1",
                                     "sysctl -qw net.ipv6.conf.eth1.disable_ipv6=1 && ip addr add 10.78.0.1/24 dev eth1 && ip link set eth1 up"};
    for (node_id sibling : {0x50, 0x51, 0x52}) {
        ASSERT_TRUE(sibling == 0x50 || other.must_exec(make));
        ASSERT_TRUE(listener = listen(lab_ipv4_group, &other));
        for (int tick = 0; tick < 2; ++tick, cam.advance_us(5 * second))
            engine.process_tick();
        EXPECT_TRUE(listener->idle());
        ASSERT_TRUE(here.must_exec(addresses[sibling - 0x50]));
        ASSERT_TRUE(settle_at(before + 2)) << "the IPv4 chain's sender and receiver";
        ASSERT_TRUE(other.wait_until_up("eth0"));
        auto sent = *peer_message::announce_new(sibling, lab_group, {}, {})->encode();
        sender(&other)->send(sent.data(), sent.size());
        // Sent as the chain started, maybe before a new link could carry it.
        EXPECT_TRUE(sibling == 0x50 || engine.announce_tick());
        EXPECT_EQ(heard(*listener, 1), "A 7 1 at 10.78.0.1 ::, ") << "its own addresses";
        ASSERT_TRUE(wait_until([&] { return queued(cam, sibling); }));
        engine.process_tick();
        EXPECT_EQ(place(engine, sibling), "known");
        ASSERT_TRUE(here.must_exec("ip link del eth1"));
        if (sibling == 0x52) {
            std::vector<bytes> earlier;
            record(*near, earlier);
            EXPECT_FALSE(engine.set_ipv4_group("239.255.77.9"));
            EXPECT_NE(cam.config_text().find("\nMulticastGroupIPv4=239.255.77.1\n"), std::string::npos);
            engine.announce_tick();
            EXPECT_EQ(heard(*near, 1), "A 7 1 at 10.77.0.1 fd77::1, ") << "no LEAVE, and still on the old group";
        }
        EXPECT_TRUE(settle_at(before));
    }
}

// Each datagram read is counted by what became of it; so is what is sent, raised and queued.
TEST_F(monitor_test, statistics_count_every_datagram_by_what_became_of_it)
{
    auto far = sender();
    ASSERT_TRUE(far);
    camera cam({.id = 1});
    monitor& engine = start(cam);
    std::vector<std::uint8_t> of_our_group(20); // but of no known length
    of_our_group[5] = lab_group;
    const std::pair<std::vector<std::uint8_t>, int> sent[] = {
        {{0x00, 0x01, 0x00}, 4}, {of_our_group, 3}, {*announce(0x42, "10.77.0.2", "fd77::2", 8)->encode(), 5},
        {*announce(1, "10.77.0.2", "fd77::2")->encode(), 2}, {*announce(0x42, "10.77.0.2", "fd77::2")->encode(), 1}};
    for (const auto& [bytes, times] : sent)
        for (int i = 0; i < times; ++i)
            EXPECT_EQ(far->send(bytes.data(), bytes.size()), ssize_t(bytes.size()));
    ASSERT_TRUE(wait_until([&] { return queued(cam, 0x42); })); // sent last, so all before it are judged
    engine.process_tick();
    const auto all = engine.get_statistics();
    EXPECT_EQ((std::map<std::string, std::uint64_t>(all.begin(), all.end())), (std::map<std::string, std::uint64_t> {{"received_ipv4", 15}, {"received_ipv6", 0},
              {"refused_undecodable", 7}, {"refused_other_group", 5}, {"refused_other_interface", 0},
              {"refused_own_id", 2}, {"refused_queue_full", 0}, {"refused_no_trailer", 0}, {"refused_unknown_key", 0},
              {"refused_bad_mac", 0}, {"refused_replayed", 0}, {"refused_unverified", 0}, {"refused_over_limit", 0},
              {"duplicates", 0}, {"sent_announce", 2}, {"sent_dispatched", 0}, {"sent_leave", 0}, {"sent_challenge", 0},
              {"answered_challenges", 0}, {"events_connected", 1}, {"events_disconnected", 0},
              {"ticks", 1}, {"queue_high_water", 3}}));
}

// A mirror fed by the node changes ends equal to the tables, whatever a full one refused.
TEST_F(monitor_test, max_hosts_bounds_both_tables)
{
    std::map<node_id, std::string> mirror; // outlives the camera, whose stop still tells it
    camera cam({.max_hosts = 1});
    monitor& engine = start(cam);
    engine.changes().set_listener([&] {
        for (const node_change& c : engine.changes().take(100))
            mirror[c.node.get_node_id()] = c.kind == node_change::joined ? "known" : c.kind == node_change::lost ? "lost" : "none";
    });
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

    cam.inject_announce(0x63); // reported although the lost table has no room
    engine.process_tick();
    cam.advance_us(61 * second);
    engine.process_tick();
    EXPECT_EQ(place(engine, 0x63), "none");
    EXPECT_EQ(events("SiblingDisconnected"), 1u);
    cam.inject_announce(0x65);
    cam.inject_announce(0x61); // back from the lost table, but the known one is full
    engine.process_tick();
    for (node_id id : {0x61, 0x62, 0x63, 0x65})
        EXPECT_EQ(mirror.contains(id) ? mirror[id] : "none", place(engine, id)) << id;

    for (std::size_t i = 0; i < receive_queue_capacity + 5; ++i) // a flood: the queue refuses the last five
        cam.inject_announce(0x64);
    engine.process_tick();
    engine.process_tick();
    EXPECT_EQ(m_log.warnings().back(), "Receive queue full, dropped 5 messages");
    EXPECT_EQ(m_log.count(G_LOG_LEVEL_WARNING, "Receive queue full, dropped 5 messages"), 1u);
}

TEST_F(monitor_test, refused_disabled_and_stopped_starts_and_a_tick_without_interfaces)
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
    std::filesystem::remove(off.dir().file("packages/kinwatch/is_running")); // enabling while the package is stopped
    ASSERT_TRUE(off.create(&empty)); // and the first one is released
    EXPECT_EQ(off.config_text(), "# kept\n" + settings_text({.enabled = false}));
    ASSERT_TRUE(off.engine()->set_enabled(true));
    EXPECT_FALSE(off.engine()->is_running());
    EXPECT_NE(off.config_text().find("\nEnabled=true\n"), std::string::npos);

    camera cam;
    ASSERT_TRUE(cam.create(&empty));
    cam.inject_announce(0x70);
    cam.engine()->process_tick();
    EXPECT_EQ(cam.engine()->get_receive_queue()->length(), 1);
    EXPECT_TRUE(cam.engine()->get_known_nodes().empty());
}

TEST(interface_filter, admits_what_an_allowed_pattern_matches_and_no_denied_one)
{
    const std::pair<const char*, const char*> lists[] = {
        {"e*,!eth1", "eth0 "}, {" !veth* , !br-* ", "eth0 eth1 wlan0 "}, {"eth?,br-x,!eth0", "eth1 br-x "},
        {"wlan0,!w*", ""},     {"*", "eth0 eth1 wlan0 veth3 br-x "},
    };
    for (auto [list, admitted] : lists) {
        std::string error, got;
        for (const char* name : {"eth0", "eth1", "wlan0", "veth3", "br-x"})
            got += interface_filter::parse(list, error).value().admits(name) ? name + std::string(" ") : "";
        EXPECT_EQ(got, admitted) << list;
    }
}

TEST(monitor_settings, multicast_group_texts)
{
    const std::tuple<int, const char*, bool> groups[] = {
        {AF_INET, "224.0.0.1", true},   {AF_INET, "239.255.255.255", true}, {AF_INET, "223.255.255.255", false},
        {AF_INET, "240.0.0.1", false},  {AF_INET, "ff02::1", false},        {AF_INET, "foo", false},
        {AF_INET6, "ff02::1", true},    {AF_INET6, "fe80::1", false},       {AF_INET6, "239.1.2.3", false},
        {AF_UNIX, "239.1.2.3", false},
    };
    for (const auto& [family, text, accepted] : groups)
        EXPECT_EQ(monitor::is_multicast_group(family, text), accepted) << text;
}

} // namespace
} // namespace kw::test
