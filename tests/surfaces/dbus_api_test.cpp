// The bus object on a private dbus-daemon that carries the service's bus
// policy, over a real monitor. The service runs on the default main context
// of the test thread, which iterates it while a client thread calls.

#include "src/surfaces/dbus_api.hpp"
#include "tests/support/dbus_daemon.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

namespace kw::test {
namespace {

// Half an hour off a whole-hour offset: a formatted local time cannot pass for Unix seconds.
[[maybe_unused]] const bool zone_is_set = [] { return setenv("TZ", "Asia/Kolkata", 1) == 0; }();

// "<code> <bus error name>: <message>" for an error, the printed reply otherwise.
std::string outcome(GVariant* value, const GError* error)
{
    if (!error)
        return value ? take_string(g_variant_print(value, FALSE)) : "(none)";
    std::string name = take_string(g_dbus_error_get_remote_error(error));
    g_ptr<GError> copy(g_error_copy(error));
    g_dbus_error_strip_remote_error(copy.get());
    return std::to_string(copy->domain == kinwatch_error_quark() ? copy->code : -1) + " " + name + ": " + copy->message;
}

// A call from a client thread while this thread serves; the call's own
// timeout bounds the wait.
std::string call(GDBusConnection* client, const char* interface, const char* method, GVariant* parameters = nullptr)
{
    bool driver = g_str_equal(interface, "org.freedesktop.DBus");
    std::atomic<bool> done = false;
    std::string result;
    std::thread caller([&] {
        error_out error;
        g_ptr<GVariant> value = adopt(g_dbus_connection_call_sync(
            client, driver ? interface : dbus_api::bus_name, driver ? "/org/freedesktop/DBus" : dbus_api::object_path,
            interface, method, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, error.out()));
        result = outcome(value.get(), error.get());
        done = true;
        g_main_context_wakeup(nullptr);
    });
    while (!done)
        g_main_context_iteration(nullptr, TRUE);
    caller.join();
    return result;
}

TEST(dbus_api, writes_and_their_errors_reads_and_node_tuples)
{
    KW_REQUIRE_ROOT(); // the bus policy lets root alone own the name
    dbus_daemon bus;
    ASSERT_TRUE(bus.ok());
    g_ptr<GDBusConnection> client = bus.connect();
    auto property = [&](const char* method, const char* name, GVariant* value = nullptr) {
        return call(client.get(), "org.freedesktop.DBus.Properties", method,
                    value ? g_variant_new("(ssv)", dbus_api::interface_name, name, value)
                          : g_variant_new("(ss)", dbus_api::interface_name, name));
    };
    auto nodes = [&](const char* method) { return call(client.get(), dbus_api::interface_name, method); };

    netns_lab lab(1); // the monitor takes in announcements only with an interface
    ASSERT_TRUE(lab.ok());
    netns_enter inside(*lab.host(0).ns);
    camera cam({.enabled = false, .running = true, .ttl = 0}); // a start fails on the TTL until it is set
    ASSERT_TRUE(cam.create(lab.host(0).ns.get()));
    monitor& engine = *cam.engine();
    auto api = dbus_api::create(engine, false);
    for (gint64 deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC; g_get_monotonic_time() < deadline;)
        if (call(client.get(), "org.freedesktop.DBus", "NameHasOwner", g_variant_new("(s)", dbus_api::bus_name)) ==
            "(true,)")
            break;

    const std::string unmapped = "org.gtk.GDBus.UnmappedGError.Quark._Kinwatch_20error_20quark.Code";
    for (const char* method : {"GetKnownNodes", "GetLostNodes"})
        EXPECT_EQ(nodes(method), "2 " + unmapped + "2: Kinwatch is not enabled");
    const std::string illegal = "5 " + unmapped + "5: Illegal multicast group supplied";
    struct {
        const char* property;
        GVariant* value;
        std::string error;
        const char* line; // null: the file stays as it was
    } const writes[] = {
        {"IPv4MulticastGroup", g_variant_new_string("192.168.1.1"), illegal, nullptr},
        {"IPv6MulticastGroup", g_variant_new_string("239.1.2.3"), illegal, nullptr},
        {"TTL", g_variant_new_byte(0), "3 com.tavix.Kinwatch.Error.TTL: TTL must be in the range [1..255]", nullptr},
        {"Enabled", g_variant_new_boolean(TRUE), "0 com.tavix.Kinwatch.Error.Generic: Unable to enable the monitor",
         "Enabled=true"},
        {"Enabled", g_variant_new_boolean(FALSE), "", "Enabled=false"},
        {"TTL", g_variant_new_byte(9), "", "TTL=9"},
        {"Group", g_variant_new_uint32(4294967295u), "", "KinwatchGroup=-1"},
        {"IPv4MulticastGroup", g_variant_new_string("239.1.2.3"), "", "MulticastGroupIPv4=239.1.2.3"},
        {"IPv6MulticastGroup", g_variant_new_string("ff02::1"), "", "MulticastGroupIPv6=ff02::1"},
        {"Enabled", g_variant_new_boolean(TRUE), "", "Enabled=true"},
    };
    for (const auto& w : writes) {
        const std::string before = cam.config_text();
        EXPECT_EQ(property("Set", w.property, w.value), w.error.empty() ? "()" : w.error) << w.property;
        std::string after = cam.config_text();
        EXPECT_TRUE(w.line ? after.find("\n" + std::string(w.line) + "\n") != std::string::npos : after == before)
            << w.property << "\n" << after;
    }
    // A Get reply prints the type of every value that is not a string or a boolean.
    const std::pair<const char*, const char*> reads[] = {
        {"IPv4MulticastGroup", "(<'239.1.2.3'>,)"}, {"IPv6MulticastGroup", "(<'ff02::1'>,)"},
        {"Enabled", "(<true>,)"}, {"TTL", "(<byte 0x09>,)"}, {"Group", "(<uint32 4294967295>,)"}};
    for (const auto& [name, printed] : reads)
        EXPECT_EQ(property("Get", name), printed);

    ASSERT_TRUE(engine.is_running());
    cam.inject_announce(0x020000000009ULL, "10.77.0.9", "fd77::9"); // above our own id: we report its loss
    engine.process_tick();
    cam.clock().advance_us(10 * G_TIME_SPAN_SECOND + G_TIME_SPAN_SECOND / 2);
    cam.inject_announce(0x020000000009ULL, "10.77.0.10", "fd77::a"); // a refresh takes the new addresses
    engine.process_tick();
    // 2026-11-22 12:00 in Kolkata is 06:30 UTC; the half second of last seen is dropped.
    const std::string tuple = "[('02:00:00:00:00:09', '10.77.0.10', 'fd77::a', 1795329000, 1795329010)]";
    EXPECT_EQ(nodes("GetKnownNodes") + nodes("GetLostNodes"), "(" + tuple + ",)([],)");
    cam.clock().advance_us(61 * G_TIME_SPAN_SECOND);
    engine.process_tick();
    EXPECT_EQ(nodes("GetKnownNodes") + nodes("GetLostNodes"), "([],)(" + tuple + ",)");
}

} // namespace
} // namespace kw::test
