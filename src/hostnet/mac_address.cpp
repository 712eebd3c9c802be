#include "src/hostnet/mac_address.hpp"

#include "platform/g_ptr.hpp"

#include <cstdio>
#include <memory>

namespace kw {

namespace {

struct file_closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

} // namespace

std::optional<std::string> mac_address::read(const std::string& interface, const std::string& sysfs_root)
{
    std::string path = sysfs_root + "/" + interface + "/address";
    std::unique_ptr<std::FILE, file_closer> file(std::fopen(path.c_str(), "r"));
    if (!file) {
        g_warning("Could not open: %s", path.c_str());
        return std::nullopt;
    }

    // 18 bytes: the 17 characters of an address and the terminator, so the
    // kernel's newline stays out of a normal address and a longer one is cut.
    char buffer[18] = {};
    if (std::fgets(buffer, sizeof buffer, file.get()) == nullptr || buffer[0] == '\0')
        return std::nullopt;
    return std::string(buffer);
}

std::optional<node_id> mac_address::parse(const std::string& text)
{
    g_ptr<char*> fields(g_strsplit(text.c_str(), ":", -1));
    if (g_strv_length(fields.get()) < 6)
        return std::nullopt;

    node_id id = 0;
    for (int i = 0; i < 6; ++i)
        id |= static_cast<node_id>(g_ascii_strtoull(fields.get()[i], nullptr, 16)) << (40 - 8 * i);
    return id;
}

std::string mac_address::format(node_id id)
{
    g_ptr<char> text(g_strdup_printf("%02x:%02x:%02x:%02x:%02x:%02x", static_cast<unsigned>((id >> 40) & 0xff),
                                     static_cast<unsigned>((id >> 32) & 0xff),
                                     static_cast<unsigned>((id >> 24) & 0xff),
                                     static_cast<unsigned>((id >> 16) & 0xff),
                                     static_cast<unsigned>((id >> 8) & 0xff), static_cast<unsigned>(id & 0xff)));
    return text.get();
}

} // namespace kw
