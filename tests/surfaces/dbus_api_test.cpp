// The bus object on a private dbus-daemon that carries the service's bus
// policy, over a real monitor. The service side runs on the default main
// context of the test thread; clients call asynchronously and the test
// iterates that context until the reply is in.

#include "src/surfaces/dbus_api.hpp"
#include "tests/support/dbus_daemon.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/tracking/monitor_harness.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
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

    bool failed() const { return static_cast<bool>(error); }
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

// The value inside a Get reply "(v)"; null when the call failed.
g_ptr<GVariant> property_value(const reply& r)
{
    if (!r.value)
        return nullptr;
    g_ptr<GVariant> boxed = adopt(g_variant_get_child_value(r.value.get(), 0));
    return adopt(g_variant_get_variant(boxed.get()));
}

std::string print(GVariant* value)
{
    return value ? take_string(g_variant_print(value, FALSE)) : "(none)";
}

struct node_tuple {
    std::string mac;
    std::string ipv4;
    std::string ipv6;
    guint64 first_seen = 0;
    guint64 last_seen = 0;
};

// The tuples of a node-list reply "(a(ssstt))".
std::vector<node_tuple> node_tuples(const reply& r)
{
    std::vector<node_tuple> tuples;
    if (!r.value || !g_variant_is_of_type(r.value.get(), G_VARIANT_TYPE("(a(ssstt))"))) {
        ADD_FAILURE() << "not a node list: " << print(r.value.get()) << " " << r.error.message();
        return tuples;
    }
    g_ptr<GVariant> list = adopt(g_variant_get_child_value(r.value.get(), 0));
    for (gsize i = 0; i < g_variant_n_children(list.get()); ++i) {
        const char *mac, *ipv4, *ipv6;
        node_tuple tuple;
        g_variant_get_child(list.get(), i, "(&s&s&stt)", &mac, &ipv4, &ipv6, &tuple.first_seen, &tuple.last_seen);
        tuple.mac = mac;
        tuple.ipv4 = ipv4;
        tuple.ipv6 = ipv6;
        tuples.push_back(tuple);
    }
    return tuples;
}

bool has_line(const camera& cam, const std::string& line)
{
    return ("\n" + cam.config_text()).find("\n" + line + "\n") != std::string::npos;
}

// A gdbus client run as an unprivileged user against the private bus.
struct tool_run {
    bool done = false;
    bool succeeded = false;
    std::string out;
    std::string err;

    static void finish(GObject* process, GAsyncResult* result, gpointer self)
    {
        auto* run = static_cast<tool_run*>(self);
        char* out = nullptr;
        char* err = nullptr;
        error_out error;
        g_subprocess_communicate_utf8_finish(G_SUBPROCESS(process), result, &out, &err, error.out());
        run->out = take_string(out);
        run->err = take_string(err);
        run->succeeded = !error && g_subprocess_get_successful(G_SUBPROCESS(process));
        run->done = true;
    }
};

tool_run run_as_nobody(std::vector<const char*> gdbus_arguments)
{
    std::vector<const char*> argv {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                   "gdbus",   "call",          "--system"};
    argv.insert(argv.end(), gdbus_arguments.begin(), gdbus_arguments.end());
    argv.push_back(nullptr);

    tool_run run;
    error_out error;
    g_ptr<GSubprocess> process = adopt(g_subprocess_newv(
        argv.data(), static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_PIPE),
        error.out()));
    if (!process) {
        ADD_FAILURE() << "cannot run setpriv: " << error.message();
        return run;
    }
    g_subprocess_communicate_utf8_async(process.get(), nullptr, nullptr, &tool_run::finish, &run);
    EXPECT_TRUE(iterate_until([&] { return run.done; }));
    return run;
}

