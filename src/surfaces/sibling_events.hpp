#pragma once

#include "platform/event_library.hpp"
#include "platform/g_ptr.hpp"
#include "src/tracking/monitor_message_type.hpp"

#include <memory>

namespace kw {

// The SiblingConnected and SiblingDisconnected platform events: one producer
// and its two declarations, made anew on every start of the monitor and
// withdrawn on every stop. Main thread only.
class sibling_events {
public:
    // The journal's MESSAGE_ID of each event's structured log entry; fixed
    // for good, since operators select entries by them.
    static constexpr const char* connected_message_id = "a6bc5612891b42309c22fc7130d6c660";
    static constexpr const char* disconnected_message_id = "fecdf095ed9e4d9fab5bd55aa50f6f62";

    // Gives nullptr when the producer cannot be created.
    static std::unique_ptr<sibling_events> create();

    sibling_events(const sibling_events&) = delete;
    sibling_events& operator=(const sibling_events&) = delete;
    // Withdraws both declarations and frees the producer.
    ~sibling_events();

    // The record stays the caller's. Each send also logs a structured entry
    // with the event's MESSAGE_ID and the fields SIBLING_MAC, SIBLING_IPV4
    // and SIBLING_IPV6.
    void send_connected(const monitor_message_type& record);
    void send_disconnected(const monitor_message_type& record);

    struct private_tag {
        explicit private_tag() = default;
    };
    explicit sibling_events(private_tag) {}

private:
    void declare_events();
    void send(event_declaration_id declaration, const monitor_message_type& record, const char* message_id,
              const char* what);

    g_ptr<event_producer> m_producer;
    event_declaration_id m_connected_declaration = 0;
    event_declaration_id m_disconnected_declaration = 0;
};

} // namespace kw
