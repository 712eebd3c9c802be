#pragma once

#include <glib.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace kw::test {

struct log_line {
    bool has_domain;
    GLogLevelFlags level;
    std::string message;
};

// Captures every GLib log line (all levels, all threads) for its scope; fatal errors still abort.
class log_capture {
public:
    log_capture() : m_previous(g_log_set_default_handler(&log_capture::on_log, this)) {}
    ~log_capture() { g_log_set_default_handler(m_previous, nullptr); }

    std::vector<log_line> lines() const
    {
        std::lock_guard lock(m_mutex);
        return m_lines;
    }
    std::vector<std::string> messages(GLogLevelFlags level) const
    {
        std::vector<std::string> out;
        for (const auto& line : lines())
            if (line.level == level)
                out.push_back(line.message);
        return out;
    }
    std::vector<std::string> warnings() const { return messages(G_LOG_LEVEL_WARNING); }
    std::size_t count(GLogLevelFlags level, const std::string& message) const
    {
        return std::ranges::count(messages(level), message);
    }
    bool contains(GLogLevelFlags level, const std::string& message) const { return count(level, message) > 0; }
    void clear()
    {
        std::lock_guard lock(m_mutex);
        m_lines.clear();
    }

private:
    static void on_log(const char* domain, GLogLevelFlags level, const char* message, gpointer self)
    {
        auto* capture = static_cast<log_capture*>(self);
        std::lock_guard lock(capture->m_mutex);
        capture->m_lines.push_back({domain != nullptr, GLogLevelFlags(level & G_LOG_LEVEL_MASK), message});
    }

    GLogFunc m_previous;
    mutable std::mutex m_mutex; // guards m_lines
    std::vector<log_line> m_lines;
};

} // namespace kw::test
