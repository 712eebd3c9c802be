#include "platform/event_library.hpp"
#include "platform/g_ptr.hpp"
#include "tests/support/log_capture.hpp"

#include <gtest/gtest.h>

#include <string>

namespace kw {
namespace {

// A declaration built from texts that are gone by the time it is declared.
g_ptr<event_declaration> declaration_of(const std::string& topic)
{
    g_ptr<event_declaration> declaration(event_declaration_new(0));
    event_declaration_add_key_value(declaration.get(), std::string("topic0").c_str(), topic.c_str(), EVENT_VALUE_TEXT);
    event_declaration_add_key_value(declaration.get(), "topic1", (topic + "Sub").c_str(), EVENT_VALUE_TEXT);
    event_declaration_add_key(declaration.get(), std::string("data").c_str(), EVENT_VALUE_TEXT);
    event_declaration_add_key(declaration.get(), "more", EVENT_VALUE_TEXT);
    return declaration;
}

TEST(event_library, copies_what_it_is_given)
{
    g_ptr<event_producer> producer(event_producer_new(std::string("Producer").c_str()));
    ASSERT_TRUE(producer);
    event_declaration_id first = event_producer_declare(producer.get(), declaration_of("Alpha").get());
    event_declaration_id second = event_producer_declare(producer.get(), declaration_of("Beta").get());
    EXPECT_EQ(first, 1u);
    EXPECT_EQ(second, 2u);

    g_ptr<event> prepared(event_producer_prepare_event(producer.get(), second));
    ASSERT_TRUE(prepared);
    event_set_value(prepared.get(), "more", std::string("m").c_str());
    event_set_value(prepared.get(), "data", std::string("d1").c_str());
    event_set_value(prepared.get(), "data", std::string("d2").c_str());
    EXPECT_TRUE(event_producer_send_event(producer.get(), prepared.get(), 0));
    prepared.reset();

    auto producers = event_library_producers();
    ASSERT_EQ(producers.size(), 1u);
    EXPECT_EQ(producers[0].name, "Producer");
    ASSERT_EQ(producers[0].declarations.size(), 2u);
    EXPECT_EQ(producers[0].declarations[1].topic_path, (std::vector<std::string> {"Beta", "BetaSub"}));
    ASSERT_EQ(producers[0].sent.size(), 1u);
    EXPECT_EQ(producers[0].sent[0].id, second);
    EXPECT_EQ(producers[0].sent[0].values,
              (std::vector<std::pair<std::string, std::string>> {{"more", "m"}, {"data", "d2"}}));
}

TEST(event_library, refuses_what_is_not_declared)
{
    g_ptr<event_producer> producer(event_producer_new("Producer"));
    g_ptr<event_producer> other(event_producer_new("Other"));
    event_declaration_id id = event_producer_declare(producer.get(), declaration_of("Alpha").get());

    test::log_capture log;
    g_ptr<event_declaration> declaration(event_declaration_new(0));
    event_declaration_set_name_space(declaration.get(), "missing", "ns");
    g_ptr<event> prepared(event_producer_prepare_event(producer.get(), id));
    event_set_value(prepared.get(), "topic0", "fixed");
    event_set_value(prepared.get(), "unknown", "x");
    EXPECT_EQ(log.warnings(), (std::vector<std::string> {"event_declaration: no key \"missing\"",
                                                         "event_set_value: \"topic0\" is not a data key of the event",
                                                         "event_set_value: \"unknown\" is not a data key of the event"}));

    EXPECT_FALSE(event_producer_send_event(other.get(), prepared.get(), 0));
    EXPECT_FALSE(event_producer_prepare_event(producer.get(), 0));
    EXPECT_FALSE(event_producer_prepare_event(producer.get(), id + 1));
    event_producer_undeclare(producer.get(), id);
    EXPECT_FALSE(event_producer_prepare_event(producer.get(), id));
    EXPECT_FALSE(event_producer_send_event(producer.get(), prepared.get(), 0));
    EXPECT_TRUE(event_library_producers()[0].sent.empty());

    EXPECT_FALSE(event_producer_new(""));
    other.reset();
    producer.reset();
    EXPECT_TRUE(event_library_producers().empty());
}

} // namespace
} // namespace kw
