#pragma once

#include <glib.h>

#include <mutex>
#include <string>
#include <vector>

namespace kw::test {

struct log_line {
    std::string domain; // empty when logged without a domain
    bool has_domain = false;
    GLogLevelFlags level = G_LOG_LEVEL_DEBUG;
    std::string message;
};

// Captures every GLib log line (all levels, all threads) for its scope.
// Fatal errors still abort, as they do in the service.
class log_capture {
public:
    log_capture();
    log_capture(const log_capture&) = delete;
    log_capture& operator=(const log_capture&) = delete;
    ~log_capture();

    std::vector<log_line> lines() const;
    // Messages at exactly this level, in order.
    std::vector<std::string> messages(GLogLevelFlags level) const;
    std::vector<std::string> warnings() const { return messages(G_LOG_LEVEL_WARNING); }
    std::vector<std::string> debugs() const { return messages(G_LOG_LEVEL_DEBUG); }
    bool contains(GLogLevelFlags level, const std::string& message) const;
    std::size_t count(GLogLevelFlags level, const std::string& message) const;
    void clear();

private:
    static void on_log(const char* domain, GLogLevelFlags level, const char* message, gpointer self);

    mutable std::mutex m_mutex; // guards m_lines
    std::vector<log_line> m_lines;
    GLogFunc m_previous = nullptr;
    gpointer m_previous_data = nullptr;
};

} // namespace kw::test
