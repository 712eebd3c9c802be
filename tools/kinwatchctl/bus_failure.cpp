#include "tools/kinwatchctl/bus_failure.hpp"

#include "platform/g_ptr.hpp"

#include <gio/gio.h>

namespace kw::ctl {

namespace {

// The service raises this text under an error code that has no bus error
// name of its own, so the text is what identifies it.
constexpr const char* not_enabled_text = "Kinwatch is not enabled";

} // namespace

bus_failure bus_failure::from(const GError* error)
{
    if (!error)
        return {};
    // No owner for the name, or no bus any more: either way nobody answers.
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) ||
        g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) ||
        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED))
        return not_running();

    // The bus's own refusal names every rule it checked; the operator only
    // needs to know that the policy said no (writes are for root).
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED))
        return bus_failure(kind::refused, "access denied by the bus policy");

    auto copy = adopt(g_error_copy(error));
    g_dbus_error_strip_remote_error(copy.get());
    std::string message = copy->message ? copy->message : "";
    if (message == not_enabled_text)
        return bus_failure(kind::not_enabled, message);
    return bus_failure(kind::refused, message);
}

int bus_failure::report(std::ostream& err, const std::string& operation) const
{
    if (m_kind == kind::none)
        return exit_ok;
    if (m_kind == kind::not_running) {
        err << "kinwatchctl: the kinwatch service is not running on this bus\n";
        return exit_not_running;
    }
    err << "kinwatchctl: cannot " << operation << ": " << m_message << "\n";
    return exit_refused;
}

} // namespace kw::ctl
