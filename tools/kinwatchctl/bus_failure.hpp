#pragma once

#include <glib.h>

#include <ostream>
#include <string>

namespace kw::ctl {

// The tool's exit statuses.
enum exit_status {
    exit_ok = 0,
    exit_refused = 1,
    exit_usage = 2,
    exit_not_running = 3,
};

// Why a call to the service did not succeed, reduced to what the operator
// needs: the service is absent, it is not enabled, or it refused with a
// message of its own.
class bus_failure {
public:
    enum class kind { none, not_running, not_enabled, refused };

    bus_failure() = default;
    // Classifies a GIO error, with the bus error name stripped from its text.
    static bus_failure from(const GError* error);
    static bus_failure not_running() { return bus_failure(kind::not_running, {}); }

    kind what() const { return m_kind; }
    const std::string& message() const { return m_message; }

    // Writes one line about the failed operation ("cannot set ttl: TTL must
    // be in the range [1..255]") and gives the matching exit status.
    int report(std::ostream& err, const std::string& operation) const;

private:
    bus_failure(kind what, std::string message) : m_kind(what), m_message(std::move(message)) {}

    kind m_kind = kind::none;
    std::string m_message;
};

} // namespace kw::ctl
