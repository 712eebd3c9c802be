#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kw {

// The service's configuration record, bound for its whole life to one key
// file. Setters only mark the record changed; the file is written by save()
// and once more when the record is released after any change.
class settings {
public:
    // Loads the file at path; nullptr (after logging why) when it is missing
    // or not a valid configuration.
    static std::unique_ptr<settings> create(const std::string& path);

    settings(const settings&) = delete;
    settings& operator=(const settings&) = delete;
    // Writes the file first when any setter has succeeded.
    ~settings();

    // Reads all eight keys; the record keeps its previous values when any of
    // them is missing or malformed.
    bool load();
    // Writes exactly the eight keys in their fixed order. Logs nothing.
    bool save();

    std::int32_t get_ttl() const { return m_ttl; }
    bool set_ttl(std::int32_t ttl);

    bool get_enabled() const { return m_enabled; }
    bool set_enabled(bool enabled);

    bool get_ipv4_group(std::string& out);
    bool set_ipv4_group(const std::string& group);

    bool get_ipv6_group(std::string& out);
    bool set_ipv6_group(const std::string& group);

    std::uint16_t get_port() const { return m_port; }
    bool set_port(std::uint16_t port);

    std::uint32_t get_group() const { return m_group; }
    bool set_group(std::uint32_t group);

    // Kept as the file's signed 32-bit integer, so the file may hold values
    // that the setter refuses, and a value of 2^31 or more is stored negative.
    std::int32_t get_max_hosts() const { return m_max_hosts; }
    bool set_max_hosts(std::uint32_t max_hosts);

    bool get_interface(std::string& out);
    bool set_interface(const std::string& interface);

    const std::string& path() const { return m_path; }
    bool changed() const { return m_changed; }
    bool loaded() const { return m_loaded; }

    // Only create() makes records; the tag keeps the constructor its own.
    struct private_tag {
        explicit private_tag() = default;
    };
    settings(private_tag, std::string path);

private:
    bool get_text(std::string settings::*field, std::string& out);

    std::string m_path;
    std::int32_t m_ttl = 0;
    bool m_enabled = false;
    std::string m_ipv4_group;
    std::string m_ipv6_group;
    std::string m_interface;
    std::uint16_t m_port = 0;
    std::int32_t m_max_hosts = 0;
    std::uint32_t m_group = 0;
    bool m_changed = false;
    bool m_loaded = false;
};

} // namespace kw
