#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kw {

// Which network interfaces the monitor may use (the -I option): a
// comma-separated list of shell patterns. A name is admitted when it matches
// a pattern without "!" (or when the list has none) and matches no pattern
// that starts with "!". Without a list every name is admitted.
class interface_filter {
public:
    // Admits every name.
    interface_filter() = default;

    // nullopt, with a reason in error, for an empty list, an empty pattern or
    // a "!" with no pattern after it. Blanks around a pattern are dropped: an
    // interface name cannot hold one.
    static std::optional<interface_filter> parse(const std::string& list, std::string& error);

    bool admits(const std::string& name) const;

private:
    std::vector<std::string> m_allowed;
    std::vector<std::string> m_denied;
};

} // namespace kw
