#include "platform/event_library.hpp"

#include <glib.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

namespace kw {

struct event_declaration {
    int flags = 0;
    std::vector<event_key_record> keys;
};

struct event_producer {
    std::uint64_t serial = 0;
    std::string name;
    event_declaration_id next_id = 1;
    std::vector<event_declaration_record> declarations;
    std::deque<sent_event> sent;
};

struct event {
    std::uint64_t producer_serial = 0;
    std::string producer_name;
    event_declaration_id id = 0;
    std::vector<std::string> topic_path;
    std::vector<std::string> data_keys;
    std::vector<std::pair<std::string, std::string>> values;
};

namespace {

// Only the latest sent events of a producer are kept, so that a service that
// runs for months does not grow.
constexpr std::size_t kept_sent_events = 64;

struct library_state {
    std::mutex mutex; // guards producers, next_serial and the contents of every live producer
    std::vector<event_producer*> producers;
    std::uint64_t next_serial = 1;
};

library_state& state()
{
    static library_state instance;
    return instance;
}

event_key_record* find_key(std::vector<event_key_record>& keys, const char* key)
{
    auto found = std::find_if(keys.begin(), keys.end(), [&](const event_key_record& k) { return k.key == key; });
    return found == keys.end() ? nullptr : &*found;
}

const event_key_record* find_key(const std::vector<event_key_record>& keys, const std::string& key)
{
    auto found = std::find_if(keys.begin(), keys.end(), [&](const event_key_record& k) { return k.key == key; });
    return found == keys.end() ? nullptr : &*found;
}

// Adds the key, or changes its type and fixed value when it is there already.
void add_key(event_declaration* declaration, const char* key, const char* value, int type)
{
    if (!declaration || !key)
        return;
    event_key_record* record = find_key(declaration->keys, key);
    if (!record) {
        declaration->keys.push_back(event_key_record {.key = key});
        record = &declaration->keys.back();
    }
    record->type = type;
    record->value = value ? std::optional<std::string>(value) : std::nullopt;
}

// The key to describe further; an unknown key is the caller's mistake.
event_key_record* key_to_describe(event_declaration* declaration, const char* key)
{
    if (!declaration || !key)
        return nullptr;
    event_key_record* record = find_key(declaration->keys, key);
    if (!record)
        g_warning("event_declaration: no key \"%s\"", key);
    return record;
}

std::optional<std::string> optional_text(const char* text)
{
    return text ? std::optional<std::string>(text) : std::nullopt;
}

std::vector<std::string> topic_path_of(const std::vector<event_key_record>& keys)
{
    std::vector<std::string> path;
    for (int level = 0;; ++level) {
        const event_key_record* key = find_key(keys, "topic" + std::to_string(level));
        if (!key || !key->value)
            return path;
        path.push_back(*key->value);
    }
}

std::string join_path(const std::vector<std::string>& path)
{
    std::string joined;
    for (const auto& level : path)
        joined += (joined.empty() ? "" : "/") + level;
    return joined;
}

std::string join_values(const std::vector<std::pair<std::string, std::string>>& values)
{
    std::string joined;
    for (const auto& [key, value] : values)
        joined += " " + key + "=" + value;
    return joined;
}

event_declaration_record* find_declaration(event_producer* producer, event_declaration_id id)
{
    auto& declarations = producer->declarations;
    auto found = std::find_if(declarations.begin(), declarations.end(),
                              [&](const event_declaration_record& d) { return d.id == id; });
    return found == declarations.end() ? nullptr : &*found;
}

} // namespace

event_producer* event_producer_new(const char* name)
{
    if (!name || !*name)
        return nullptr;
    auto producer = std::make_unique<event_producer>();
    producer->name = name;
    auto& library = state();
    std::lock_guard lock(library.mutex);
    producer->serial = library.next_serial++;
    library.producers.push_back(producer.get());
    return producer.release();
}

void event_producer_free(event_producer* producer)
{
    if (!producer)
        return;
    std::unique_ptr<event_producer> owned(producer);
    std::size_t declared = 0;
    {
        auto& library = state();
        std::lock_guard lock(library.mutex);
        std::erase(library.producers, producer);
        declared = producer->declarations.size();
    }
    g_debug("event producer %s: freed with %zu declarations", producer->name.c_str(), declared);
}

event_declaration* event_declaration_new(int flags)
{
    auto declaration = std::make_unique<event_declaration>();
    declaration->flags = flags;
    return declaration.release();
}

void event_declaration_free(event_declaration* declaration)
{
    std::unique_ptr<event_declaration> owned(declaration);
}

void event_declaration_add_key_value(event_declaration* declaration, const char* key, const char* value, int type)
{
    add_key(declaration, key, value ? value : "", type);
}

void event_declaration_add_key(event_declaration* declaration, const char* key, int type)
{
    add_key(declaration, key, nullptr, type);
}

void event_declaration_set_nice_names(event_declaration* declaration, const char* key, const char* key_nice_name,
                                      const char* value_nice_name)
{
    if (event_key_record* record = key_to_describe(declaration, key)) {
        record->key_nice_name = optional_text(key_nice_name);
        record->value_nice_name = optional_text(value_nice_name);
    }
}

void event_declaration_set_name_space(event_declaration* declaration, const char* key, const char* name_space)
{
    if (event_key_record* record = key_to_describe(declaration, key))
        record->name_space = optional_text(name_space);
}

void event_declaration_add_key_tag(event_declaration* declaration, const char* key, const char* tag)
{
    if (!tag)
        return;
    if (event_key_record* record = key_to_describe(declaration, key))
        record->tags.emplace_back(tag);
}

event_declaration_id event_producer_declare(event_producer* producer, const event_declaration* declaration)
{
    if (!producer || !declaration)
        return 0;
    event_declaration_record record;
    record.flags = declaration->flags;
    record.topic_path = topic_path_of(declaration->keys);
    record.keys = declaration->keys;
    std::string path = join_path(record.topic_path);
    event_declaration_id id = 0;
    {
        std::lock_guard lock(state().mutex);
        id = record.id = producer->next_id++;
        producer->declarations.push_back(std::move(record));
    }
    g_debug("event producer %s: declared %u, %s", producer->name.c_str(), id, path.c_str());
    return id;
}

void event_producer_undeclare(event_producer* producer, event_declaration_id id)
{
    if (!producer)
        return;
    std::size_t withdrawn = 0;
    {
        std::lock_guard lock(state().mutex);
        withdrawn = std::erase_if(producer->declarations,
                                  [&](const event_declaration_record& d) { return d.id == id; });
    }
    if (withdrawn)
        g_debug("event producer %s: withdrew %u", producer->name.c_str(), id);
}

event* event_producer_prepare_event(event_producer* producer, event_declaration_id id)
{
    if (!producer)
        return nullptr;
    auto prepared = std::make_unique<event>();
    std::lock_guard lock(state().mutex);
    const event_declaration_record* declaration = find_declaration(producer, id);
    if (!declaration)
        return nullptr;
    prepared->producer_serial = producer->serial;
    prepared->producer_name = producer->name;
    prepared->id = id;
    prepared->topic_path = declaration->topic_path;
    for (const auto& key : declaration->keys)
        if (!key.value)
            prepared->data_keys.push_back(key.key);
    return prepared.release();
}

void event_set_value(event* ev, const char* key, const char* value)
{
    if (!ev || !key || !value)
        return;
    if (std::find(ev->data_keys.begin(), ev->data_keys.end(), key) == ev->data_keys.end()) {
        g_warning("event_set_value: \"%s\" is not a data key of the event", key);
        return;
    }
    auto set = std::find_if(ev->values.begin(), ev->values.end(), [&](const auto& v) { return v.first == key; });
    if (set != ev->values.end())
        set->second = value;
    else
        ev->values.emplace_back(key, value);
}

bool event_producer_send_event(event_producer* producer, const event* ev, int flags)
{
    if (!producer || !ev)
        return false;
    {
        std::lock_guard lock(state().mutex);
        if (ev->producer_serial != producer->serial || !find_declaration(producer, ev->id))
            return false;
        producer->sent.push_back(sent_event {ev->id, flags, ev->topic_path, ev->values});
        if (producer->sent.size() > kept_sent_events)
            producer->sent.pop_front();
    }
    g_message("event %s:%s", join_path(ev->topic_path).c_str(), join_values(ev->values).c_str());
    return true;
}

void event_print(const event* ev)
{
    if (!ev)
        return;
    g_debug("Event of %s, declaration %u, topic %s:%s", ev->producer_name.c_str(), ev->id,
            join_path(ev->topic_path).c_str(), join_values(ev->values).c_str());
}

void event_free(event* ev)
{
    std::unique_ptr<event> owned(ev);
}

std::vector<event_producer_record> event_library_producers()
{
    std::vector<event_producer_record> records;
    auto& library = state();
    std::lock_guard lock(library.mutex);
    for (const event_producer* producer : library.producers)
        records.push_back(event_producer_record {producer->name, producer->declarations,
                                                 std::vector<sent_event>(producer->sent.begin(), producer->sent.end())});
    return records;
}

} // namespace kw
