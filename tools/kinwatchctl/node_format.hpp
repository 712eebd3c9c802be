#pragma once

#include "platform/g_ptr.hpp"
#include "tools/kinwatchctl/node_entry.hpp"

#include <glib.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kw::ctl {

// Turns node lists into text: an aligned table for people, one JSON object
// per line for scripts. The table's times depend on "now" and the time zone,
// both given at construction so that output is reproducible.
class node_format {
public:
    // now in Unix seconds; a null zone means the local time zone.
    explicit node_format(std::int64_t now, GTimeZone* zone = nullptr);

    // How long ago a Unix time lies before now: "just now", "42 s ago",
    // "3 min ago", "5 h ago", "2 d ago", whole units rounded down.
    std::string age(std::uint64_t then) const;
    // "2026-11-22 12:00:01 (3 min ago)" in the formatter's time zone.
    std::string seen(std::uint64_t then) const;

    // A header and one line per node, columns padded to the widest cell and
    // two spaces apart, no trailing blanks.
    std::string table(const std::vector<node_entry>& nodes) const;

    // {"mac":…,"ipv4":…,"ipv6":…,"first_seen":…,"last_seen":…} without the
    // newline.
    static std::string json_line(const node_entry& node);
    // A JSON string literal, quotes included.
    static std::string json_string(std::string_view text);

private:
    std::int64_t m_now;
    g_ptr<GTimeZone> m_zone;
};

} // namespace kw::ctl
