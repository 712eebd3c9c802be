#pragma once

#include "platform/g_ptr.hpp"

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

namespace kw::test {

// A fresh temporary directory, removed with all in it at scope end.
class temp_dir {
public:
    temp_dir()
    {
        g_ptr<char> made(g_dir_make_tmp("kwt-XXXXXX", nullptr));
        m_path = made ? made.get() : "/nonexistent";
    }
    temp_dir(const temp_dir&) = delete;
    ~temp_dir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    // Writes a file below the directory; its path.
    std::string write(const std::string& name, const std::string& content) const
    {
        std::ofstream(file(name), std::ios::binary | std::ios::trunc) << content;
        return file(name);
    }
    // Nullopt when unreadable.
    std::optional<std::string> read(const std::string& name) const
    {
        std::ifstream in(file(name), std::ios::binary);
        return in ? std::optional(std::string(std::istreambuf_iterator<char>(in), {})) : std::nullopt;
    }

private:
    std::string m_path;
};

} // namespace kw::test