std::vector<const char*> on_kinwatch(const char* method, std::vector<const char*> arguments = {})
{
    std::vector<const char*> all {"--dest", dbus_api::bus_name, "--object-path", dbus_api::object_path,
                                  "--method", method};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
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
    std::unique_ptr<dbus_api> serve(monitor& engine, bool enable = false)
    {
        auto api = dbus_api::create(engine, enable);
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

    std::unique_ptr<dbus_daemon> m_bus;
    g_ptr<GDBusConnection> m_client;
};

TEST_F(dbus_api_test, every_property_reads_with_its_type)
{
    camera cam({.enabled = false, .running = false, .ttl = 200});
    ASSERT_TRUE(cam.create(nullptr));
    auto api = serve(*cam.engine());

    struct {
        const char* name;
        const char* type;
        const char* printed;
    } const expected[] = {
        {"IPv4MulticastGroup", "s", "'239.255.77.1'"},
        {"IPv6MulticastGroup", "s", "'ff05::77'"},
        {"Enabled", "b", "false"},
        {"TTL", "y", "0xc8"},
        {"Group", "u", "7"},
    };
    for (const auto& property : expected) {
        auto r = get(property.name);
        ASSERT_FALSE(r->failed()) << property.name << ": " << r->error.message();
        g_ptr<GVariant> value = property_value(*r);
        EXPECT_STREQ(g_variant_get_type_string(value.get()), property.type) << property.name;
        EXPECT_EQ(print(value.get()), property.printed) << property.name;
    }

    auto all = call(m_client.get(), properties, "GetAll", g_variant_new("(s)", dbus_api::interface_name));
    ASSERT_FALSE(all->failed()) << all->error.message();
    g_ptr<GVariant> dictionary = adopt(g_variant_get_child_value(all->value.get(), 0));
    EXPECT_EQ(g_variant_n_children(dictionary.get()), 5u);
}

TEST_F(dbus_api_test, introspection_shows_five_properties_then_two_methods)
{
    camera cam({.enabled = false, .running = false});
    ASSERT_TRUE(cam.create(nullptr));
    auto api = serve(*cam.engine());

    auto r = call(m_client.get(), {dbus_api::bus_name, dbus_api::object_path, "org.freedesktop.DBus.Introspectable"},
                  "Introspect");
    ASSERT_FALSE(r->failed()) << r->error.message();
    const char* xml = nullptr;
    g_variant_get(r->value.get(), "(&s)", &xml);
    g_ptr<GDBusNodeInfo> node = adopt(g_dbus_node_info_new_for_xml(xml, nullptr));
    ASSERT_TRUE(node);
    GDBusInterfaceInfo* interface = g_dbus_node_info_lookup_interface(node.get(), dbus_api::interface_name);
    ASSERT_TRUE(interface);

    std::string members;
    for (GDBusPropertyInfo** p = interface->properties; p && *p; ++p)
        members += std::string((*p)->name) + ":" + (*p)->signature +
                   ((*p)->flags == (G_DBUS_PROPERTY_INFO_FLAGS_READABLE | G_DBUS_PROPERTY_INFO_FLAGS_WRITABLE)
                        ? ":rw "
                        : ":? ");
    for (GDBusMethodInfo** m = interface->methods; m && *m; ++m) {
        members += std::string((*m)->name) + "(";
        for (GDBusArgInfo** a = (*m)->in_args; a && *a; ++a)
            members += std::string("in ") + (*a)->signature;
        for (GDBusArgInfo** a = (*m)->out_args; a && *a; ++a)
            members += std::string("out ") + (*a)->name + " " + (*a)->signature;
        members += ") ";
    }
    EXPECT_EQ(members, "IPv4MulticastGroup:s:rw IPv6MulticastGroup:s:rw Enabled:b:rw TTL:y:rw Group:u:rw "
                       "GetKnownNodes(out known a(ssstt)) GetLostNodes(out lost a(ssstt)) ");
    EXPECT_TRUE(!interface->signals || !interface->signals[0]);
}

TEST_F(dbus_api_test, every_write_reaches_the_file_at_once)
{
    netns ns("bus-write");
    netns_enter inside(ns);
    camera cam({.enabled = false, .running = false});
    ASSERT_TRUE(cam.create(&ns));
    auto api = serve(*cam.engine());

    struct {
        const char* property;
        GVariant* value;
        const char* line;
    } const writes[] = {
        // Disabling what is already off succeeds and has nothing to stop.
        {"Enabled", g_variant_new_boolean(FALSE), "Enabled=false"},
        {"IPv4MulticastGroup", g_variant_new_string("239.1.2.3"), "MulticastGroupIPv4=239.1.2.3"},
        {"IPv6MulticastGroup", g_variant_new_string("ff02::1"), "MulticastGroupIPv6=ff02::1"},
        {"TTL", g_variant_new_byte(9), "TTL=9"},
        {"Group", g_variant_new_uint32(42), "KinwatchGroup=42"},
        // The package is not running, so enabling stores the flag only.
        {"Enabled", g_variant_new_boolean(TRUE), "Enabled=true"},
        {"Enabled", g_variant_new_boolean(FALSE), "Enabled=false"},
    };
    for (const auto& write : writes) {
        g_ptr<GVariant> written = adopt(g_variant_ref_sink(write.value));
        auto r = set(write.property, written.get());
        ASSERT_FALSE(r->failed()) << write.line << ": " << r->error.message();
        EXPECT_TRUE(has_line(cam, write.line)) << write.line << " missing from\n" << cam.config_text();
        EXPECT_EQ(print(property_value(*get(write.property)).get()), print(written.get())) << write.line;
    }
    EXPECT_FALSE(cam.engine()->is_running());
}

TEST_F(dbus_api_test, node_lists_need_enabled_and_are_empty_while_the_package_is_stopped)
{
    netns ns("bus-lists");
    netns_enter inside(ns);
    camera cam({.enabled = false, .running = false});
    ASSERT_TRUE(cam.create(&ns));
    auto api = serve(*cam.engine());

    for (const char* method : {"GetKnownNodes", "GetLostNodes"}) {
        auto r = nodes(method);
        EXPECT_TRUE(r->is(KINWATCH_ERROR_NOT_ENABLED)) << method << ": " << r->error.message();
        EXPECT_EQ(r->message(), "Kinwatch is not enabled");
        // Code 2 has no bus error name of its own.
        EXPECT_EQ(r->remote_name().rfind("org.gtk.GDBus.UnmappedGError.Quark.", 0), 0u) << r->remote_name();
    }

    g_ptr<GVariant> on = adopt(g_variant_ref_sink(g_variant_new_boolean(TRUE)));
    ASSERT_FALSE(set("Enabled", on.get())->failed());
    ASSERT_FALSE(cam.engine()->is_running());
    for (const char* method : {"GetKnownNodes", "GetLostNodes"}) {
        auto r = nodes(method);
        ASSERT_FALSE(r->failed()) << method << ": " << r->error.message();
        EXPECT_STREQ(g_variant_get_type_string(r->value.get()), "(a(ssstt))") << method;
        EXPECT_EQ(print(r->value.get()), "([],)") << method;
    }
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
    g_ptr<GDateTime> start_utc = adopt(g_date_time_new_utc(2026, 11, 22, 6, 30, 0.0));
    const auto start = static_cast<guint64>(g_date_time_to_unix(start_utc.get()));

    const node_id sibling = 0x020000000009ULL; // above our own id, so we report its loss
    cam.inject_announce(sibling, "10.77.0.9", "fd77::9");
    engine.process_tick();
    cam.clock().advance_us(10 * G_TIME_SPAN_SECOND + G_TIME_SPAN_SECOND / 2);
    cam.inject_announce(sibling, "10.77.0.9", "fd77::9");
    engine.process_tick();

    auto known = node_tuples(*nodes("GetKnownNodes"));
    ASSERT_EQ(known.size(), 1u);
    EXPECT_EQ(known[0].mac, "02:00:00:00:00:09");
    EXPECT_EQ(known[0].ipv4, "10.77.0.9");
    EXPECT_EQ(known[0].ipv6, "fd77::9");
    EXPECT_EQ(known[0].first_seen, start);
    EXPECT_EQ(known[0].last_seen, start + 10); // the half second is dropped
    EXPECT_TRUE(node_tuples(*nodes("GetLostNodes")).empty());

    cam.clock().advance_us(61 * G_TIME_SPAN_SECOND);
    engine.process_tick();
    EXPECT_TRUE(node_tuples(*nodes("GetKnownNodes")).empty());
    auto lost = node_tuples(*nodes("GetLostNodes"));
    ASSERT_EQ(lost.size(), 1u);
    EXPECT_EQ(lost[0].mac, "02:00:00:00:00:09");
    EXPECT_EQ(lost[0].first_seen, start);
    EXPECT_EQ(lost[0].last_seen, start + 10);
}

TEST_F(dbus_api_test, illegal_multicast_groups_are_refused)
{
    camera cam({.enabled = false, .running = false});
    ASSERT_TRUE(cam.create(nullptr));
    auto api = serve(*cam.engine());
    const std::string before = cam.config_text();

    struct {
        const char* property;
        const char* text;
    } const refused[] = {
        {"IPv4MulticastGroup", "192.168.1.1"}, {"IPv4MulticastGroup", "ff02::1"},
        {"IPv4MulticastGroup", "no address"},  {"IPv6MulticastGroup", "fe80::1"},
        {"IPv6MulticastGroup", "239.1.2.3"},
    };
    for (const auto& write : refused) {
        auto r = set(write.property, g_variant_new_string(write.text));
        EXPECT_TRUE(r->is(KINWATCH_ERROR_ILLEGAL_GROUP)) << write.text << ": " << r->error.message();
        EXPECT_EQ(r->message(), "Illegal multicast group supplied") << write.text;
    }
    EXPECT_EQ(cam.config_text(), before);
}

TEST_F(dbus_api_test, a_refused_ttl_is_reported_whether_enabled_or_not)
{
    netns ns("bus-ttl");
    netns_enter inside(ns);
    camera cam({.enabled = false, .running = false});
    ASSERT_TRUE(cam.create(&ns));
    auto api = serve(*cam.engine());

    for (bool enabled : {false, true}) {
        ASSERT_FALSE(set("Enabled", g_variant_new_boolean(enabled))->failed());
        auto r = set("TTL", g_variant_new_byte(0));
        EXPECT_TRUE(r->is(KINWATCH_ERROR_TTL)) << enabled << ": " << r->error.message();
        EXPECT_EQ(r->remote_name(), "com.tavix.Kinwatch.Error.TTL");
        EXPECT_EQ(r->message(), "TTL must be in the range [1..255]");
        EXPECT_TRUE(has_line(cam, "TTL=1")) << cam.config_text();
    }
}

TEST_F(dbus_api_test, a_refused_enable_is_a_generic_error)
{
    netns ns("bus-enable");
    netns_enter inside(ns);
    // The stored TTL of 0 makes every start of the monitor fail.
    camera cam({.enabled = false, .running = true, .ttl = 0});
    ASSERT_TRUE(cam.create(&ns));
    auto api = serve(*cam.engine());

    auto r = set("Enabled", g_variant_new_boolean(TRUE));
    EXPECT_TRUE(r->is(KINWATCH_ERROR_GENERIC)) << r->error.message();
    EXPECT_EQ(r->remote_name(), "com.tavix.Kinwatch.Error.Generic");
    EXPECT_EQ(r->message(), "Unable to enable the monitor");
    EXPECT_FALSE(cam.engine()->is_running());
}

TEST_F(dbus_api_test, create_enables_the_monitor_and_fails_when_it_cannot)
{
    netns ns("bus-create");
    netns_enter inside(ns);

    camera stopped({.enabled = false, .running = false});
    ASSERT_TRUE(stopped.create(&ns));
    EXPECT_TRUE(dbus_api::create(*stopped.engine(), true));
    EXPECT_TRUE(has_line(stopped, "Enabled=true")) << stopped.config_text();

    camera already({.enabled = true, .running = false});
    ASSERT_TRUE(already.create(&ns));
    const std::string before = already.config_text();
    EXPECT_TRUE(dbus_api::create(*already.engine(), true));
    EXPECT_EQ(already.config_text(), before);

    camera refusing({.enabled = false, .running = true, .ttl = 0});
    ASSERT_TRUE(refusing.create(&ns));
    EXPECT_EQ(dbus_api::create(*refusing.engine(), true), nullptr);
    EXPECT_FALSE(refusing.engine()->is_running());
}

TEST_F(dbus_api_test, unknown_members_and_wrong_types_are_refused_by_the_bus_library)
{
    camera cam({.enabled = false, .running = false});
    ASSERT_TRUE(cam.create(nullptr));
    auto api = serve(*cam.engine());

    EXPECT_EQ(get("Nope")->remote_name(), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(set("Nope", g_variant_new_byte(1))->remote_name(), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(set("TTL", g_variant_new_uint32(5))->remote_name(), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(nodes("Nope")->remote_name(), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(call(m_client.get(), {dbus_api::bus_name, dbus_api::object_path, "com.tavix.Other"}, "GetKnownNodes")
                  ->remote_name(),
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(call(m_client.get(), {dbus_api::bus_name, "/com/tavix/Other", dbus_api::interface_name},
                   "GetKnownNodes")
                  ->remote_name(),
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_TRUE(has_line(cam, "TTL=1"));
}

TEST_F(dbus_api_test, handlers_check_path_interface_and_property_themselves)
{
    camera cam({.enabled = false, .running = false});
    ASSERT_TRUE(cam.create(nullptr));
    auto api = dbus_api::create(*cam.engine(), false);
    ASSERT_TRUE(api);

    struct {
        const char* path;
        const char* interface;
        const char* property;
        const char* message;
    } const wrong[] = {
        {"/com/tavix/Other", dbus_api::interface_name, "TTL", "Unrecognized object path: /com/tavix/Other"},
        {"/com/tavix/Kinwatch/", dbus_api::interface_name, "TTL", "Unrecognized object path: /com/tavix/Kinwatch/"},
        {dbus_api::object_path, "com.tavix.Kinwatch.", "TTL", "Unrecognized interface name: com.tavix.Kinwatch."},
        {dbus_api::object_path, dbus_api::interface_name, "ttl", "Unrecognized property: ttl"},
    };
    g_ptr<GVariant> value = adopt(g_variant_ref_sink(g_variant_new_byte(5)));
    for (const auto& names : wrong) {
        error_out error;
        EXPECT_EQ(dbus_api::get_property(nullptr, nullptr, names.path, names.interface, names.property, error.out(),
                                         api.get()),
                  nullptr);
        EXPECT_TRUE(g_error_matches(error.get(), kinwatch_error_quark(), KINWATCH_ERROR_DBUS));
        EXPECT_STREQ(error.message(), names.message);

        EXPECT_FALSE(dbus_api::set_property(nullptr, nullptr, names.path, names.interface, names.property,
                                            value.get(), error.out(), api.get()));
        EXPECT_TRUE(g_error_matches(error.get(), kinwatch_error_quark(), KINWATCH_ERROR_DBUS));
        EXPECT_STREQ(error.message(), names.message);
    }
    EXPECT_TRUE(has_line(cam, "TTL=1"));
}

TEST_F(dbus_api_test, other_users_may_read_and_list_but_not_write_or_own)
{
    camera cam({.enabled = true, .running = false});
    ASSERT_TRUE(cam.create(nullptr));
    auto api = serve(*cam.engine());

    const std::vector<std::vector<const char*>> allowed = {
        on_kinwatch("org.freedesktop.DBus.Properties.Get", {dbus_api::interface_name, "TTL"}),
        on_kinwatch("org.freedesktop.DBus.Properties.GetAll", {dbus_api::interface_name}),
        on_kinwatch("org.freedesktop.DBus.Introspectable.Introspect"),
        on_kinwatch("org.freedesktop.DBus.Peer.Ping"),
        on_kinwatch("com.tavix.Kinwatch.GetKnownNodes"),
        on_kinwatch("com.tavix.Kinwatch.GetLostNodes"),
    };
    for (const auto& arguments : allowed) {
        tool_run run = run_as_nobody(arguments);
        EXPECT_TRUE(run.succeeded) << arguments[5] << ": " << run.err;
    }

    const std::vector<std::vector<const char*>> denied = {
        on_kinwatch("org.freedesktop.DBus.Properties.Set", {dbus_api::interface_name, "TTL", "<byte 5>"}),
        {"--dest", "org.freedesktop.DBus", "--object-path", "/org/freedesktop/DBus", "--method",
         "org.freedesktop.DBus.RequestName", dbus_api::bus_name, "0"},
    };
    for (const auto& arguments : denied) {
        tool_run run = run_as_nobody(arguments);
        EXPECT_FALSE(run.succeeded) << arguments[5];
        EXPECT_NE(run.err.find("org.freedesktop.DBus.Error.AccessDenied"), std::string::npos)
            << arguments[5] << ": " << run.err;
    }
    EXPECT_TRUE(has_line(cam, "TTL=1")) << cam.config_text();

    // Root, as every other test shows, may write.
    EXPECT_FALSE(set("TTL", g_variant_new_byte(5))->failed());
    EXPECT_TRUE(has_line(cam, "TTL=5")) << cam.config_text();
}

TEST_F(dbus_api_test, losing_the_name_takes_the_object_down_for_good)
{
    camera cam({.enabled = false, .running = false});
    ASSERT_TRUE(cam.create(nullptr));

    // Another connection holds the name first, so the service is queued.
    auto request = call(m_client.get(), bus_driver, "RequestName", g_variant_new("(su)", dbus_api::bus_name, 0u));
    ASSERT_FALSE(request->failed()) << request->error.message();
    ASSERT_EQ(print(request->value.get()), "(1,)");

    auto api = dbus_api::create(*cam.engine(), false);
    ASSERT_TRUE(api);
    const std::string service = g_dbus_connection_get_unique_name(m_bus->system_bus());
    ASSERT_TRUE(iterate_until([&] {
        auto queue = call(m_client.get(), bus_driver, "ListQueuedOwners", g_variant_new("(s)", dbus_api::bus_name));
        return print(queue->value.get()).find("'" + service + "'") != std::string::npos;
    }));
    // The reply to the service's name request came before this one, so its
    // name-lost callback has run once this round trip is back.
    ASSERT_FALSE(call(m_bus->system_bus(), bus_driver, "GetId")->failed());

    // Handing the name over makes the service its owner, with no object.
    ASSERT_FALSE(
        call(m_client.get(), bus_driver, "ReleaseName", g_variant_new("(s)", dbus_api::bus_name))->failed());
    ASSERT_TRUE(iterate_until([&] {
        auto owner = call(m_client.get(), bus_driver, "GetNameOwner", g_variant_new("(s)", dbus_api::bus_name));
        return print(owner->value.get()) == "('" + service + "',)";
    }));
    auto r = get("TTL");
    EXPECT_TRUE(r->failed());
    EXPECT_EQ(r->remote_name(), "org.freedesktop.DBus.Error.UnknownMethod") << r->error.message();
}

} // namespace
} // namespace kw::test
