#pragma once

#include "platform/g_ptr.hpp"
#include "src/tracking/monitor.hpp"

#include <gio/gio.h>

#include <memory>

namespace kw {

// Codes of the bus error domain. Only GENERIC, DBUS and TTL have bus error
// names of their own; callers see the others under the bus library's name
// for an unregistered code.
enum KinwatchError {
    KINWATCH_ERROR_GENERIC = 0,
    KINWATCH_ERROR_DBUS = 1,
    KINWATCH_ERROR_NOT_ENABLED = 2,
    KINWATCH_ERROR_TTL = 3,
    KINWATCH_ERROR_GROUP = 4,
    KINWATCH_ERROR_ILLEGAL_GROUP = 5,
};

// The error domain of every bus error; registered with the bus library on
// first use.
GQuark kinwatch_error_quark();

// The service's object on the system bus: five settings as properties and
// the two node lists as methods, all mapped onto the monitor. It keeps no
// settings of its own. Main thread only: the name is requested before the
// main loop runs, so every callback and handler arrives on that loop.
class dbus_api {
public:
    static constexpr const char* bus_name = "com.tavix.Kinwatch";
    static constexpr const char* object_path = "/com/tavix/Kinwatch";
    static constexpr const char* interface_name = "com.tavix.Kinwatch";

    // Requests the bus name; the object is registered later, from the main
    // loop, once the bus is reached. With enable set, enables the monitor
    // first. nullptr when no name request could be made or enabling fails.
    static std::unique_ptr<dbus_api> create(monitor& engine, bool enable);

    dbus_api(const dbus_api&) = delete;
    dbus_api& operator=(const dbus_api&) = delete;
    // Unregisters the object, drops the connection, then gives up the name.
    ~dbus_api();

    // Callbacks of the name request.
    static void on_bus_acquired(GDBusConnection* connection, const gchar* name, gpointer self);
    static void on_name_acquired(GDBusConnection* connection, const gchar* name, gpointer self);
    static void on_name_lost(GDBusConnection* connection, const gchar* name, gpointer self);

    // The interface table. The bus library already refuses unknown members
    // and values of the wrong type; these check names again all the same.
    static void method_call(GDBusConnection* connection, const gchar* sender, const gchar* object_path,
                            const gchar* interface_name, const gchar* method_name, GVariant* parameters,
                            GDBusMethodInvocation* invocation, gpointer self);
    static GVariant* get_property(GDBusConnection* connection, const gchar* sender, const gchar* object_path,
                                  const gchar* interface_name, const gchar* property_name, GError** error,
                                  gpointer self);
    static gboolean set_property(GDBusConnection* connection, const gchar* sender, const gchar* object_path,
                                 const gchar* interface_name, const gchar* property_name, GVariant* value,
                                 GError** error, gpointer self);

    struct private_tag {
        explicit private_tag() = default;
    };
    dbus_api(private_tag, monitor& engine) : m_monitor(engine) {}

private:
    static const GDBusInterfaceVTable s_interface_table;

    void bus_acquired(GDBusConnection* connection);
    void name_lost();
    void handle_method_call(const char* path, const char* interface, const char* method,
                            GDBusMethodInvocation* invocation);
    GVariant* handle_get_property(const char* path, const char* interface, const char* property, GError** error);
    bool handle_set_property(const char* path, const char* interface, const char* property, GVariant* value,
                             GError** error);

    monitor& m_monitor;
    g_ptr<GDBusConnection> m_connection;
    g_ptr<GDBusNodeInfo> m_introspection_data;
    guint m_owner_id = 0;
    guint m_registration_id = 0;
};

} // namespace kw
