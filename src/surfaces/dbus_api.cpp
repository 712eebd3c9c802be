#include "src/surfaces/dbus_api.hpp"

#include <algorithm>
#include <string>

namespace kw {

namespace {

constexpr const char* introspection_xml = "<node>"
                                          "  <interface name='com.tavix.Kinwatch'>"
                                          "    <property name='IPv4MulticastGroup' type='s' access='readwrite'/>"
                                          "    <property name='IPv6MulticastGroup' type='s' access='readwrite'/>"
                                          "    <property name='Enabled' type='b' access='readwrite'/>"
                                          "    <property name='TTL' type='y' access='readwrite'/>"
                                          "    <property name='Group' type='u' access='readwrite'/>"
                                          "    <method name='GetKnownNodes'>"
                                          "      <arg name='known' type='a(ssstt)' direction='out'/>"
                                          "    </method>"
                                          "    <method name='GetLostNodes'>"
                                          "      <arg name='lost' type='a(ssstt)' direction='out'/>"
                                          "    </method>"
                                          "  </interface>"
                                          "</node>";

constexpr const char* node_list_type = "a(ssstt)";

bool same(const char* given, const char* expected)
{
    return given && g_strcmp0(given, expected) == 0;
}

// Path and interface are checked the same way by every handler; false with
// the error set when either is not ours.
bool check_target(const char* path, const char* interface, GError** error)
{
    if (!same(path, dbus_api::object_path)) {
        g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_DBUS, "Unrecognized object path: %s", path);
        return false;
    }
    if (!same(interface, dbus_api::interface_name)) {
        g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_DBUS, "Unrecognized interface name: %s",
                    interface);
        return false;
    }
    return true;
}

// Unix seconds of a local date-time. The conversion goes through the
// instant, so the camera's time zone does not enter into it.
guint64 unix_seconds(gint64 seconds)
{
    return static_cast<guint64>(seconds);
}

} // namespace

GQuark kinwatch_error_quark()
{
    static const GDBusErrorEntry entries[] = {
        {KINWATCH_ERROR_GENERIC, "com.tavix.Kinwatch.Error.Generic"},
        {KINWATCH_ERROR_DBUS, "com.tavix.Kinwatch.Error.DBus"},
        {KINWATCH_ERROR_TTL, "com.tavix.Kinwatch.Error.TTL"},
    };
    static gsize quark = 0;
    g_dbus_error_register_error_domain("Kinwatch error quark", &quark, entries, G_N_ELEMENTS(entries));
    return static_cast<GQuark>(quark);
}

const GDBusInterfaceVTable dbus_api::s_interface_table = {
    .method_call = &dbus_api::method_call,
    .get_property = &dbus_api::get_property,
    .set_property = &dbus_api::set_property,
};

std::unique_ptr<dbus_api> dbus_api::create(monitor& engine, bool enable, bus_listener listener)
{
    auto api = std::make_unique<dbus_api>(private_tag {}, engine, std::move(listener));
    api->m_monitor_bus = monitor_bus::create(engine);
    if (!api->m_monitor_bus)
        return nullptr;
    api->connect();
    if (enable && !engine.set_enabled(true))
        return nullptr;
    return api;
}

dbus_api::~dbus_api()
{
    // A cancelled attempt still calls back, but without touching the object.
    if (m_connecting)
        g_cancellable_cancel(m_connecting.get());
    if (m_retry_id != 0)
        g_source_remove(m_retry_id);
    drop_connection();
    m_introspection_data.reset();
}

void dbus_api::connect()
{
    error_out error;
    g_ptr<char> address = adopt(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out()));
    if (!address) {
        connected(nullptr, error.get());
        return;
    }
    m_connecting = adopt(g_cancellable_new());
    g_dbus_connection_new_for_address(address.get(),
                                      GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                           G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                                      nullptr, m_connecting.get(), &dbus_api::on_connected, this);
}

void dbus_api::on_connected(GObject*, GAsyncResult* result, gpointer self)
{
    error_out error;
    g_ptr<GDBusConnection> connection = adopt(g_dbus_connection_new_for_address_finish(result, error.out()));
    if (g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CANCELLED))
        return;
    static_cast<dbus_api*>(self)->connected(std::move(connection), error.get());
}

