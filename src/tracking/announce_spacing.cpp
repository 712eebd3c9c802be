#include "src/tracking/announce_spacing.hpp"

#include <algorithm>

namespace kw {

void announce_spacing::heard(gint64 now_us, gint64 previous_us, gint64 news_us)
{
    if (now_us - previous_us < copy_within_us)
        return;
    if (now_us - news_us <= news_echo_us) {
        m_reference_us = -1;
        return;
    }
    if (m_reference_us >= 0)
        m_spacings[m_measured++ % measured_needed] = now_us - m_reference_us;
    m_reference_us = now_us;
}

GTimeSpan announce_spacing::period_us() const
{
    if (m_measured < measured_needed)
        return 0;
    return std::max(shortest_period_us, *std::ranges::max_element(m_spacings));
}

GTimeSpan announce_spacing::silence_limit_us(GTimeSpan rule_us) const
{
    GTimeSpan period = period_us();
    return period ? std::min(rule_us, 3 * period + period / 4) : rule_us;
}

} // namespace kw
