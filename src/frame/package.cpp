#include "src/frame/package.hpp"

#include "platform/g_ptr.hpp"

#include <cerrno>

namespace kw {

package::package(const std::string& top_directory)
    : m_top_directory(top_directory)
    , m_package_directory(top_directory + "/kinwatch")
    , m_running_file(m_package_directory + "/is_running")
{
}

bool package::create_top_directory() const
{
    if (g_mkdir_with_parents(m_top_directory.c_str(), 0755) != 0) {
        int error = errno;
        g_warning("Failed to create Ombrix top directory: %s", g_strerror(error));
        return false;
    }
    return true;
}

bool package::file_is_running(const std::string& path)
{
    char* raw = nullptr;
    if (!g_file_get_contents(path.c_str(), &raw, nullptr, nullptr))
        return false;
    g_ptr<char> content(raw);
    return g_str_has_prefix(content.get(), "Running");
}

} // namespace kw
