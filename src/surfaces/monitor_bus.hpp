#pragma once

#include "platform/g_ptr.hpp"
#include "src/tracking/monitor.hpp"

#include <gio/gio.h>

#include <memory>
#include <string>

namespace kw {

// The service object's second interface: what the monitor tells as it
// happens. Signals for every change of the node tables, each with its
// generation, so that a client subscribes, then fetches the tables with
// GetNodes and drops the signals that are not newer; the counters since the
// start; whether the group is keyed; the interfaces in use, whose changes it
// tells with PropertiesChanged. Nothing on it is writable. Main thread
// only, like the rest of the bus object.
class monitor_bus {
public:
    static constexpr const char* interface_name = "com.tavix.Kinwatch.Monitor1";

    // Listens to the monitor's node changes from now on.
    static std::unique_ptr<monitor_bus> create(monitor& engine);

    monitor_bus(const monitor_bus&) = delete;
    monitor_bus& operator=(const monitor_bus&) = delete;
    // Stops listening and unregisters.
    ~monitor_bus();

    // On each new connection; a failure ends the process, as for the
    // object's first interface.
    void register_on(GDBusConnection* connection, const char* object_path);
    // When the connection or the name goes; changes are then dropped, since
    // a client that comes back fetches the tables anew.
    void unregister();

    // The interface table.
    static void method_call(GDBusConnection* connection, const gchar* sender, const gchar* object_path,
                            const gchar* interface_name, const gchar* method_name, GVariant* parameters,
                            GDBusMethodInvocation* invocation, gpointer self);
    static GVariant* get_property(GDBusConnection* connection, const gchar* sender, const gchar* object_path,
                                  const gchar* interface_name, const gchar* property_name, GError** error,
                                  gpointer self);

    struct private_tag {
        explicit private_tag() = default;
    };
    monitor_bus(private_tag, monitor& engine) : m_monitor(engine) {}

private:
    static const GDBusInterfaceVTable s_interface_table;
    static gboolean on_follow_up(gpointer self);

    // Emits what waits, at most MaxHosts signals at a time: the rest waits
    // for the next tick, so a burst never holds the main loop up for long.
    void emit_waiting();
    // PropertiesChanged when the interfaces in use are not those last told.
    void emit_interfaces();

    monitor& m_monitor;
    g_ptr<GDBusNodeInfo> m_introspection_data;
    g_ptr<GDBusConnection> m_connection;
    std::string m_object_path;
    guint m_registration_id = 0;
    guint m_follow_up_id = 0;
    // What Interfaces last was, told or not.
    g_ptr<GVariant> m_interfaces;
};

} // namespace kw
