#include "src/tracking/monitor_table.hpp"
#include "tests/tracking/date_time_ledger.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

// A record whose date-time the test also holds, so the number of references
// the record still holds can be read at any time: 2 while it lives, 0 after.
struct tracked {
    g_ptr<GDateTime> mine;
    std::unique_ptr<monitor_message_type> record;
    monitor_message_type* pointer = nullptr;

    explicit tracked(node_id id)
        : mine(test::counted(g_date_time_new_now_local()))
    {
        GDateTime* time = mine.get();
        record = monitor_message_type::create(peer_message::announce_new(id, 7, in_addr {}, in6_addr {}),
                                              [time] { return ref(time); });
        pointer = record.get();
    }
    int held_by_record() const { return test::references(mine.get()) - 1; }
};

struct observed {
    int observer;
    monitor_table_event event;
    node_id id;
    bool operator==(const observed&) const = default;
};

void record_event(int observer, monitor_table_event event, monitor_message_type& record, void* user_data)
{
    static_cast<std::vector<observed>*>(user_data)->push_back({observer, event, record.get_message().get_node_id()});
}

TEST(monitor_table, a_full_table_refuses_every_insertion_and_the_caller_keeps_the_record)
{
    auto table = monitor_table::create(2);
    std::vector<observed> events;
    table->add_observer(record_event, &events);
    tracked one(1), two(2), three(3), again(1);
    EXPECT_TRUE(table->insert(1, one.record));
    EXPECT_TRUE(table->insert(2, two.record));
    EXPECT_FALSE(one.record);

    EXPECT_FALSE(table->insert(3, three.record));
    EXPECT_FALSE(table->insert(1, again.record));
    EXPECT_EQ(three.record.get(), three.pointer);
    EXPECT_EQ(again.record.get(), again.pointer);
    EXPECT_EQ(table->get_size(), 2);
    EXPECT_EQ(events, (std::vector<observed> {{0, MONITOR_TABLE_ADDED, 1}, {0, MONITOR_TABLE_ADDED, 2}}));
}

TEST(monitor_table, replacing_destroys_the_previous_record_once)
{
    auto table = monitor_table::create(2);
    std::vector<observed> events;
    table->add_observer(record_event, &events);
    tracked old_record(1), new_record(1);
    ASSERT_TRUE(table->insert(1, old_record.record));
    ASSERT_TRUE(table->insert(1, new_record.record));

    EXPECT_EQ(table->get_size(), 1);
    EXPECT_EQ(old_record.held_by_record(), 0);
    EXPECT_EQ(new_record.held_by_record(), 2);
    EXPECT_EQ(events, (std::vector<observed> {{0, MONITOR_TABLE_ADDED, 1}, {0, MONITOR_TABLE_REPLACED, 1}}));
}

TEST(monitor_table, removal_notifies_only_for_a_present_record_and_destruction_never)
{
    auto table = monitor_table::create(4);
    std::vector<observed> events;
    EXPECT_EQ(table->add_observer(record_event, &events), 0);
    EXPECT_EQ(table->add_observer(record_event, &events), 1);
    tracked one(1), two(2);
    ASSERT_TRUE(table->insert(1, one.record));
    ASSERT_TRUE(table->insert(2, two.record));
    events.clear();

    table->remove(9);
    EXPECT_TRUE(events.empty());
    // The observer reads the record it is told about, so it must still be alive then.
    table->remove(2);
    EXPECT_EQ(events, (std::vector<observed> {{0, MONITOR_TABLE_REMOVED, 2}, {1, MONITOR_TABLE_REMOVED, 2}}));
    EXPECT_EQ(two.held_by_record(), 0);

    events.clear();
    table.reset();
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(one.held_by_record(), 0);
}

} // namespace
} // namespace kw