void dbus_api::connected(g_ptr<GDBusConnection> connection, const GError* error)
{
    m_connecting.reset();
    if (!connection) {
        if (!m_bus_missing)
            g_warning("Failed to connect to the system bus: %s; retrying", error ? error->message : "");
        m_bus_missing = true;
        retry_later();
        tell(bus_state::unreachable);
        return;
    }
    if (m_bus_missing)
        g_message("Connected to the system bus");
    m_bus_missing = false;
    m_retry_ms = 0;

    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    // Connected before the name request connects its own handler, so this
    // one runs first and gives the request up before it could report a loss.
    m_closed_handler_id = g_signal_connect(connection.get(), "closed", G_CALLBACK(&dbus_api::on_closed), this);
    on_bus_acquired(connection.get(), bus_name, this);
    m_owner_id = g_bus_own_name_on_connection(m_connection.get(), bus_name, G_BUS_NAME_OWNER_FLAGS_NONE,
                                              &dbus_api::on_name_acquired, &dbus_api::on_name_lost, this, nullptr);
}

void dbus_api::on_closed(GDBusConnection*, gboolean, GError*, gpointer self)
{
    static_cast<dbus_api*>(self)->closed();
}

void dbus_api::closed()
{
    g_warning("System bus connection lost, reconnecting");
    m_bus_missing = true;
    drop_connection();
    retry_later();
    tell(bus_state::unreachable);
}

void dbus_api::tell(bus_state state)
{
    if (m_listener)
        m_listener(state);
}

// Doubling from a quarter of a second to four: a bus that comes back is
// reached within four seconds, and one that stays away costs a failed
// connect every four seconds.
void dbus_api::retry_later()
{
    constexpr guint first_retry_ms = 250;
    constexpr guint last_retry_ms = 4000;
    m_retry_ms = m_retry_ms == 0 ? first_retry_ms : std::min(2 * m_retry_ms, last_retry_ms);
    m_retry_id = g_timeout_add(m_retry_ms, &dbus_api::on_retry, this);
}

gboolean dbus_api::on_retry(gpointer self)
{
    auto* api = static_cast<dbus_api*>(self);
    api->m_retry_id = 0;
    api->connect();
    return G_SOURCE_REMOVE;
}

void dbus_api::drop_connection()
{
    if (!m_connection)
        return;
    g_signal_handler_disconnect(m_connection.get(), m_closed_handler_id);
    m_closed_handler_id = 0;
    if (m_registration_id != 0)
        g_dbus_connection_unregister_object(m_connection.get(), m_registration_id);
    m_registration_id = 0;
    m_monitor_bus->unregister();
    // No callback of the name request runs after this.
    if (m_owner_id != 0)
        g_bus_unown_name(m_owner_id);
    m_owner_id = 0;
    m_connection.reset();
}

void dbus_api::on_bus_acquired(GDBusConnection* connection, const gchar*, gpointer self)
{
    static_cast<dbus_api*>(self)->bus_acquired(connection);
}

void dbus_api::on_name_acquired(GDBusConnection*, const gchar*, gpointer self)
{
    // The object was registered when the bus was reached; one that was
    // taken down after a loss of the name stays down until a new connection.
    static_cast<dbus_api*>(self)->tell(bus_state::owned);
}

void dbus_api::on_name_lost(GDBusConnection*, const gchar*, gpointer self)
{
    static_cast<dbus_api*>(self)->name_lost();
}

// Everything the service offers on a connection is registered here, once
// per connection.
void dbus_api::bus_acquired(GDBusConnection* connection)
{
    m_connection = ref(connection);

    if (!m_introspection_data) {
        m_introspection_data = adopt(g_dbus_node_info_new_for_xml(introspection_xml, nullptr));
        if (!m_introspection_data)
            g_error("Unable to register object on DBus");
    }

    m_registration_id =
        g_dbus_connection_register_object(m_connection.get(), object_path, m_introspection_data->interfaces[0],
                                          &s_interface_table, this, nullptr, nullptr);
    if (m_registration_id == 0)
        g_error("Unable to register object on DBus");
    m_monitor_bus->register_on(m_connection.get(), object_path);
}

