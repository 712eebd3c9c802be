#pragma once

#include "platform/g_ptr.hpp"
#include "tests/support/temp_dir.hpp"

#include <gio/gio.h>

#include <string>

namespace kw::test {

// A private message bus set up like a system bus (unix socket in a temporary
// directory, EXTERNAL authentication, deny by default) with the service's
// own bus policy included. While it lives, DBUS_SYSTEM_BUS_ADDRESS points at
// it, so G_BUS_TYPE_SYSTEM reaches it. GIO keeps one system bus connection
// per process, so only one of these may live at a time.
class dbus_daemon {
public:
    dbus_daemon();
    dbus_daemon(const dbus_daemon&) = delete;
    dbus_daemon& operator=(const dbus_daemon&) = delete;
    // Iterates the default main context while GIO lets the system bus go.
    ~dbus_daemon();

    bool ok() const { return m_system_bus != nullptr; }
    const std::string& address() const { return m_address; }
    // A connection of its own, as another program on the bus would have.
    g_ptr<GDBusConnection> connect() const;

private:
    bool start();

    temp_dir m_dir;
    g_ptr<GSubprocess> m_process;
    std::string m_address;
    // The process's shared connection, set not to end the process with the bus.
    g_ptr<GDBusConnection> m_system_bus;
};

} // namespace kw::test
