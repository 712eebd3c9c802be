#pragma once

// The camera lab (scripts/lab) seen from a test: brings up a lab under a
// name of its own, reads each camera's bus object through GDBus, its log and
// its configuration file, and always takes the lab down again.

#include "platform/g_ptr.hpp"

#include <gio/gio.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kw::test {

// The addresses scripts/lab gives camera N (N from 1).
std::string lab_mac_of(int camera);
std::string lab_ipv4_of(int camera);
std::string lab_ipv6_of(int camera);

// One tuple of GetKnownNodes or GetLostNodes. The lab reads the tuples
// itself rather than through kinwatchctl's node_entry: the kinwatchctl tests
// compare that tool's output against this reading, which must not share its
// faults.
struct lab_node {
    std::string mac;
    std::string ipv4;
    std::string ipv6;
    std::uint64_t first_seen = 0;
    std::uint64_t last_seen = 0;
};

// The two processes the lab started for one camera; 0 when not running.
struct lab_camera_processes {
    int camera = 0;
    int kinwatch = 0;
    int bus = 0;
};

// One UDP datagram of a capture file.
struct lab_datagram {
    int family = 0; // AF_INET or AF_INET6
    std::string source;
    std::string destination;
    std::uint16_t destination_port = 0;
    std::vector<std::uint8_t> payload;
};

class lab {
public:
    // Brings up the cameras; ok() tells whether that worked.
    explicit lab(int cameras);
    lab(const lab&) = delete;
    lab& operator=(const lab&) = delete;
    ~lab();

    bool ok() const { return m_ok; }
    const std::string& name() const { return m_name; }
    std::string state_directory() const;

    // Runs the lab script on this lab; returns its exit status.
    int run(const std::string& arguments, std::string* output = nullptr) const;
    // Runs it and records a test failure when it does not succeed.
    bool must(const std::string& arguments) const;
    // Starts it without waiting, for a command that runs a while (capture).
    g_ptr<GSubprocess> start(const std::vector<std::string>& arguments) const;

    std::string log(int camera) const;
    std::string configuration(int camera) const;
    // Event lines ("event Velmora/Kinwatch/<event>: ...") in a camera's log,
    // only those naming the hardware address when one is given.
    int count_events(int camera, const std::string& event, const std::string& mac = {}) const;
    std::vector<lab_camera_processes> processes() const;

    // "GetKnownNodes" or "GetLostNodes"; nothing when the call fails.
    std::optional<std::vector<lab_node>> nodes(int camera, const char* method, std::string* error = nullptr);
    g_ptr<GVariant> property(int camera, const char* name, std::string* error = nullptr);
    // Takes the floating value.
    bool set_property(int camera, const char* name, GVariant* value, std::string* error = nullptr);

private:
    GDBusConnection* connection(int camera, std::string* error);
    g_ptr<GVariant> call(int camera, const char* interface, const char* method, GVariant* parameters,
                         const GVariantType* reply, std::string* error);
    void check_logs() const;

    std::string m_name;
    int m_cameras = 0;
    bool m_ok = false;
    std::vector<g_ptr<GDBusConnection>> m_connections;
};

// The UDP datagrams of a pcap file, in capture order.
std::vector<lab_datagram> read_capture(const std::string& path);

std::uint64_t unix_seconds();

// Polls the condition every second until it holds or the limit passes;
// returns the seconds it took, or nothing.
std::optional<double> wait_for(const std::function<bool()>& condition, std::chrono::seconds limit);

} // namespace kw::test
