#include "tests/support/log_capture.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace kw::test {

log_capture::log_capture()
{
    m_previous = g_log_set_default_handler(&log_capture::on_log, this);
}

log_capture::~log_capture()
{
    g_log_set_default_handler(m_previous, m_previous_data);
}

void log_capture::on_log(const char* domain, GLogLevelFlags level, const char* message, gpointer self)
{
    auto* capture = static_cast<log_capture*>(self);
    log_line line;
    line.has_domain = domain != nullptr;
    line.domain = domain ? domain : "";
    line.level = static_cast<GLogLevelFlags>(level & G_LOG_LEVEL_MASK);
    line.message = message ? message : "";
    if (std::getenv("KW_TEST_LOG"))
        std::fprintf(stderr, "[log %d] %s\n", static_cast<int>(line.level), line.message.c_str());
    std::lock_guard lock(capture->m_mutex);
    capture->m_lines.push_back(std::move(line));
}

std::vector<log_line> log_capture::lines() const
{
    std::lock_guard lock(m_mutex);
    return m_lines;
}

std::vector<std::string> log_capture::messages(GLogLevelFlags level) const
{
    std::vector<std::string> out;
    std::lock_guard lock(m_mutex);
    for (const auto& line : m_lines)
        if (line.level == level)
            out.push_back(line.message);
    return out;
}

bool log_capture::contains(GLogLevelFlags level, const std::string& message) const
{
    return count(level, message) > 0;
}

std::size_t log_capture::count(GLogLevelFlags level, const std::string& message) const
{
    std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(std::count_if(m_lines.begin(), m_lines.end(), [&](const log_line& line) {
        return line.level == level && line.message == message;
    }));
}

void log_capture::clear()
{
    std::lock_guard lock(m_mutex);
    m_lines.clear();
}

} // namespace kw::test
