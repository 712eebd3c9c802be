// The bus object on a private dbus-daemon that carries the service's bus
// policy, over a real monitor. The service side runs on the default main
// context of the test thread; clients call asynchronously and the test
// iterates that context until the reply is in.

#include "src/surfaces/dbus_api.hpp"
#include "tests/support/dbus_daemon.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#if defined(__SANITIZE_THREAD__)
// GIO hands its objects between the caller and its worker thread through
// atomics inside uninstrumented libraries, where the race detector cannot
// see them; the memory calls those libraries make are left out. Accesses
// made by this program's own code are still checked.
extern "C" const char* __tsan_default_suppressions()
{
    return "called_from_lib:libglib-2.0.so.0\n"
           "called_from_lib:libgobject-2.0.so.0\n"
           "called_from_lib:libgio-2.0.so.0\n";
}
#endif

namespace kw::test {
namespace {

// A zone half an hour off a whole-hour offset from UTC: a node time that
// was formatted instead of converted cannot pass for Unix seconds.
[[maybe_unused]] const bool zone_is_set = [] { return setenv("TZ", "Asia/Kolkata", 1) == 0; }();

constexpr gint64 deadline_us = 10 * G_USEC_PER_SEC;
// Shorter than the deadline, so a reply or a timeout error always arrives.
constexpr int call_timeout_ms = 5000;

gboolean keep_waking(gpointer)
{
    return G_SOURCE_CONTINUE;
}

// Iterates the default main context until done() holds or the deadline
// passes. A periodic wake-up keeps the blocking iteration from hanging.
bool iterate_until(const std::function<bool()>& done)
{
    guint wake = g_timeout_add(50, &keep_waking, nullptr);
    gint64 deadline = g_get_monotonic_time() + deadline_us;
    while (!done() && g_get_monotonic_time() < deadline)
        g_main_context_iteration(nullptr, TRUE);
    g_source_remove(wake);
    return done();
}

struct target {
    const char* destination;
    const char* path;
    const char* interface;
};

constexpr target kinwatch {dbus_api::bus_name, dbus_api::object_path, dbus_api::interface_name};
constexpr target properties {dbus_api::bus_name, dbus_api::object_path, "org.freedesktop.DBus.Properties"};
constexpr target bus_driver {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"};

struct reply {
    bool done = false;
    g_ptr<GVariant> value;
    error_out error;

    std::string remote_name() const { return take_string(g_dbus_error_get_remote_error(error.get())); }
    std::string message() const
    {
        if (!error)
            return {};
        g_ptr<GError> copy(g_error_copy(error.get()));
        g_dbus_error_strip_remote_error(copy.get());
        return copy->message;
    }
    bool is(KinwatchError code) const { return g_error_matches(error.get(), kinwatch_error_quark(), code); }

    static void finish(GObject* connection, GAsyncResult* result, gpointer self)
    {
        auto* r = static_cast<reply*>(self);
        r->value = adopt(g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, r->error.out()));
        r->done = true;
    }
};

std::unique_ptr<reply> call(GDBusConnection* connection, const target& to, const char* method,
                            GVariant* parameters = nullptr)
{
    auto r = std::make_unique<reply>();
    g_dbus_connection_call(connection, to.destination, to.path, to.interface, method, parameters, nullptr,
                           G_DBUS_CALL_FLAGS_NONE, call_timeout_ms, nullptr, &reply::finish, r.get());
    EXPECT_TRUE(iterate_until([&] { return r->done; })) << method;
    return r;
}

std::string print(GVariant* value)
{
    return value ? take_string(g_variant_print(value, FALSE)) : "(none)";
}

bool has_line(const camera& cam, const std::string& line)
{
    return ("\n" + cam.config_text()).find("\n" + line + "\n") != std::string::npos;
}

// A gdbus call on the service object, run as an unprivileged user.
struct tool_run {
    bool done = false;
    bool succeeded = false;
    std::string output; // standard output and error

    static void finish(GObject* process, GAsyncResult* result, gpointer self)
    {
        auto* run = static_cast<tool_run*>(self);
        char* output = nullptr;
        run->succeeded =
            g_subprocess_communicate_utf8_finish(G_SUBPROCESS(process), result, &output, nullptr, nullptr) &&
            g_subprocess_get_successful(G_SUBPROCESS(process));
        run->output = take_string(output);
        run->done = true;
    }
};

tool_run run_as_nobody(const char* method, std::vector<const char*> arguments = {})
{
    std::vector<const char*> argv {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "gdbus", "call",
                                   "--system", "--dest", dbus_api::bus_name, "--object-path", dbus_api::object_path,
                                   "--method", method};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    argv.push_back(nullptr);

    tool_run run;
    error_out error;
    g_ptr<GSubprocess> process = adopt(g_subprocess_newv(
        argv.data(), static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_MERGE),
        error.out()));
    if (!process) {
        ADD_FAILURE() << "cannot run setpriv: " << error.message();
        return run;
    }
    g_subprocess_communicate_utf8_async(process.get(), nullptr, nullptr, &tool_run::finish, &run);
    EXPECT_TRUE(iterate_until([&] { return run.done; }));
    return run;
}

class dbus_api_test : public ::testing::Test {
protected:
    void SetUp() override
    {
        KW_REQUIRE_ROOT(); // the bus policy lets root alone own the name
        m_bus = std::make_unique<dbus_daemon>();
        ASSERT_TRUE(m_bus->ok());
        m_client = m_bus->connect();
        ASSERT_TRUE(m_client);
    }

