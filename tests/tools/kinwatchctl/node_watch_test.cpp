#include "tools/kinwatchctl/node_watch.hpp"

#include <gtest/gtest.h>

namespace kw::ctl {
namespace {

using lines = std::vector<std::string>;

node_entry node(int n, const char* prefix = "10.78.0.")
{
    return {"02:00:00:00:00:0" + std::to_string(n), prefix + std::to_string(n), "fd78::" + std::to_string(n), 1, 2};
}

TEST(node_watch, tells_joins_losses_and_returns_after_the_baseline)
{
    node_watch watch;
    EXPECT_FALSE(watch.has_baseline());
    // What the service knew before the watch began is not news.
    EXPECT_EQ(watch.update({node(2)}, {node(5)}), lines {});
    EXPECT_TRUE(watch.has_baseline());

    EXPECT_EQ(watch.update({node(2)}, {node(5)}), lines {});
    EXPECT_EQ(watch.update({node(3), node(2)}, {node(5)}), lines {"joined 02:00:00:00:00:03 10.78.0.3 fd78::3"});
    // Moved to the lost list: the lost list's addresses are the ones shown.
    EXPECT_EQ(watch.update({node(3)}, {node(2, "10.99.0."), node(5)}),
              lines {"lost 02:00:00:00:00:02 10.99.0.2 fd78::2"});
    EXPECT_EQ(watch.update({node(3)}, {node(2), node(5)}), lines {});
    // Lost before the watch began, or during it: either way it comes back.
    EXPECT_EQ(watch.update({node(2), node(3), node(5)}, {}),
              (lines {"back 02:00:00:00:00:02 10.78.0.2 fd78::2", "back 02:00:00:00:00:05 10.78.0.5 fd78::5"}));
}

TEST(node_watch, a_node_dropped_from_both_lists_is_lost_and_later_back)
{
    node_watch watch;
    watch.update({node(2), node(3)}, {});
    // The service's monitor restarted: both lists are empty.
    EXPECT_EQ(watch.update({}, {}),
              (lines {"lost 02:00:00:00:00:02 10.78.0.2 fd78::2", "lost 02:00:00:00:00:03 10.78.0.3 fd78::3"}));
    EXPECT_EQ(watch.update({}, {}), lines {});
    EXPECT_EQ(watch.update({node(3)}, {}), lines {"back 02:00:00:00:00:03 10.78.0.3 fd78::3"});
}

} // namespace
} // namespace kw::ctl
