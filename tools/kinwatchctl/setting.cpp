#include "tools/kinwatchctl/setting.hpp"

#include <array>

namespace kw::ctl {

namespace {

bool equal_ignoring_case(const std::string& text, const char* word)
{
    return g_ascii_strcasecmp(text.c_str(), word) == 0;
}

// Decimal digits only: no sign, no spaces, no base prefix, so "-1" or "0x10"
// is refused here rather than wrapped or reinterpreted.
std::optional<guint64> parse_unsigned(const std::string& text, guint64 max)
{
    if (text.empty() || text.size() > 20)
        return std::nullopt;
    for (char c : text) {
        if (!g_ascii_isdigit(c))
            return std::nullopt;
    }
    guint64 value = 0;
    if (!g_ascii_string_to_unsigned(text.c_str(), 10, 0, max, &value, nullptr))
        return std::nullopt;
    return value;
}

} // namespace

std::optional<setting> setting::find(std::string_view name)
{
    static constexpr std::array<setting, 5> all = {
        setting("enabled", "Enabled", kind::boolean),
        setting("ttl", "TTL", kind::byte),
        setting("group", "Group", kind::uint32),
        setting("ipv4-group", "IPv4MulticastGroup", kind::text),
        setting("ipv6-group", "IPv6MulticastGroup", kind::text),
    };
    for (const auto& candidate : all) {
        if (name == candidate.m_name)
            return candidate;
    }
    return std::nullopt;
}

g_ptr<GVariant> setting::parse(const std::string& text, std::string& error) const
{
    switch (m_type) {
    case kind::boolean:
        for (const char* yes : {"true", "yes", "1", "on"}) {
            if (equal_ignoring_case(text, yes))
                return adopt(g_variant_ref_sink(g_variant_new_boolean(TRUE)));
        }
        for (const char* no : {"false", "no", "0", "off"}) {
            if (equal_ignoring_case(text, no))
                return adopt(g_variant_ref_sink(g_variant_new_boolean(FALSE)));
        }
        error = "expected true, false, yes, no, on, off, 1 or 0";
        return nullptr;
    case kind::byte:
        // 0 fits the property's byte, so it goes to the service, whose own
        // message then tells the operator the accepted range.
        if (auto value = parse_unsigned(text, G_MAXUINT8))
            return adopt(g_variant_ref_sink(g_variant_new_byte(static_cast<guchar>(*value))));
        error = "expected a whole number from 0 to 255";
        return nullptr;
    case kind::uint32:
        if (auto value = parse_unsigned(text, G_MAXUINT32))
            return adopt(g_variant_ref_sink(g_variant_new_uint32(static_cast<guint32>(*value))));
        error = "expected a whole number from 0 to 4294967295";
        return nullptr;
    case kind::text:
        // Whether the text is a multicast group of the right family is the
        // service's decision; a bus string only has to be valid UTF-8.
        if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr))
            return adopt(g_variant_ref_sink(g_variant_new_string(text.c_str())));
        error = "expected UTF-8 text";
        return nullptr;
    }
    return nullptr;
}

} // namespace kw::ctl
