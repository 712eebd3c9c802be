#include "src/surfaces/sibling_events.hpp"

namespace kw {

namespace {

constexpr const char* producer_name = "Kinwatch";
constexpr const char* name_space = "tnstavix";
constexpr const char* data_tag = "onvif-data";

struct data_key {
    const char* key;
    const char* nice_name;
};

constexpr data_key data_keys[] = {
    {"serialnumber", "Serial Number"},
    {"ipv4address", "IPv4 Address"},
    {"ipv6address", "IPv6 Address"},
};

// Both declarations have the same keys and differ only in the last topic
// level and its nice name. The calls follow the order the platform expects.
g_ptr<event_declaration> build_declaration(const char* event_name, const char* event_nice_name)
{
    g_ptr<event_declaration> declaration(event_declaration_new(0));
    event_declaration_add_key_value(declaration.get(), "topic0", "Velmora", EVENT_VALUE_TEXT);
    event_declaration_add_key_value(declaration.get(), "topic1", "Kinwatch", EVENT_VALUE_TEXT);
    event_declaration_add_key_value(declaration.get(), "topic2", event_name, EVENT_VALUE_TEXT);
    event_declaration_set_nice_names(declaration.get(), "topic1", nullptr, "Kinwatch");
    event_declaration_set_nice_names(declaration.get(), "topic2", nullptr, event_nice_name);
    for (const char* topic : {"topic0", "topic1", "topic2"})
        event_declaration_set_name_space(declaration.get(), topic, name_space);
    for (const auto& data : data_keys)
        event_declaration_add_key(declaration.get(), data.key, EVENT_VALUE_TEXT);
    for (const auto& data : data_keys)
        event_declaration_set_nice_names(declaration.get(), data.key, data.nice_name, nullptr);
    for (const auto& data : data_keys)
        event_declaration_add_key_tag(declaration.get(), data.key, data_tag);
    return declaration;
}

} // namespace

std::unique_ptr<sibling_events> sibling_events::create()
{
    auto events = std::make_unique<sibling_events>(private_tag {});
    events->m_producer.reset(event_producer_new(producer_name));
    if (!events->m_producer)
        return nullptr;
    events->declare_events();
    return events;
}

sibling_events::~sibling_events()
{
    if (!m_producer)
        return;
    if (m_connected_declaration != 0)
        event_producer_undeclare(m_producer.get(), m_connected_declaration);
    if (m_disconnected_declaration != 0)
        event_producer_undeclare(m_producer.get(), m_disconnected_declaration);
}

void sibling_events::declare_events()
{
    // The library copies a declaration, so each is freed as soon as it is
    // declared. The handles are kept as they come: a failed declaration
    // shows as 0 and is simply not withdrawn later.
    g_ptr<event_declaration> connected = build_declaration("SiblingConnected", "Sibling Camera Connected");
    m_connected_declaration = event_producer_declare(m_producer.get(), connected.get());
    connected.reset();

    g_ptr<event_declaration> disconnected = build_declaration("SiblingDisconnected", "Sibling Camera Disconnected");
    m_disconnected_declaration = event_producer_declare(m_producer.get(), disconnected.get());
}

void sibling_events::send_connected(const monitor_message_type& record)
{
    send(m_connected_declaration, record, connected_message_id, "connected");
}

void sibling_events::send_disconnected(const monitor_message_type& record)
{
    send(m_disconnected_declaration, record, disconnected_message_id, "disconnected");
}

void sibling_events::send(event_declaration_id declaration, const monitor_message_type& record,
                          const char* message_id, const char* what)
{
    std::string serial_number = record.get_mac_string();
    std::string ipv4 = record.get_ipv4_string();
    std::string ipv6 = record.get_ipv6_string();

    // A handle of 0 is passed on like any other rather than skipped: the
    // library then prepares no event and the send is dropped there.
    g_ptr<event> prepared(event_producer_prepare_event(m_producer.get(), declaration));
    event_set_value(prepared.get(), "serialnumber", serial_number.c_str());
    event_set_value(prepared.get(), "ipv4address", ipv4.c_str());
    event_set_value(prepared.get(), "ipv6address", ipv6.c_str());
    // The outcome of a send is not examined: a lost event is not retried.
    event_producer_send_event(m_producer.get(), prepared.get(), 0);
    event_print(prepared.get());

    // Beside the platform's own line: an entry the journal can select by
    // MESSAGE_ID, with the sibling in fields of its own. The default writer
    // sends every field to the journal when standard error is connected to it.
    g_log_structured(nullptr, G_LOG_LEVEL_MESSAGE, "MESSAGE_ID", message_id, "SIBLING_MAC", serial_number.c_str(),
                     "SIBLING_IPV4", ipv4.c_str(), "SIBLING_IPV6", ipv6.c_str(), "MESSAGE", "Sibling %s %s (%s, %s)",
                     serial_number.c_str(), what, ipv4.c_str(), ipv6.c_str());
}

} // namespace kw
