#pragma once

#include "platform/g_ptr.hpp"
#include "tests/support/temp_dir.hpp"

#include <gio/gio.h>

#include <optional>
#include <string>

namespace kw::test {

// A private message bus set up like a system bus: a unix socket in a
// temporary directory, EXTERNAL authentication, a policy that denies by
// default, and the service's own bus policy included. While it lives,
// DBUS_SYSTEM_BUS_ADDRESS points at it, so G_BUS_TYPE_SYSTEM reaches it.
// GIO keeps one system bus connection per process, so only one of these
// may live at a time.
class dbus_daemon {
public:
    // The bus policy file of the source tree.
    static std::string default_policy_file();

    explicit dbus_daemon(const std::string& policy_file = default_policy_file());
    dbus_daemon(const dbus_daemon&) = delete;
    dbus_daemon& operator=(const dbus_daemon&) = delete;
    // Closes the process's system bus connection and waits, up to a second,
    // for GIO to let it go; then ends and reaps the daemon and puts the
    // environment back. Iterates the default main context meanwhile.
    ~dbus_daemon();

    bool ok() const { return !m_address.empty() && m_system_bus; }
    const std::string& address() const { return m_address; }

    // The process's shared system bus connection, the one the service's
    // name request uses too. It does not end the process when the bus goes.
    GDBusConnection* system_bus() const { return m_system_bus.get(); }

    // A connection of its own, as another program on the bus would have.
    g_ptr<GDBusConnection> connect() const;

private:
    bool start(const std::string& policy_file);

    temp_dir m_dir;
    g_ptr<GSubprocess> m_process;
    std::string m_address;
    std::optional<std::string> m_saved_address;
    g_ptr<GDBusConnection> m_system_bus;
};

} // namespace kw::test
