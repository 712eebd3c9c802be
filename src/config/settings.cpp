#include "src/config/settings.hpp"

#include "platform/g_ptr.hpp"

namespace kw {

namespace {

constexpr const char* GROUP = "Settings";

// Each reader stores the error of the first key that fails and then reads
// nothing more, so the message names that key.
class key_reader {
public:
    explicit key_reader(GKeyFile* file) : m_file(file) {}

    std::int32_t integer(const char* key)
    {
        if (m_error)
            return 0;
        return g_key_file_get_integer(m_file, GROUP, key, m_error.out());
    }
    bool boolean(const char* key)
    {
        if (m_error)
            return false;
        return g_key_file_get_boolean(m_file, GROUP, key, m_error.out());
    }
    std::string text(const char* key)
    {
        if (m_error)
            return {};
        return take_string(g_key_file_get_string(m_file, GROUP, key, m_error.out()));
    }

    const error_out& error() const { return m_error; }

private:
    GKeyFile* m_file;
    error_out m_error;
};

} // namespace

settings::settings(private_tag, std::string path) : m_path(std::move(path)) {}

std::unique_ptr<settings> settings::create(const std::string& path)
{
    auto record = std::make_unique<settings>(private_tag {}, path);
    if (!record->load()) {
        g_warning("No such file or file is not a valid configuration");
        return nullptr;
    }
    return record;
}

settings::~settings()
{
    if (m_changed && !save())
        g_warning("Failed to save configuration to file");
}

bool settings::load()
{
    auto file = adopt(g_key_file_new());
    error_out error;
    if (!g_key_file_load_from_file(file.get(), m_path.c_str(), G_KEY_FILE_NONE, error.out())) {
        g_warning("Failure: %s", error.message());
        return false;
    }

    // The read order is fixed; a failure names the first failing key.
    key_reader read(file.get());
    std::int32_t ttl = read.integer("TTL");
    bool enabled = read.boolean("Enabled");
    std::string ipv4_group = read.text("MulticastGroupIPv4");
    std::string ipv6_group = read.text("MulticastGroupIPv6");
    std::int32_t port = read.integer("MulticastPort");
    std::string interface = read.text("Interface");
    std::int32_t group = read.integer("KinwatchGroup");
    std::int32_t max_hosts = read.integer("MaxHosts");
    if (read.error()) {
        g_warning("Failure: %s", read.error().message());
        return false;
    }

    m_ttl = ttl;
    m_enabled = enabled;
    m_ipv4_group = std::move(ipv4_group);
    m_ipv6_group = std::move(ipv6_group);
    // The port keeps the low 16 bits, so 70000 becomes 4464 and -1 becomes 65535.
    m_port = static_cast<std::uint16_t>(port);
    m_interface = std::move(interface);
    m_group = static_cast<std::uint32_t>(group);
    m_max_hosts = max_hosts;
    m_loaded = true;
    return true;
}

bool settings::save()
{
    auto file = adopt(g_key_file_new());
    g_key_file_set_integer(file.get(), GROUP, "TTL", m_ttl);
    g_key_file_set_boolean(file.get(), GROUP, "Enabled", m_enabled);
    g_key_file_set_string(file.get(), GROUP, "MulticastGroupIPv4", m_ipv4_group.c_str());
    g_key_file_set_string(file.get(), GROUP, "MulticastGroupIPv6", m_ipv6_group.c_str());
    g_key_file_set_integer(file.get(), GROUP, "MulticastPort", m_port);
    g_key_file_set_string(file.get(), GROUP, "Interface", m_interface.c_str());
    // Written as a signed 32-bit value: a group of 2^31 or more appears as a
    // negative number and reads back as the same 32 bits.
    g_key_file_set_integer(file.get(), GROUP, "KinwatchGroup", static_cast<std::int32_t>(m_group));
    g_key_file_set_integer(file.get(), GROUP, "MaxHosts", m_max_hosts);

    gsize length = 0;
    error_out error;
    g_ptr<char> text(g_key_file_to_data(file.get(), &length, error.out()));
    if (error)
        return false;
    // The whole-file write goes through a temporary file that replaces the
    // target, so a crash never leaves a half-written configuration.
    return g_file_set_contents(m_path.c_str(), text.get(), static_cast<gssize>(length), error.out());
}

bool settings::set_ttl(std::int32_t ttl)
{
    if (ttl <= 0 || ttl >= 256) {
        g_warning("TTL must be in the range 0 < ttl < 256");
        return false;
    }
    m_ttl = ttl;
    m_changed = true;
    return true;
}

bool settings::set_enabled(bool enabled)
{
    m_enabled = enabled;
    m_changed = true;
    return true;
}

bool settings::get_text(std::string settings::*field, std::string& out)
{
    if (!m_loaded && !load())
        return false;
    out = this->*field;
    return true;
}

bool settings::get_ipv4_group(std::string& out)
{
    return get_text(&settings::m_ipv4_group, out);
}

bool settings::set_ipv4_group(const std::string& group)
{
    m_ipv4_group = group;
    m_changed = true;
    return true;
}

bool settings::get_ipv6_group(std::string& out)
{
    return get_text(&settings::m_ipv6_group, out);
}

bool settings::set_ipv6_group(const std::string& group)
{
    m_ipv6_group = group;
    m_changed = true;
    return true;
}

bool settings::set_port(std::uint16_t port)
{
    if (port == 0) {
        g_warning("Port number must be greater than zero");
        return false;
    }
    m_port = port;
    m_changed = true;
    return true;
}

bool settings::set_group(std::uint32_t group)
{
    m_group = group;
    m_changed = true;
    return true;
}

bool settings::set_max_hosts(std::uint32_t max_hosts)
{
    if (max_hosts == 0) {
        g_warning("The maximum number of hosts must be larger than 0");
        return false;
    }
    m_max_hosts = static_cast<std::int32_t>(max_hosts);
    m_changed = true;
    return true;
}

bool settings::get_interface(std::string& out)
{
    return get_text(&settings::m_interface, out);
}

bool settings::set_interface(const std::string& interface)
{
    m_interface = interface;
    m_changed = true;
    return true;
}

} // namespace kw
