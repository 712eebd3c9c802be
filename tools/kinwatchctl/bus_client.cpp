#include "tools/kinwatchctl/bus_client.hpp"

namespace kw::ctl {

std::unique_ptr<bus_client> bus_client::create(const std::string& address, bus_failure& failure)
{
    error_out error;
    g_ptr<GDBusConnection> connection;
    if (address.empty()) {
        connection = adopt(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, error.out()));
    } else {
        connection = adopt(g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, error.out()));
    }
    if (!connection) {
        // An unreachable bus reads to the operator the same as an absent
        // service: there is nothing to talk to.
        failure = bus_failure::not_running();
        return nullptr;
    }
    // The shared system-bus connection would otherwise end the process when
    // the bus goes away; the watch loop wants to say so itself.
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    return std::make_unique<bus_client>(private_tag {}, std::move(connection));
}

g_ptr<GVariant> bus_client::call(const char* interface, const char* method, GVariant* parameters,
                                 const GVariantType* reply_type, bus_failure& failure)
{
    error_out error;
    auto reply = adopt(g_dbus_connection_call_sync(m_connection.get(), bus_name, object_path, interface, method,
                                                   parameters, reply_type, G_DBUS_CALL_FLAGS_NO_AUTO_START, -1,
                                                   nullptr, error.out()));
    if (!reply)
        failure = bus_failure::from(error.get());
    return reply;
}

g_ptr<GVariant> bus_client::get(const char* property, bus_failure& failure, const char* interface)
{
    auto reply = call("org.freedesktop.DBus.Properties", "Get", g_variant_new("(ss)", interface, property),
                      G_VARIANT_TYPE("(v)"), failure);
    if (!reply)
        return nullptr;
    GVariant* value = nullptr;
    g_variant_get(reply.get(), "(v)", &value);
    return adopt(value);
}

bool bus_client::set(const char* property, GVariant* value, bus_failure& failure)
{
    return call("org.freedesktop.DBus.Properties", "Set",
                g_variant_new("(ssv)", interface_name, property, value), G_VARIANT_TYPE_UNIT, failure) != nullptr;
}

std::optional<std::vector<node_entry>> bus_client::nodes(node_list which, bus_failure& failure)
{
    auto reply = call(interface_name, which == node_list::known ? "GetKnownNodes" : "GetLostNodes", nullptr,
                      G_VARIANT_TYPE("(a(ssstt))"), failure);
    if (!reply)
        return std::nullopt;
    return node_entry::list_from(reply.get());
}

void bus_client::monitor_nodes_begin(GCancellable* cancellable, GAsyncReadyCallback callback, gpointer user_data)
{
    g_dbus_connection_call(m_connection.get(), bus_name, object_path, monitor_interface_name, "GetNodes", nullptr,
                           G_VARIANT_TYPE("(taa{sv}aa{sv})"), G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, cancellable,
                           callback, user_data);
}

std::optional<bus_client::snapshot> bus_client::monitor_nodes_finish(GAsyncResult* result, bus_failure& failure)
{
    error_out error;
    auto reply = adopt(g_dbus_connection_call_finish(m_connection.get(), result, error.out()));
    if (!reply) {
        failure = bus_failure::from(error.get());
        return std::nullopt;
    }
    snapshot taken;
    g_variant_get_child(reply.get(), 0, "t", &taken.generation);
    for (auto [index, list] : {std::pair {1, &taken.known}, {2, &taken.lost}}) {
        auto array = adopt(g_variant_get_child_value(reply.get(), index));
        *list = node_entry::list_from_dictionaries(array.get());
    }
    return taken;
}

bool bus_client::closed() const
{
    return g_dbus_connection_is_closed(m_connection.get());
}

} // namespace kw::ctl