void dbus_api::name_lost()
{
    tell(bus_state::name_taken);
    if (m_registration_id == 0)
        return;
    if (!m_connection || !g_dbus_connection_unregister_object(m_connection.get(), m_registration_id)) {
        g_warning("Failed to tear down dbus object");
        return;
    }
    m_registration_id = 0;
    m_monitor_bus->unregister();
}

void dbus_api::method_call(GDBusConnection*, const gchar*, const gchar* object_path, const gchar* interface_name,
                           const gchar* method_name, GVariant*, GDBusMethodInvocation* invocation, gpointer self)
{
    static_cast<dbus_api*>(self)->handle_method_call(object_path, interface_name, method_name, invocation);
}

GVariant* dbus_api::get_property(GDBusConnection*, const gchar*, const gchar* object_path,
                                 const gchar* interface_name, const gchar* property_name, GError** error,
                                 gpointer self)
{
    return static_cast<dbus_api*>(self)->handle_get_property(object_path, interface_name, property_name, error);
}

gboolean dbus_api::set_property(GDBusConnection*, const gchar*, const gchar* object_path,
                                const gchar* interface_name, const gchar* property_name, GVariant* value,
                                GError** error, gpointer self)
{
    auto* api = static_cast<dbus_api*>(self);
    auto before = api->property_values();
    bool written = api->handle_set_property(object_path, interface_name, property_name, value, error);
    // A refused write may still have changed a value (Enabled is stored
    // before the start that fails), so the values tell, not the result.
    api->emit_properties_changed(before);
    return written;
}

namespace {

constexpr const char* property_names[] = {"IPv4MulticastGroup", "IPv6MulticastGroup", "Enabled", "TTL", "Group"};

} // namespace

std::vector<g_ptr<GVariant>> dbus_api::property_values()
{
    std::vector<g_ptr<GVariant>> values;
    for (const char* name : property_names) {
        GVariant* value = handle_get_property(object_path, interface_name, name, nullptr);
        values.push_back(adopt(value ? g_variant_ref_sink(value) : nullptr));
    }
    return values;
}

void dbus_api::emit_properties_changed(const std::vector<g_ptr<GVariant>>& before)
{
    std::vector<g_ptr<GVariant>> after = property_values();
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    bool any = false;
    for (std::size_t i = 0; i < after.size(); ++i) {
        if (!after[i] || (before[i] && g_variant_equal(before[i].get(), after[i].get())))
            continue;
        g_variant_builder_add(&changed, "{sv}", property_names[i], after[i].get());
        any = true;
    }
    if (!any || !m_connection || m_registration_id == 0) {
        g_variant_builder_clear(&changed);
        return;
    }
    g_dbus_connection_emit_signal(m_connection.get(), nullptr, object_path, "org.freedesktop.DBus.Properties",
                                  "PropertiesChanged",
                                  g_variant_new("(sa{sv}as)", interface_name, &changed, nullptr), nullptr);
}

void dbus_api::handle_method_call(const char* path, const char* interface, const char* method,
                                  GDBusMethodInvocation* invocation)
{
    error_out target_error;
    if (!check_target(path, interface, target_error.out())) {
        g_dbus_method_invocation_return_gerror(invocation, target_error.get());
        return;
    }

    bool known = same(method, "GetKnownNodes");
    if (!known && !same(method, "GetLostNodes")) {
        g_dbus_method_invocation_return_error(invocation, kinwatch_error_quark(), KINWATCH_ERROR_DBUS,
                                              "Not implemented: %s", method);
        return;
    }
    if (!m_monitor.get_enabled()) {
        g_dbus_method_invocation_return_error(invocation, kinwatch_error_quark(), KINWATCH_ERROR_NOT_ENABLED,
                                              "Kinwatch is not enabled");
        return;
    }
    monitor::node_list nodes = known ? m_monitor.get_known_nodes() : m_monitor.get_lost_nodes();

    // An empty builder of a definite type ends as an empty array of it.
    g_ptr<GVariantBuilder> builder = adopt(g_variant_builder_new(G_VARIANT_TYPE(node_list_type)));
    for (const auto& record : nodes) {
        std::string mac = record.get_mac_string();
        std::string ipv4 = record.get_ipv4_string();
        std::string ipv6 = record.get_ipv6_string();
        g_variant_builder_add(builder.get(), "(ssstt)", mac.c_str(), ipv4.c_str(), ipv6.c_str(),
                              unix_seconds(record.get_first_seen()), unix_seconds(record.get_last_seen()));
    }
    g_dbus_method_invocation_return_value(invocation, g_variant_new("(a(ssstt))", builder.get()));
}

