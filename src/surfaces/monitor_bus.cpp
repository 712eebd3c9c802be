#include "src/surfaces/monitor_bus.hpp"

#include <algorithm>

namespace kw {

namespace {

// Statistics change all the time and are read when wanted; Keyed is fixed for
// the process's life; Interfaces (name, IPv4, IPv6 of each interface in use)
// tells its changes.
constexpr const char* introspection_xml =
    "<node>"
    "  <interface name='com.tavix.Kinwatch.Monitor1'>"
    "    <method name='GetNodes'>"
    "      <arg name='generation' type='t' direction='out'/>"
    "      <arg name='known' type='aa{sv}' direction='out'/>"
    "      <arg name='lost' type='aa{sv}' direction='out'/>"
    "    </method>"
    "    <signal name='NodeJoined'><arg name='generation' type='t'/><arg name='node' type='a{sv}'/></signal>"
    "    <signal name='NodeLost'><arg name='generation' type='t'/><arg name='node' type='a{sv}'/></signal>"
    "    <signal name='NodeLeft'><arg name='generation' type='t'/><arg name='node' type='a{sv}'/></signal>"
    "    <property name='Statistics' type='a{st}' access='read'>"
    "      <annotation name='org.freedesktop.DBus.Property.EmitsChangedSignal' value='false'/>"
    "    </property>"
    "    <property name='Interfaces' type='a(sss)' access='read'/>"
    "    <property name='Keyed' type='b' access='read'>"
    "      <annotation name='org.freedesktop.DBus.Property.EmitsChangedSignal' value='const'/>"
    "    </property>"
    "  </interface>"
    "</node>";

guint64 unix_seconds(gint64 seconds)
{
    return static_cast<guint64>(seconds);
}

// The node as a dictionary: the node lists' five fields by name, and for a
// loss whether this node reported it.
GVariant* node_dictionary(const monitor_message_type& node, const bool* reported = nullptr)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&builder, "{sv}", "mac", g_variant_new_string(node.get_mac_string().c_str()));
    g_variant_builder_add(&builder, "{sv}", "ipv4", g_variant_new_string(node.get_ipv4_string().c_str()));
    g_variant_builder_add(&builder, "{sv}", "ipv6", g_variant_new_string(node.get_ipv6_string().c_str()));
    g_variant_builder_add(&builder, "{sv}", "first_seen", g_variant_new_uint64(unix_seconds(node.get_first_seen())));
    g_variant_builder_add(&builder, "{sv}", "last_seen", g_variant_new_uint64(unix_seconds(node.get_last_seen())));
    if (reported)
        g_variant_builder_add(&builder, "{sv}", "reported", g_variant_new_boolean(*reported));
    return g_variant_builder_end(&builder);
}

GVariant* node_array(const monitor::node_list& nodes)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("aa{sv}"));
    for (const auto& node : nodes)
        g_variant_builder_add_value(&builder, node_dictionary(node));
    return g_variant_builder_end(&builder);
}

GVariant* interface_array(const monitor& engine)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(sss)"));
    for (const interface_in_use& in_use : engine.get_interfaces())
        g_variant_builder_add(&builder, "(sss)", in_use.name.c_str(), in_use.ipv4.c_str(), in_use.ipv6.c_str());
    return g_variant_ref_sink(g_variant_builder_end(&builder));
}

} // namespace

const GDBusInterfaceVTable monitor_bus::s_interface_table = {
    .method_call = &monitor_bus::method_call,
    .get_property = &monitor_bus::get_property,
    .set_property = nullptr,
};

std::unique_ptr<monitor_bus> monitor_bus::create(monitor& engine)
{
    auto bus = std::make_unique<monitor_bus>(private_tag {}, engine);
    bus->m_introspection_data = adopt(g_dbus_node_info_new_for_xml(introspection_xml, nullptr));
    if (!bus->m_introspection_data)
        return nullptr;
    engine.changes().set_listener([raw = bus.get()] { raw->emit_waiting(); });
    bus->m_interfaces = adopt(interface_array(engine));
    engine.add_state_listener(bus.get(), [raw = bus.get()] { raw->emit_interfaces(); });
    return bus;
}

monitor_bus::~monitor_bus()
{
    m_monitor.remove_state_listener(this);
    m_monitor.changes().set_listener(nullptr);
    if (m_follow_up_id != 0)
        g_source_remove(m_follow_up_id);
    unregister();
}

