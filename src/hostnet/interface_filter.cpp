#include "src/hostnet/interface_filter.hpp"

#include <fnmatch.h>

#include <algorithm>

namespace kw {

namespace {

std::string strip(std::string text)
{
    const char* blanks = " \t";
    text.erase(0, text.find_first_not_of(blanks));
    text.erase(text.find_last_not_of(blanks) + 1);
    return text;
}

} // namespace

std::optional<interface_filter> interface_filter::parse(const std::string& list, std::string& error)
{
    if (strip(list).empty()) {
        error = "an empty list";
        return std::nullopt;
    }
    interface_filter filter;
    for (std::size_t start = 0; start <= list.size();) {
        std::size_t end = std::min(list.find(',', start), list.size());
        std::string pattern = strip(list.substr(start, end - start));
        start = end + 1;
        bool denied = pattern.starts_with('!');
        if (denied)
            pattern = strip(pattern.substr(1));
        if (pattern.empty()) {
            error = (denied ? "\"!\" without a pattern in \"" : "an empty pattern in \"") + list + "\"";
            return std::nullopt;
        }
        (denied ? filter.m_denied : filter.m_allowed).push_back(std::move(pattern));
    }
    return filter;
}

bool interface_filter::admits(const std::string& name) const
{
    auto matches = [&](const std::string& pattern) { return fnmatch(pattern.c_str(), name.c_str(), 0) == 0; };
    return (m_allowed.empty() || std::ranges::any_of(m_allowed, matches)) && std::ranges::none_of(m_denied, matches);
}

} // namespace kw
