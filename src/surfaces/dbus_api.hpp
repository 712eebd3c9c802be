#pragma once

#include "platform/g_ptr.hpp"
#include "src/surfaces/monitor_bus.hpp"
#include "src/tracking/monitor.hpp"

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <vector>

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
// settings of its own. Main thread only: connections are made in the
// background for the main thread, so every callback and handler arrives on
// its main loop.
//
// The service keeps a connection of its own rather than the process's shared
// one, which would end the process when the bus goes away: when the bus
// daemon restarts, the monitor runs on untouched while the connection is made
// again with back-off, and the object and the name follow it.
class dbus_api {
public:
    static constexpr const char* bus_name = "com.tavix.Kinwatch";
    static constexpr const char* object_path = "/com/tavix/Kinwatch";
    static constexpr const char* interface_name = "com.tavix.Kinwatch";

    // Where the service stands on the bus: its name owned, the name held by
    // another process (the request waits in the bus's queue), no bus reached.
    enum class bus_state { owned, name_taken, unreachable };
    // Told at each outcome of a name request or a connection attempt, and at
    // the loss of the bus; the same state may be told again.
    using bus_listener = std::function<void(bus_state)>;

    // Starts connecting to the system bus; the object is registered and the
    // name requested later, from the main loop, once the bus is reached. With
    // enable set, enables the monitor first. nullptr when enabling fails.
    static std::unique_ptr<dbus_api> create(monitor& engine, bool enable, bus_listener listener = nullptr);

    dbus_api(const dbus_api&) = delete;
    dbus_api& operator=(const dbus_api&) = delete;
    // Unregisters the object, gives up the name and drops the connection; a
    // connection still being made is abandoned.
    ~dbus_api();

    // Callbacks of one connection's life: the first is called for each new
    // connection, the others by the name request made on it.
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
    dbus_api(private_tag, monitor& engine, bus_listener listener)
        : m_monitor(engine)
        , m_listener(std::move(listener))
    {
    }

private:
    static const GDBusInterfaceVTable s_interface_table;

    static void on_connected(GObject* source, GAsyncResult* result, gpointer self);
    static void on_closed(GDBusConnection* connection, gboolean remote_peer_vanished, GError* error,
                          gpointer self);
    static gboolean on_retry(gpointer self);

    void connect();
    void connected(g_ptr<GDBusConnection> connection, const GError* error);
    void closed();
    void retry_later();
    void drop_connection();
    void bus_acquired(GDBusConnection* connection);
    void name_lost();
    void handle_method_call(const char* path, const char* interface, const char* method,
                            GDBusMethodInvocation* invocation);
    GVariant* handle_get_property(const char* path, const char* interface, const char* property, GError** error);
    bool handle_set_property(const char* path, const char* interface, const char* property, GVariant* value,
                             GError** error);
    // The documented properties' values, to tell what a write changed.
    std::vector<g_ptr<GVariant>> property_values();
    void emit_properties_changed(const std::vector<g_ptr<GVariant>>& before);
    void tell(bus_state state);

    monitor& m_monitor;
    bus_listener m_listener;
    // The object's second interface, registered on the same connections.
    std::unique_ptr<monitor_bus> m_monitor_bus;
    // The present connection, null while there is none; whatever the object
    // sends goes through it.
    g_ptr<GDBusConnection> m_connection;
    g_ptr<GDBusNodeInfo> m_introspection_data;
    guint m_owner_id = 0;
    guint m_registration_id = 0;
    gulong m_closed_handler_id = 0;
    // Set while a connection is being made.
    g_ptr<GCancellable> m_connecting;
    guint m_retry_id = 0;
    guint m_retry_ms = 0;
    // A warning said the bus was lost (or never reached) and no connection
    // has been made since; the next connection says so once.
    bool m_bus_missing = false;
};

} // namespace kw
