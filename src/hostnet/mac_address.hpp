#pragma once

#include "src/peer/peer_message.hpp"

#include <optional>
#include <string>

namespace kw {

// Conversions around a node's hardware address: sysfs text, node_id and back.
class mac_address {
public:
    static constexpr const char* default_sysfs_root = "/sys/class/net";

    // The first line of "<root>/<interface>/address", at most 17 characters.
    // Logs "Could not open: <path>" when the file cannot be opened.
    static std::optional<std::string> read(const std::string& interface,
                                           const std::string& sysfs_root = default_sysfs_root);

    // Six colon-separated hexadecimal fields, first field in bits 47..40.
    // A text with fewer than six fields is refused (nullopt), so that a caller
    // treats an interface without a hardware address as an unreadable one.
    static std::optional<node_id> parse(const std::string& text);

    // "%02x:%02x:%02x:%02x:%02x:%02x" of bits 47..0.
    static std::string format(node_id id);
};

} // namespace kw