    // A bus API for the engine, once its name is owned on the bus.
    std::unique_ptr<dbus_api> serve(monitor& engine)
    {
        auto api = dbus_api::create(engine, false);
        EXPECT_TRUE(api);
        EXPECT_TRUE(iterate_until([&] {
            auto owned = call(m_client.get(), bus_driver, "NameHasOwner", g_variant_new("(s)", dbus_api::bus_name));
            gboolean has_owner = FALSE;
            if (owned->value)
                g_variant_get(owned->value.get(), "(b)", &has_owner);
            return has_owner;
        }));
        return api;
    }

    std::unique_ptr<reply> get(const char* property)
    {
        return call(m_client.get(), properties, "Get", g_variant_new("(ss)", dbus_api::interface_name, property));
    }
    std::unique_ptr<reply> set(const char* property, GVariant* value)
    {
        return call(m_client.get(), properties, "Set",
                    g_variant_new("(ssv)", dbus_api::interface_name, property, value));
    }
    std::unique_ptr<reply> nodes(const char* method) { return call(m_client.get(), kinwatch, method); }
    // A node-list reply "(a(ssstt))" as printed text.
    std::string listing(const char* method)
    {
        auto r = nodes(method);
        EXPECT_TRUE(r->value && g_variant_is_of_type(r->value.get(), G_VARIANT_TYPE("(a(ssstt))")))
            << method << ": " << r->error.message();
        return print(r->value.get());
    }

