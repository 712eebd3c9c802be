#include "tools/kinwatchctl/node_format.hpp"

#include <algorithm>
#include <array>
#include <cstdio>

namespace kw::ctl {

namespace {

std::size_t width_of(const std::string& text)
{
    return static_cast<std::size_t>(g_utf8_strlen(text.c_str(), static_cast<gssize>(text.size())));
}

} // namespace

node_format::node_format(std::int64_t now, GTimeZone* zone)
    : m_now(now), m_zone(adopt(zone ? g_time_zone_ref(zone) : g_time_zone_new_local()))
{
}

std::string node_format::age(std::uint64_t then) const
{
    if (then > static_cast<std::uint64_t>(G_MAXINT64))
        return "in the future";
    std::int64_t seconds = m_now - static_cast<std::int64_t>(then);
    if (seconds < 0)
        return "in the future";
    if (seconds == 0)
        return "just now";
    struct unit {
        std::int64_t size;
        const char* name;
    };
    static constexpr std::array<unit, 3> units = {{{86400, "d"}, {3600, "h"}, {60, "min"}}};
    for (const auto& u : units) {
        if (seconds >= u.size)
            return std::to_string(seconds / u.size) + " " + u.name + " ago";
    }
    return std::to_string(seconds) + " s ago";
}

std::string node_format::seen(std::uint64_t then) const
{
    std::string when = "?";
    if (then <= static_cast<std::uint64_t>(G_MAXINT64)) {
        auto utc = adopt(g_date_time_new_from_unix_utc(static_cast<gint64>(then)));
        auto local = adopt(utc ? g_date_time_to_timezone(utc.get(), m_zone.get()) : nullptr);
        if (local)
            when = take_string(g_date_time_format(local.get(), "%Y-%m-%d %H:%M:%S"));
    }
    return when + " (" + age(then) + ")";
}

std::string node_format::table(const std::vector<node_entry>& nodes) const
{
    using row = std::array<std::string, 5>;
    std::vector<row> rows;
    rows.push_back({"HARDWARE ADDRESS", "IPV4", "IPV6", "FIRST SEEN", "LAST SEEN"});
    for (const auto& node : nodes)
        rows.push_back({node.mac, node.ipv4, node.ipv6, seen(node.first_seen), seen(node.last_seen)});

    std::array<std::size_t, 5> widths {};
    for (const auto& r : rows) {
        for (std::size_t column = 0; column < r.size(); ++column)
            widths[column] = std::max(widths[column], width_of(r[column]));
    }

    std::string text;
    for (const auto& r : rows) {
        for (std::size_t column = 0; column < r.size(); ++column) {
            text += r[column];
            if (column + 1 < r.size())
                text.append(widths[column] - width_of(r[column]) + 2, ' ');
        }
        text += '\n';
    }
    return text;
}

std::string node_format::json_string(std::string_view text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\b':
            out += "\\b";
            break;
        case '\f':
            out += "\\f";
            break;
        default:
            if (c < 0x20) {
                char escaped[8];
                std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                out += escaped;
            } else {
                // Bus strings are valid UTF-8, which JSON takes as it is.
                out += static_cast<char>(c);
            }
        }
    }
    out += '"';
    return out;
}

std::string node_format::json_line(const node_entry& node)
{
    return "{\"mac\":" + json_string(node.mac) + ",\"ipv4\":" + json_string(node.ipv4) +
           ",\"ipv6\":" + json_string(node.ipv6) + ",\"first_seen\":" + std::to_string(node.first_seen) +
           ",\"last_seen\":" + std::to_string(node.last_seen) + "}";
}

} // namespace kw::ctl
