#pragma once

#include "platform/g_ptr.hpp"

#include <glib.h>

#include <optional>
#include <string>
#include <string_view>

namespace kw::ctl {

// One of the service's five writable settings as the operator names it on
// the command line ("ttl"), with the bus property behind it ("TTL") and the
// rule that turns the operator's text into the property's value.
class setting {
public:
    // nullopt for a name that is not one of the five.
    static std::optional<setting> find(std::string_view name);

    const char* name() const { return m_name; }
    const char* property() const { return m_property; }

    // The value for the bus, or nullptr with a one-line reason in error.
    g_ptr<GVariant> parse(const std::string& text, std::string& error) const;

private:
    enum class kind { boolean, byte, uint32, text };

    constexpr setting(const char* name, const char* property, kind type)
        : m_name(name), m_property(property), m_type(type)
    {
    }

    const char* m_name;
    const char* m_property;
    kind m_type;
};

} // namespace kw::ctl
