#pragma once

#include "platform/g_ptr.hpp"
#include "tools/kinwatchctl/bus_failure.hpp"
#include "tools/kinwatchctl/node_entry.hpp"

#include <gio/gio.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kw::ctl {

// The tool's connection to the bus and the calls it makes to the service's
// object. Every call but the watch's read of the lists is synchronous; a
// failure comes back classified.
class bus_client {
public:
    static constexpr const char* bus_name = "com.tavix.Kinwatch";
    static constexpr const char* object_path = "/com/tavix/Kinwatch";
    static constexpr const char* interface_name = "com.tavix.Kinwatch";
    static constexpr const char* monitor_interface_name = "com.tavix.Kinwatch.Monitor1";

    // Both lists of the monitor interface and the generation they belong to.
    struct snapshot {
        std::uint64_t generation = 0;
        std::vector<node_entry> known;
        std::vector<node_entry> lost;
    };

    enum class node_list { known, lost };

    // Connects to the bus at address, or to the system bus when address is
    // empty. nullptr with failure set (not running) when no bus answers.
    static std::unique_ptr<bus_client> create(const std::string& address, bus_failure& failure);

    bus_client(const bus_client&) = delete;
    bus_client& operator=(const bus_client&) = delete;

    // The property's value, or nullptr with failure set.
    g_ptr<GVariant> get(const char* property, bus_failure& failure, const char* interface = interface_name);
    // value is consumed when floating, as by g_variant_new.
    bool set(const char* property, GVariant* value, bus_failure& failure);
    // GetKnownNodes or GetLostNodes, sorted by hardware address.
    std::optional<std::vector<node_entry>> nodes(node_list which, bus_failure& failure);
    // GetNodes of the monitor interface, without waiting for the reply: the
    // callback runs from the main loop (also once cancelled), and takes the
    // lists with monitor_nodes_finish.
    void monitor_nodes_begin(GCancellable* cancellable, GAsyncReadyCallback callback, gpointer user_data);
    std::optional<snapshot> monitor_nodes_finish(GAsyncResult* result, bus_failure& failure);

    GDBusConnection* connection() const { return m_connection.get(); }

    // True once the bus has gone away; no later call can succeed.
    bool closed() const;

    struct private_tag {
        explicit private_tag() = default;
    };
    bus_client(private_tag, g_ptr<GDBusConnection> connection) : m_connection(std::move(connection)) {}

private:
    g_ptr<GVariant> call(const char* interface, const char* method, GVariant* parameters,
                         const GVariantType* reply_type, bus_failure& failure);

    g_ptr<GDBusConnection> m_connection;
};

} // namespace kw::ctl