GVariant* dbus_api::handle_get_property(const char* path, const char* interface, const char* property,
                                        GError** error)
{
    if (!check_target(path, interface, error))
        return nullptr;

    if (same(property, "Enabled"))
        return g_variant_new_boolean(m_monitor.get_enabled());

    if (same(property, "TTL")) {
        unsigned ttl = 0;
        if (!m_monitor.get_ttl(ttl)) {
            g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_TTL, "Unable to get TTL from monitor");
            return nullptr;
        }
        return g_variant_new_byte(static_cast<guchar>(ttl & 0xffu));
    }

    if (same(property, "Group")) {
        std::uint32_t group = 0;
        if (!m_monitor.get_group(group)) {
            g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_GROUP, "Unabled to get group from monitor");
            return nullptr;
        }
        return g_variant_new_uint32(group);
    }

    if (same(property, "IPv4MulticastGroup")) {
        std::string text;
        if (!m_monitor.get_ipv4_group(text)) {
            g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_GENERIC,
                        "Unable to get IPv4 multicast group from the monitor");
            return nullptr;
        }
        return g_variant_new_string(text.c_str());
    }

    if (same(property, "IPv6MulticastGroup")) {
        std::string text;
        if (!m_monitor.get_ipv6_group(text)) {
            g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_GENERIC,
                        "Unable to get IPv6 multicast group from the monitor");
            return nullptr;
        }
        return g_variant_new_string(text.c_str());
    }

    g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_DBUS, "Unrecognized property: %s", property);
    return nullptr;
}

bool dbus_api::handle_set_property(const char* path, const char* interface, const char* property, GVariant* value,
                                   GError** error)
{
    if (!check_target(path, interface, error))
        return false;

    if (same(property, "Enabled")) {
        gboolean enabled = FALSE;
        g_variant_get(value, "b", &enabled);
        if (!enabled) {
            // Disabling always ends stopped, so there is nothing to report.
            m_monitor.set_enabled(false);
            return true;
        }
        if (!m_monitor.set_enabled(true)) {
            g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_GENERIC, "Unable to enable the monitor");
            return false;
        }
        return true;
    }

    if (same(property, "TTL")) {
        guchar ttl = 0;
        g_variant_get(value, "y", &ttl);
        // A refused TTL is reported whether or not the monitor is enabled:
        // a caller who wrote 0, or whose running interfaces refused the
        // value, must not be told that it was taken.
        if (!m_monitor.set_ttl(ttl)) {
            g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_TTL, "TTL must be in the range [1..255]");
            return false;
        }
        return true;
    }

    if (same(property, "Group")) {
        guint32 group = 0;
        g_variant_get(value, "u", &group);
        // Whatever the monitor does with the number, the write is taken.
        m_monitor.set_group(group);
        return true;
    }

    if (same(property, "IPv4MulticastGroup") || same(property, "IPv6MulticastGroup")) {
        const char* text = nullptr;
        g_variant_get(value, "&s", &text);
        bool applied = same(property, "IPv4MulticastGroup") ? m_monitor.set_ipv4_group(text)
                                                             : m_monitor.set_ipv6_group(text);
        if (!applied) {
            g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_ILLEGAL_GROUP,
                        "Illegal multicast group supplied");
            return false;
        }
        return true;
    }

    g_set_error(error, kinwatch_error_quark(), KINWATCH_ERROR_DBUS, "Unrecognized property: %s", property);
    return false;
}

} // namespace kw
