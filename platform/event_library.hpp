#pragma once

// The platform event library. A producer declares events by their keys (the
// "topicN" keys with fixed values give an event its topic path, the other
// keys carry data), then prepares, fills and sends events of a declaration.
// The library copies everything it is given, so callers free their
// declarations, events and texts as soon as the call returns.
//
// Every sent event is logged as one message-level line. The library also
// keeps its live producers, their declarations and their latest sent events,
// which event_library_producers() hands out as copies for inspection.
//
// All functions accept null pointers and then do nothing (or give 0, null or
// false), in the manner of free().

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kw {

struct event_producer;
struct event_declaration;
struct event;

// Handle of a declared event within its producer; 0 is never given out.
using event_declaration_id = unsigned int;

// Value type codes. Text is the only type this library knows.
inline constexpr int EVENT_VALUE_TEXT = 4;

// Gives null for a null or empty name.
event_producer* event_producer_new(const char* name);
// Withdraws what the producer still has declared.
void event_producer_free(event_producer* producer);

// The flags are kept with the declaration; 0 is an event without state.
event_declaration* event_declaration_new(int flags);
void event_declaration_free(event_declaration* declaration);
// A key with a fixed value, part of every event of the declaration.
void event_declaration_add_key_value(event_declaration* declaration, const char* key, const char* value, int type);
// A data key whose value each event sets.
void event_declaration_add_key(event_declaration* declaration, const char* key, int type);
// Null for a nice name that the key does not have. The key must have been added.
void event_declaration_set_nice_names(event_declaration* declaration, const char* key, const char* key_nice_name,
                                      const char* value_nice_name);
void event_declaration_set_name_space(event_declaration* declaration, const char* key, const char* name_space);
void event_declaration_add_key_tag(event_declaration* declaration, const char* key, const char* tag);

// Handles count up from 1 within a producer; 0 when nothing was declared.
event_declaration_id event_producer_declare(event_producer* producer, const event_declaration* declaration);
void event_producer_undeclare(event_producer* producer, event_declaration_id id);

// Null when the handle names no live declaration of the producer.
event* event_producer_prepare_event(event_producer* producer, event_declaration_id id);
// Only the data keys of the event's declaration take a value; setting a key
// again replaces its value in place.
void event_set_value(event* ev, const char* key, const char* value);
// False when the event is not the producer's or its declaration was withdrawn.
bool event_producer_send_event(event_producer* producer, const event* ev, int flags);
// One debug line describing the event.
void event_print(const event* ev);
void event_free(event* ev);

struct event_key_record {
    std::string key;
    int type = 0;
    std::optional<std::string> value; // fixed value, for a key declared with one
    std::optional<std::string> name_space;
    std::optional<std::string> key_nice_name;
    std::optional<std::string> value_nice_name;
    std::vector<std::string> tags;

    bool operator==(const event_key_record&) const = default;
};

struct event_declaration_record {
    event_declaration_id id = 0;
    int flags = 0;
    std::vector<std::string> topic_path; // fixed values of "topic0", "topic1", ...
    std::vector<event_key_record> keys; // in the order they were added
};

struct sent_event {
    event_declaration_id id = 0;
    int flags = 0;
    std::vector<std::string> topic_path;
    std::vector<std::pair<std::string, std::string>> values; // in the order they were first set
};

struct event_producer_record {
    std::string name;
    std::vector<event_declaration_record> declarations; // live ones, by handle
    std::vector<sent_event> sent; // latest last
};

// The live producers, oldest first.
std::vector<event_producer_record> event_library_producers();

} // namespace kw
