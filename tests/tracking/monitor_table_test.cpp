#include "src/tracking/monitor_table.hpp"
#include "tests/tracking/date_time_ledger.hpp"

#include <gtest/gtest.h>

#include <algorithm>

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
    EXPECT_EQ(table->get_max_size(), 2);
    EXPECT_EQ(events, (std::vector<observed> {{0, MONITOR_TABLE_ADDED, 1}, {0, MONITOR_TABLE_ADDED, 2}}));

    for (std::int32_t max_size : {0, -1}) {
        auto empty = monitor_table::create(max_size);
        tracked record(4);
        EXPECT_FALSE(empty->insert(4, record.record)) << max_size;
        EXPECT_TRUE(record.record);
        EXPECT_EQ(empty->get_size(), 0);
    }
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
    monitor_message_type* stored = nullptr;
    EXPECT_TRUE(table->lookup(1, &stored));
    EXPECT_EQ(stored, new_record.pointer);
    EXPECT_EQ(events, (std::vector<observed> {{0, MONITOR_TABLE_ADDED, 1}, {0, MONITOR_TABLE_REPLACED, 1}}));
}

TEST(monitor_table, remove_steal_lookup_and_destroy)
{
    auto table = monitor_table::create(4);
    std::vector<observed> events;
    table->add_observer(record_event, &events);
    tracked one(1), two(2);
    ASSERT_TRUE(table->insert(1, one.record));
    ASSERT_TRUE(table->insert(2, two.record));
    events.clear();

    table->remove(9);
    EXPECT_TRUE(events.empty());
    EXPECT_FALSE(table->steal(9));
    auto* out = one.pointer;
    EXPECT_FALSE(table->lookup(9, &out));
    EXPECT_EQ(out, nullptr);
    EXPECT_FALSE(table->lookup(9));
    EXPECT_TRUE(table->lookup(2));

    auto stolen = table->steal(1);
    EXPECT_EQ(stolen.get(), one.pointer);
    EXPECT_EQ(one.held_by_record(), 2);
    EXPECT_TRUE(events.empty());

    // The observer reads the record it is told about, so it must still be alive then.
    table->remove(2);
    EXPECT_EQ(events, (std::vector<observed> {{0, MONITOR_TABLE_REMOVED, 2}}));
    EXPECT_EQ(two.held_by_record(), 0);
    EXPECT_EQ(table->get_size(), 0);

    // Destroying the table releases what it still holds, without notifying.
    tracked three(3);
    ASSERT_TRUE(table->insert(3, three.record));
    events.clear();
    table.reset();
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(three.held_by_record(), 0);
}

TEST(monitor_table, observer_ids_count_up_and_removed_observers_hear_nothing)
{
    auto table = monitor_table::create(4);
    std::vector<observed> events;
    EXPECT_EQ(table->add_observer(record_event, &events), 0);
    EXPECT_EQ(table->add_observer(record_event, &events), 1);
    tracked one(1), two(2);
    ASSERT_TRUE(table->insert(1, one.record));
    table->remove_observer(0);
    EXPECT_EQ(table->add_observer(record_event, &events), 2);
    ASSERT_TRUE(table->insert(2, two.record));

    EXPECT_EQ(events, (std::vector<observed> {{0, MONITOR_TABLE_ADDED, 1},
                                              {1, MONITOR_TABLE_ADDED, 1},
                                              {1, MONITOR_TABLE_ADDED, 2},
                                              {2, MONITOR_TABLE_ADDED, 2}}));
}

// Reads the table the observer is registered on from inside the notification.
void count_from_inside(int, monitor_table_event, monitor_message_type& record, void* user_data)
{
    auto* table = static_cast<monitor_table*>(user_data);
    monitor_message_type* found = nullptr;
    bool present = table->lookup(record.get_message().get_node_id(), &found);
    record.set_stale(present && found == &record ? table->get_size() : -1);
}

TEST(monitor_table, callbacks_may_call_back_into_the_table_and_walks_see_every_record)
{
    auto table = monitor_table::create(8);
    table->add_observer(count_from_inside, table.get());
    std::vector<tracked> records;
    for (node_id id = 1; id <= 5; ++id)
        records.emplace_back(id);
    for (auto& r : records)
        ASSERT_TRUE(table->insert(r.pointer->get_message().get_node_id(), r.record));
    EXPECT_EQ(records[0].pointer->is_stale(), 1);
    EXPECT_EQ(records[4].pointer->is_stale(), 5);

    int visited = 0;
    table->foreach([&](monitor_message_type& record) {
        ++visited;
        record.set_stale(record.get_message().get_node_id() % 2 ? 1 : 0);
        EXPECT_TRUE(table->lookup(record.get_message().get_node_id()));
    });
    EXPECT_EQ(visited, 5);

    auto stale = table->filter_ids([&](const monitor_message_type& record) {
        return record.is_stale() && table->get_size() == 5;
    });
    std::sort(stale.begin(), stale.end());
    EXPECT_EQ(stale, (std::vector<node_id> {1, 3, 5}));
}

} // namespace
} // namespace kw