gboolean monitor_bus::on_follow_up(gpointer self)
{
    auto* bus = static_cast<monitor_bus*>(self);
    bus->m_follow_up_id = 0;
    bus->emit_waiting();
    return G_SOURCE_REMOVE;
}

void monitor_bus::register_on(GDBusConnection* connection, const char* object_path)
{
    unregister();
    m_connection = ref(connection);
    m_object_path = object_path;
    m_registration_id = g_dbus_connection_register_object(connection, object_path,
                                                          m_introspection_data->interfaces[0], &s_interface_table,
                                                          this, nullptr, nullptr);
    if (m_registration_id == 0)
        g_error("Unable to register object on DBus");
}

void monitor_bus::unregister()
{
    if (m_connection && m_registration_id != 0)
        g_dbus_connection_unregister_object(m_connection.get(), m_registration_id);
    m_registration_id = 0;
    m_connection.reset();
}

void monitor_bus::emit_waiting()
{
    node_changes& changes = m_monitor.changes();
    const auto budget = static_cast<std::size_t>(std::max(m_monitor.get_max_hosts(), 1));
    // GDBus queues what it sends, so a client that reads nothing slows
    // nobody down; without a connection there is nobody to tell.
    for (node_change& change : changes.take(m_registration_id != 0 ? budget : changes.waiting())) {
        if (m_registration_id == 0)
            continue;
        static constexpr const char* names[] = {"NodeJoined", "NodeLost", "NodeLeft"};
        const bool* reported = change.kind == node_change::lost ? &change.reported : nullptr;
        g_dbus_connection_emit_signal(m_connection.get(), nullptr, m_object_path.c_str(), interface_name,
                                      names[change.kind],
                                      g_variant_new("(t@a{sv})", change.generation,
                                                    node_dictionary(change.node, reported)),
                                      nullptr);
    }
    // A stopped monitor has no tick to tell the rest: keep its pace here.
    if (changes.waiting() > 0 && !m_monitor.is_running() && m_follow_up_id == 0)
        m_follow_up_id = g_timeout_add_seconds(monitor::process_period_seconds, &monitor_bus::on_follow_up, this);
}

void monitor_bus::emit_interfaces()
{
    g_ptr<GVariant> now = adopt(interface_array(m_monitor));
    if (g_variant_equal(now.get(), m_interfaces.get()))
        return;
    m_interfaces = std::move(now);
    if (m_registration_id == 0)
        return;
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&changed, "{sv}", "Interfaces", m_interfaces.get());
    g_dbus_connection_emit_signal(m_connection.get(), nullptr, m_object_path.c_str(),
                                  "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                  g_variant_new("(sa{sv}as)", interface_name, &changed, nullptr), nullptr);
}

void monitor_bus::method_call(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar* method_name,
                              GVariant*, GDBusMethodInvocation* invocation, gpointer self)
{
    auto* bus = static_cast<monitor_bus*>(self);
    if (g_strcmp0(method_name, "GetNodes") != 0) {
        g_dbus_method_invocation_return_error(invocation, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_METHOD,
                                              "Not implemented: %s", method_name);
        return;
    }
    // Taken together on the main thread: no change comes between the
    // generation and the two lists.
    monitor& engine = bus->m_monitor;
    g_dbus_method_invocation_return_value(invocation,
                                          g_variant_new("(t@aa{sv}@aa{sv})", engine.changes().generation(),
                                                        node_array(engine.get_known_nodes()),
                                                        node_array(engine.get_lost_nodes())));
}

GVariant* monitor_bus::get_property(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                    const gchar* property_name, GError** error, gpointer self)
{
    monitor& engine = static_cast<monitor_bus*>(self)->m_monitor;
    if (g_strcmp0(property_name, "Keyed") == 0)
        return g_variant_new_boolean(engine.is_keyed());
    if (g_strcmp0(property_name, "Interfaces") == 0)
        return interface_array(engine);
    if (g_strcmp0(property_name, "Statistics") == 0) {
        GVariantBuilder builder;
        g_variant_builder_init(&builder, G_VARIANT_TYPE("a{st}"));
        for (const auto& [name, value] : engine.get_statistics())
            g_variant_builder_add(&builder, "{st}", name, static_cast<guint64>(value));
        return g_variant_builder_end(&builder);
    }
    g_set_error(error, G_DBUS_ERROR, G_DBUS_ERROR_UNKNOWN_PROPERTY, "Unrecognized property: %s", property_name);
    return nullptr;
}

} // namespace kw
