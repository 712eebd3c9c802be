#include "platform/event_library.hpp"
#include "platform/g_ptr.hpp"

#include <gtest/gtest.h>

namespace kw {
namespace {

// A producer keeps only its latest 64 sent events, so that a service running
// for months does not grow.
TEST(event_library, a_producer_keeps_only_its_latest_64_sent_events)
{
    g_ptr<event_producer> producer(event_producer_new("Producer"));
    g_ptr<event_declaration> declaration(event_declaration_new(0));
    event_declaration_add_key_value(declaration.get(), "topic0", "Alpha", EVENT_VALUE_TEXT);
    event_declaration_add_key(declaration.get(), "data", EVENT_VALUE_TEXT);
    event_declaration_id id = event_producer_declare(producer.get(), declaration.get());
    declaration.reset();
    for (int i = 0; i < 70; ++i) {
        g_ptr<event> prepared(event_producer_prepare_event(producer.get(), id));
        event_set_value(prepared.get(), "data", std::to_string(i).c_str());
        EXPECT_TRUE(event_producer_send_event(producer.get(), prepared.get(), 0));
    }
    auto sent = event_library_producers().at(0).sent;
    ASSERT_EQ(sent.size(), 64u);
    EXPECT_EQ(sent.front().values, (std::vector<std::pair<std::string, std::string>> {{"data", "6"}}));
    EXPECT_EQ(sent.back().values, (std::vector<std::pair<std::string, std::string>> {{"data", "69"}}));
    producer.reset();
    EXPECT_TRUE(event_library_producers().empty());
}

} // namespace
} // namespace kw
