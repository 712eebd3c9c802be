#pragma once

#include <glib.h>

#include <array>

namespace kw {

// How often a sibling announces, learnt from the spacing of its ANNOUNCEs,
// and the silence after which a camera started with --announce-period takes
// it for lost.
//
// On the wire a sibling's periodic ANNOUNCEs look like its answers (fast
// join), and an answer taken for a periodic ANNOUNCE would shorten the learnt
// period and lose a sibling that announces less often early. So the learning
// errs on the long side only:
// - an ANNOUNCE within half a second of the node's previous one is a copy
//   (the other family, another interface) and counts for nothing;
// - one heard within two seconds after this camera learnt a node or heard a
//   DISPATCHED may answer that news: it counts for nothing, and the spacing
//   it would have ended or begun is not measured;
// - the period is the longest of the last three spacings measured and never
//   less than a second, so an answer that splits one spacing changes
//   nothing, and a lost ANNOUNCE lengthens it for three rounds;
// - until three spacings are measured, the original design's rule applies.
// The limit is three periods and a quarter, so two ANNOUNCEs lost in a row
// on both families are no loss, and never more than the original rule.
class announce_spacing {
public:
    static constexpr GTimeSpan copy_within_us = 500'000;
    static constexpr GTimeSpan news_echo_us = 2'000'000;
    static constexpr GTimeSpan shortest_period_us = G_TIME_SPAN_SECOND;

    // A new ANNOUNCE of the node at now; it was last heard at previous, and
    // this camera last learnt a node or heard a DISPATCHED at news (all on
    // the monotonic clock).
    void heard(gint64 now_us, gint64 previous_us, gint64 news_us);
    // 0 until three spacings are measured.
    GTimeSpan period_us() const;
    // The silence after which the node is lost, given the original rule.
    GTimeSpan silence_limit_us(GTimeSpan rule_us) const;

private:
    static constexpr unsigned measured_needed = 3;

    gint64 m_reference_us = -1; // the ANNOUNCE that begins the next spacing; -1: none
    std::array<GTimeSpan, measured_needed> m_spacings {};
    unsigned m_measured = 0;
};

} // namespace kw