    std::unique_ptr<dbus_daemon> m_bus;
    g_ptr<GDBusConnection> m_client;
};

TEST_F(dbus_api_test, every_property_reads_with_its_type_and_every_write_reaches_the_file_at_once)
{
    netns ns("bus-write");
    netns_enter inside(ns);
    camera cam({.enabled = false, .running = false, .ttl = 200});
    ASSERT_TRUE(cam.create(&ns));
    auto api = serve(*cam.engine());

    // A Get reply "(v)" prints the type of every value that is not a string or
    // a boolean, so the text shows the type too.
    struct {
        const char* name;
        const char* printed;
    } const expected[] = {
        {"IPv4MulticastGroup", "(<'239.255.77.1'>,)"},
        {"IPv6MulticastGroup", "(<'ff05::77'>,)"},
        {"Enabled", "(<false>,)"},
        {"TTL", "(<byte 0xc8>,)"},
        {"Group", "(<uint32 7>,)"},
    };
    for (const auto& property : expected)
        EXPECT_EQ(print(get(property.name)->value.get()), property.printed) << property.name;

    struct {
        const char* property;
        GVariant* value;
        const char* line;
    } const writes[] = {
        {"IPv4MulticastGroup", g_variant_new_string("239.1.2.3"), "MulticastGroupIPv4=239.1.2.3"},
        {"IPv6MulticastGroup", g_variant_new_string("ff02::1"), "MulticastGroupIPv6=ff02::1"},
        {"TTL", g_variant_new_byte(9), "TTL=9"},
        {"Group", g_variant_new_uint32(42), "KinwatchGroup=42"},
        // The package is not running, so enabling stores the flag only.
        {"Enabled", g_variant_new_boolean(TRUE), "Enabled=true"},
        {"Enabled", g_variant_new_boolean(FALSE), "Enabled=false"},
    };
    for (const auto& write : writes) {
        auto r = set(write.property, write.value);
        EXPECT_FALSE(r->error) << write.line << ": " << r->error.message();
        EXPECT_TRUE(has_line(cam, write.line)) << write.line << " missing from\n" << cam.config_text();
    }
}

TEST_F(dbus_api_test, refusals_and_unknown_members_fail_and_leave_the_file_alone)
{
    netns ns("bus-refuse");
    netns_enter inside(ns);
    // Disabled, and the stored TTL of 0 makes every start of the monitor fail.
    camera cam({.enabled = false, .running = true, .ttl = 0});
    ASSERT_TRUE(cam.create(&ns));
    auto api = serve(*cam.engine());
    const std::string before = cam.config_text();

    for (const char* method : {"GetKnownNodes", "GetLostNodes"}) {
        auto r = nodes(method);
        EXPECT_TRUE(r->is(KINWATCH_ERROR_NOT_ENABLED)) << method << ": " << r->error.message();
        EXPECT_EQ(r->message(), "Kinwatch is not enabled") << method;
    }

    EXPECT_EQ(get("Nope")->remote_name(), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(set("Nope", g_variant_new_byte(1))->remote_name(), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(nodes("Nope")->remote_name(), "org.freedesktop.DBus.Error.UnknownMethod");

    for (const auto& [property, text] : {std::pair {"IPv4MulticastGroup", "192.168.1.1"},
                                         std::pair {"IPv6MulticastGroup", "239.1.2.3"}}) {
        auto r = set(property, g_variant_new_string(text));
        EXPECT_TRUE(r->is(KINWATCH_ERROR_ILLEGAL_GROUP)) << text << ": " << r->error.message();
        EXPECT_EQ(r->message(), "Illegal multicast group supplied") << text;
    }
    auto ttl = set("TTL", g_variant_new_byte(0));
    EXPECT_TRUE(ttl->is(KINWATCH_ERROR_TTL)) << ttl->error.message();
    EXPECT_EQ(ttl->remote_name(), "com.tavix.Kinwatch.Error.TTL");
    EXPECT_EQ(ttl->message(), "TTL must be in the range [1..255]");
    EXPECT_EQ(cam.config_text(), before);

    // The flag is stored even though the start fails.
    auto enable = set("Enabled", g_variant_new_boolean(TRUE));
    EXPECT_TRUE(enable->is(KINWATCH_ERROR_GENERIC)) << enable->error.message();
    EXPECT_EQ(enable->remote_name(), "com.tavix.Kinwatch.Error.Generic");
    EXPECT_EQ(enable->message(), "Unable to enable the monitor");
    EXPECT_FALSE(cam.engine()->is_running());
}

TEST_F(dbus_api_test, node_tuples_carry_texts_and_whole_unix_seconds)
{
    // The monitor takes in announcements only with an interface to hear them on.
    netns_lab lab(1);
    ASSERT_TRUE(lab.ok());
    netns& host = *lab.host(0).ns;
    netns_enter inside(host);
    camera cam;
    ASSERT_TRUE(cam.create(&host));
    monitor& engine = *cam.engine();
    ASSERT_TRUE(engine.is_running());
    auto api = serve(engine);

    // The lab clock starts at 12:00 local time, which is 06:30 UTC here.
    ASSERT_EQ(g_date_time_get_utc_offset(cam.clock().now()), (5 * 60 + 30) * G_TIME_SPAN_MINUTE);

    const node_id sibling = 0x020000000009ULL; // above our own id, so we report its loss
    cam.inject_announce(sibling, "10.77.0.9", "fd77::9");
    engine.process_tick();
    cam.clock().advance_us(10 * G_TIME_SPAN_SECOND + G_TIME_SPAN_SECOND / 2);
    cam.inject_announce(sibling, "10.77.0.9", "fd77::9");
    engine.process_tick();

    // First seen at 2026-11-22 06:30:00 UTC, last seen 10.5 s later: the half
    // second is dropped.
    const std::string tuple = "[('02:00:00:00:00:09', '10.77.0.9', 'fd77::9', 1795329000, 1795329010)]";
    EXPECT_EQ(listing("GetKnownNodes"), "(" + tuple + ",)");
    EXPECT_EQ(listing("GetLostNodes"), "([],)");

    cam.clock().advance_us(61 * G_TIME_SPAN_SECOND);
    engine.process_tick();
    EXPECT_EQ(listing("GetKnownNodes"), "([],)");
    EXPECT_EQ(listing("GetLostNodes"), "(" + tuple + ",)");
}

TEST_F(dbus_api_test, other_users_may_read_and_list_but_not_write)
{
    camera cam({.enabled = true, .running = false});
    ASSERT_TRUE(cam.create(nullptr));
    auto api = serve(*cam.engine());

    tool_run read = run_as_nobody("org.freedesktop.DBus.Properties.Get", {dbus_api::interface_name, "TTL"});
    EXPECT_TRUE(read.succeeded) << read.output;
    for (const char* method : {"com.tavix.Kinwatch.GetKnownNodes", "com.tavix.Kinwatch.GetLostNodes"}) {
        tool_run run = run_as_nobody(method);
        EXPECT_TRUE(run.succeeded) << method << ": " << run.output;
    }

    tool_run denied =
        run_as_nobody("org.freedesktop.DBus.Properties.Set", {dbus_api::interface_name, "TTL", "<byte 5>"});
    EXPECT_FALSE(denied.succeeded);
    EXPECT_NE(denied.output.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos) << denied.output;
    EXPECT_TRUE(has_line(cam, "TTL=1")) << cam.config_text();
}

} // namespace
} // namespace kw::test
