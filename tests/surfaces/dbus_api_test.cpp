// The bus object over a real monitor on a private bus; this thread serves while a client thread calls.

#include "src/surfaces/dbus_api.hpp"
#include "tests/support/dbus_daemon.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

namespace kw::test {
namespace {

// Half an hour off a whole-hour offset: a formatted local time cannot pass for Unix seconds.
[[maybe_unused]] const bool zone_is_set = [] { return setenv("TZ", "Asia/Kolkata", 1) == 0; }();

// The printed reply, or "<code> GDBus.Error:<bus error name>: <message>".
std::string call(GDBusConnection* client, const char* interface, const char* method, GVariant* parameters = nullptr)
{
    std::atomic<bool> done = false;
    std::string result;
    std::thread caller([&] {
        error_out error;
        g_ptr<GVariant> value = adopt(g_dbus_connection_call_sync(client, dbus_api::bus_name, dbus_api::object_path,
            interface, method, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, error.out()));
        const GError* e = error.get();
        result = e ? std::to_string(e->domain == kinwatch_error_quark() ? e->code : -1) + " " + e->message
                   : take_string(g_variant_print(value.get(), FALSE));
        done = true;
        g_main_context_wakeup(nullptr);
    });
    while (!done)
        g_main_context_iteration(nullptr, TRUE);
    caller.join();
    return result;
}

// Every signal the service emits, as "<member> <arguments>", in arrival order.
struct signal_log {
    std::vector<std::string> lines;
    guint id = 0;
    g_ptr<GDBusConnection> client;
    explicit signal_log(GDBusConnection* c) : client(ref(c))
    {
        id = g_dbus_connection_signal_subscribe(c, dbus_api::bus_name, nullptr, nullptr, dbus_api::object_path,
                                                nullptr, G_DBUS_SIGNAL_FLAGS_NONE, &signal_log::on_signal, this, nullptr);
    }
    ~signal_log() { g_dbus_connection_signal_unsubscribe(client.get(), id); }
    static void on_signal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* member,
                          GVariant* arguments, gpointer self)
    {
        static_cast<signal_log*>(self)->lines.push_back(std::string(member) + " " +
                                                        take_string(g_variant_print(arguments, FALSE)));
    }
    // What came since the last take (signals sent before a returned call's reply wait here).
    std::vector<std::string> take()
    {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        return std::exchange(lines, {});
    }
};

TEST(dbus_api, writes_and_their_errors_reads_node_tuples_and_a_restarted_bus)
{
    KW_REQUIRE_ROOT(); // the bus policy lets root alone own the name
    dbus_daemon bus;
    ASSERT_TRUE(bus.ok());
    g_ptr<GDBusConnection> client = bus.connect();
    const char* properties = "org.freedesktop.DBus.Properties";
    auto nodes = [&] { return call(client.get(), dbus_api::interface_name, "GetKnownNodes") +
                              call(client.get(), dbus_api::interface_name, "GetLostNodes"); };
    netns_lab lab(1); // the monitor takes in announcements only with an interface
    ASSERT_TRUE(lab.ok());
    netns_enter inside(*lab.host(0).ns);
    camera cam({.enabled = false, .running = true, .ttl = 0}); // a start fails on the TTL until it is set
    ASSERT_TRUE(cam.create(lab.host(0).ns.get()));
    monitor& engine = *cam.engine();
    auto api = dbus_api::create(engine, false);
    auto wait_owned = [&] {
        for (gint64 end = g_get_monotonic_time() + 10 * G_USEC_PER_SEC; g_get_monotonic_time() < end;)
            if (!nodes().starts_with("-1")) // the name is not owned yet
                return;
    };
    wait_owned();
    signal_log signals(client.get());

    const std::string unmapped = " GDBus.Error:org.gtk.GDBus.UnmappedGError.Quark._Kinwatch_20error_20quark.Code";
    const std::string not_enabled = "2" + unmapped + "2: Kinwatch is not enabled";
    EXPECT_EQ(nodes(), not_enabled + not_enabled);
    const std::string illegal = "5" + unmapped + "5: Illegal multicast group supplied";
    const std::string named = " GDBus.Error:com.tavix.Kinwatch.Error.";
    const std::tuple<const char*, GVariant*, std::string, const char*, int> writes[] = {
        // The file line a write leaves (null: unchanged), and whether PropertiesChanged tells the
        // value (1), after the interfaces of the monitor it started (2).
        {"IPv4MulticastGroup", g_variant_new_string("192.168.1.1"), illegal, nullptr, 0},
        {"IPv6MulticastGroup", g_variant_new_string("239.1.2.3"), illegal, nullptr, 0},
        {"TTL", g_variant_new_byte(0), "3" + named + "TTL: TTL must be in the range [1..255]", nullptr, 0},
        {"Enabled", g_variant_new_boolean(TRUE), "0" + named + "Generic: Unable to enable the monitor", "Enabled=true", 1},
        {"Enabled", g_variant_new_boolean(FALSE), "()", "Enabled=false", 1},
        {"Enabled", g_variant_new_boolean(FALSE), "()", "Enabled=false", 0},
        {"TTL", g_variant_new_byte(9), "()", "TTL=9", 1},
        {"TTL", g_variant_new_byte(9), "()", "TTL=9", 0},
        {"Group", g_variant_new_uint32(4294967295u), "()", "KinwatchGroup=-1", 1},
        {"IPv4MulticastGroup", g_variant_new_string("239.1.2.3"), "()", "MulticastGroupIPv4=239.1.2.3", 1},
        {"IPv6MulticastGroup", g_variant_new_string("ff02::1"), "()", "MulticastGroupIPv6=ff02::1", 1},
        {"IPv6MulticastGroup", g_variant_new_string("FF02:0::1"), "()", "MulticastGroupIPv6=ff02::1", 0},
        {"Enabled", g_variant_new_boolean(TRUE), "()", "Enabled=true", 2},
    };
    const std::string started = "PropertiesChanged ('com.tavix.Kinwatch.Monitor1', {'Interfaces': "
                                "<[('eth0', '10.77.0.1', 'fd77::1')]>}, [])";
    for (const auto& [name, value, reply, line, changed] : writes) {
        const std::string before = cam.config_text(), printed = take_string(g_variant_print(value, TRUE));
        EXPECT_EQ(call(client.get(), properties, "Set", g_variant_new("(ssv)", dbus_api::interface_name, name, value)),
                  reply);
        std::string after = cam.config_text();
        EXPECT_TRUE(line ? after.find("\n" + std::string(line) + "\n") != std::string::npos : after == before)
            << name << "\n" << after;
        call(client.get(), properties, "Get", g_variant_new("(ss)", dbus_api::interface_name, "Enabled"));
        const std::string signal = "PropertiesChanged ('com.tavix.Kinwatch', {'" + std::string(name) + "': <" + printed + ">}, [])";
        std::vector<std::string> told = changed == 2 ? std::vector {started, signal} : std::vector {signal};
        EXPECT_EQ(signals.take(), changed ? told : std::vector<std::string> {}) << name;
    }
    EXPECT_EQ(call(client.get(), properties, "GetAll", g_variant_new("(s)", dbus_api::interface_name)),
              "({'IPv4MulticastGroup': <'239.1.2.3'>, 'IPv6MulticastGroup': <'ff02::1'>, 'Enabled': <true>, "
              "'TTL': <byte 0x09>, 'Group': <uint32 4294967295>},)");

    ASSERT_TRUE(engine.is_running());
    cam.inject_announce(0x020000000009ULL, "10.77.0.9", "fd77::9"); // above our own id: we report its loss
    cam.inject_announce(0x020000000008ULL, "10.77.0.8", "fd77::8");
    engine.process_tick();
    cam.advance_us(10 * G_TIME_SPAN_SECOND + G_TIME_SPAN_SECOND / 2);
    cam.inject_announce(0x020000000009ULL, "10.77.0.10", "fd77::a"); // a refresh takes the new addresses
    cam.inject(peer_message::dispatched_new(0x02000000000aULL, 0x020000000008ULL, std::uint32_t(-1)));
    engine.process_tick();
    // 2026-11-22 12:00 in Kolkata is 06:30 UTC; the half second of last seen is dropped.
    const std::string tuple = "[('02:00:00:00:00:09', '10.77.0.10', 'fd77::a', 1795329000, 1795329010)]";
    EXPECT_EQ(call(client.get(), dbus_api::interface_name, "GetKnownNodes"), "(" + tuple + ",)");
    cam.advance_us(61 * G_TIME_SPAN_SECOND);
    engine.process_tick();
    cam.inject(peer_message::leave_new(0x020000000008ULL, std::uint32_t(-1)));
    engine.process_tick();
    EXPECT_EQ(nodes(), "([],)(" + tuple + ",)");
    // The same changes as signals, one generation each: none for the refresh.
    const std::string at = "'>, 'ipv6': <'fd77::", seen = "'>, 'first_seen': <uint64 1795329000>, 'last_seen': <uint64 ";
    const std::string eight = "{'mac': <'02:00:00:00:00:08'>, 'ipv4': <'10.77.0.8" + at + "8" + seen + "1795329000>";
    const std::string nine = "{'mac': <'02:00:00:00:00:09'>, 'ipv4': <'10.77.0.10" + at + "a" + seen + "1795329010>";
    EXPECT_EQ(signals.take(), (std::vector<std::string> {
              "NodeJoined (1, {'mac': <'02:00:00:00:00:09'>, 'ipv4': <'10.77.0.9" + at + "9" + seen + "1795329000>})",
              "NodeJoined (2, " + eight + "})", "NodeLost (3, " + eight + ", 'reported': <false>})",
              "NodeLost (4, " + nine + ", 'reported': <true>})", "NodeLeft (5, " + eight + "})"}));
    EXPECT_EQ(call(client.get(), monitor_bus::interface_name, "GetNodes"), "(5, [], [" + nine + "}])");
    // 17 changes in one tick: MaxHosts (16) signals go out, the last at the next tick.
    cam.inject(peer_message::leave_new(0x020000000009ULL, std::uint32_t(-1)));
    for (node_id id = 1; id <= 16; ++id)
        cam.inject_announce(0x030000000000ULL + id);
    for (std::size_t told : {16u, 1u}) {
        engine.process_tick();
        EXPECT_EQ((nodes(), signals.take().size()), told); // the reply comes after the signals
    }

    // The bus restarts: the object answers on the new one, over the monitor as it was.
    const std::string before = nodes();
    log_capture log;
    bus.restart();
    client = bus.connect();
    wait_owned();
    EXPECT_EQ(nodes(), before);
    EXPECT_EQ(log.warnings(), std::vector<std::string> {"System bus connection lost, reconnecting"});
    EXPECT_EQ(log.count(G_LOG_LEVEL_MESSAGE, "Connected to the system bus"), 1u);
}

} // namespace
} // namespace kw::test
