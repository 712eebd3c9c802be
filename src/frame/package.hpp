#pragma once

#include <string>

namespace kw {

// The service's place among the platform's application packages: the top
// directory holding one directory per package, this package's directory and
// the run-state file that the platform writes into it.
class package {
public:
    static constexpr const char* default_top_directory = "/usr/local/packages";

    explicit package(const std::string& top_directory = default_top_directory);

    const std::string& top_directory() const { return m_top_directory; }
    const std::string& package_directory() const { return m_package_directory; }
    const std::string& running_file() const { return m_running_file; }

    // Creates the top directory and its parents (mode 0755); an existing one
    // counts as success. Logs a warning and returns false on failure.
    bool create_top_directory() const;

    // Whether the file can be read and its content begins with "Running".
    // The test is case-sensitive and strips nothing; a failure is not logged.
    static bool file_is_running(const std::string& path);

    bool is_running() const { return file_is_running(m_running_file); }

private:
    std::string m_top_directory;
    std::string m_package_directory;
    std::string m_running_file;
};

} // namespace kw
