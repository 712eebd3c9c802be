#include "tests/e2e/lab.hpp"

#include <cstdio>

#include "tests/support/netns.hpp"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <thread>

namespace kw::test {

std::string lab_mac_of(int camera)
{
    char text[32];
    std::snprintf(text, sizeof text, "02:00:00:00:00:%02x", camera);
    return text;
}

std::string lab_ipv4_of(int camera)
{
    return "10.78.0." + std::to_string(camera);
}

std::string lab_ipv6_of(int camera)
{
    return "fd78::" + std::to_string(camera);
}

namespace {

constexpr const char* bus_name = "com.tavix.Kinwatch";
constexpr const char* object_path = "/com/tavix/Kinwatch";
constexpr const char* lab_prefix = "e2e";
constexpr int call_timeout_ms = 10000;

std::atomic<int> next_lab {0};

std::string quote(const std::string& text)
{
    std::string out = "'";
    for (char c : text)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

std::string script_command(const std::string& name, const std::string& arguments)
{
    return quote(KW_LAB_SCRIPT) + " --name " + name + " " + arguments;
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string last_lines(const std::string& text, std::size_t count)
{
    std::size_t at = text.size();
    for (std::size_t found = 0; found <= count && at > 0; ++found) {
        at = text.rfind('\n', at - 1);
        if (at == std::string::npos)
            return text;
    }
    return text.substr(at + 1);
}

// The decimal number at the start of the text, or 0.
int leading_number(const std::string& text)
{
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

// The owner pid in a lab name of this wrapper ("e2e<pid>-<n>"), or 0.
int owner_of(const std::string& lab_name)
{
    if (lab_name.rfind(lab_prefix, 0) != 0)
        return 0;
    return leading_number(lab_name.substr(std::char_traits<char>::length(lab_prefix)));
}

// Labs left by test processes that were killed before their clean-up ran.
void take_down_orphans()
{
    std::set<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp", ignored)) {
        std::string file = entry.path().filename().string();
        if (file.rfind("kinwatch-lab-", 0) == 0)
            names.insert(file.substr(13));
    }
    std::string namespaces;
    run("ip netns list", &namespaces);
    std::istringstream lines(namespaces);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("kwlab-", 0) != 0)
            continue;
        std::string rest = line.substr(6, line.find(' ') - 6);
        std::size_t end = rest.rfind('-');
        if (end != std::string::npos)
            names.insert(rest.substr(0, end));
    }
    for (const auto& name : names) {
        int owner = owner_of(name);
        if (owner > 0 && owner != getpid() && ::kill(owner, 0) != 0 && errno == ESRCH)
            run(script_command(name, "down"));
    }
}

std::uint16_t be16(const std::uint8_t* p)
{
    return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}

std::string address_text(int family, const std::uint8_t* raw)
{
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(family, raw, text, sizeof text);
    return text;
}

// One Ethernet frame; false when it is no UDP datagram over IPv4 or IPv6.
bool parse_frame(const std::uint8_t* frame, std::size_t size, lab_datagram& out)
{
    if (size < 14)
        return false;
    std::size_t at = 12;
    std::uint16_t type = be16(frame + at);
    if (type == 0x8100 && size >= 18) {
        at += 4;
        type = be16(frame + at);
    }
    at += 2;
    const std::uint8_t* ip = frame + at;
    std::size_t left = size - at;
    std::size_t header = 0;
    if (type == 0x0800 && left >= 20 && ip[9] == IPPROTO_UDP) {
        out.family = AF_INET;
        header = static_cast<std::size_t>(ip[0] & 0x0f) * 4;
        out.source = address_text(AF_INET, ip + 12);
        out.destination = address_text(AF_INET, ip + 16);
    } else if (type == 0x86dd && left >= 40 && ip[6] == IPPROTO_UDP) {
        out.family = AF_INET6;
        header = 40;
        out.source = address_text(AF_INET6, ip + 8);
        out.destination = address_text(AF_INET6, ip + 24);
    } else {
        return false;
    }
    if (left < header + 8)
        return false;
    const std::uint8_t* udp = ip + header;
    std::size_t length = be16(udp + 4);
    if (length < 8 || header + length > left)
        return false;
    out.destination_port = be16(udp + 2);
    out.payload.assign(udp + 8, udp + length);
    return true;
}

} // namespace

lab::lab(int cameras)
    : m_cameras(cameras)
{
    m_name = lab_prefix + std::to_string(getpid()) + "-" + std::to_string(next_lab++);
    m_connections.resize(static_cast<std::size_t>(cameras) + 1);
    if (!is_root())
        return;
    take_down_orphans();
    m_ok = must("up " + std::to_string(cameras) + " --binary " + quote(KW_KINWATCH_BINARY));
}

lab::~lab()
{
    if (m_ok)
        check_logs();
    if (::testing::Test::HasFailure()) {
        for (int camera = 1; camera <= m_cameras; ++camera)
            std::cerr << "--- end of camera " << camera << "'s log:\n" << last_lines(log(camera), 60);
    }
    m_connections.clear();
    if (is_root()) {
        std::string output;
        if (run("down", &output) != 0)
            ADD_FAILURE() << "lab down failed:\n" << output;
    }
}

std::string lab::state_directory() const
{
    return "/tmp/kinwatch-lab-" + m_name;
}

int lab::run(const std::string& arguments, std::string* output) const
{
    return ::kw::test::run(script_command(m_name, arguments), output);
}

bool lab::must(const std::string& arguments) const
{
    return ::kw::test::must(script_command(m_name, arguments));
}

g_ptr<GSubprocess> lab::start(const std::vector<std::string>& arguments) const
{
    std::vector<const char*> argv = {KW_LAB_SCRIPT, "--name", m_name.c_str()};
    for (const auto& argument : arguments)
        argv.push_back(argument.c_str());
    argv.push_back(nullptr);
    error_out error;
    auto process = adopt(g_subprocess_newv(argv.data(), G_SUBPROCESS_FLAGS_NONE, error.out()));
    if (!process)
        ADD_FAILURE() << "cannot start the lab script: " << error.message();
    return process;
}

std::string lab::log(int camera) const
{
    return read_file(state_directory() + "/c" + std::to_string(camera) + "/kinwatch.log");
}

std::string lab::configuration(int camera) const
{
    return read_file(state_directory() + "/c" + std::to_string(camera) + "/kinwatch.conf");
}

int lab::count_events(int camera, const std::string& event, const std::string& mac) const
{
    const std::string marker = "event Velmora/Kinwatch/" + event + ":";
    std::istringstream lines(log(camera));
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.find(marker) == std::string::npos)
            continue;
        if (mac.empty() || line.find("serialnumber=" + mac + " ") != std::string::npos)
            ++count;
    }
    return count;
}

std::vector<lab_camera_processes> lab::processes() const
{
    std::string output;
    std::vector<lab_camera_processes> result;
    if (run("status", &output) != 0)
        return result;
    // "kinwatch=-" stands for a process that is not running.
    auto number_after = [](const std::string& line, const std::string& key) {
        std::size_t at = line.find(" " + key + "=");
        return at == std::string::npos ? 0 : leading_number(line.substr(at + key.size() + 2));
    };
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("cam", 0) != 0)
            continue;
        result.push_back({leading_number(line.substr(3)), number_after(line, "kinwatch"), number_after(line, "dbus")});
    }
    return result;
}

GDBusConnection* lab::connection(int camera, std::string* error)
{
    auto& held = m_connections.at(static_cast<std::size_t>(camera));
    if (held && g_dbus_connection_is_closed(held.get()))
        held.reset();
    if (!held) {
        std::string address =
            "unix:path=" + state_directory() + "/c" + std::to_string(camera) + "/dbus/system_bus_socket";
        error_out failure;
        held = adopt(g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, failure.out()));
        if (!held && error)
            *error = failure.message();
    }
    return held.get();
}

g_ptr<GVariant> lab::call(int camera, const char* interface, const char* method, GVariant* parameters,
                          const GVariantType* reply, std::string* error)
{
    GDBusConnection* bus = connection(camera, error);
    if (!bus) {
        g_ptr<GVariant> unused(parameters ? g_variant_ref_sink(parameters) : nullptr);
        return nullptr;
    }
    error_out failure;
    auto result = adopt(g_dbus_connection_call_sync(bus, bus_name, object_path, interface, method, parameters, reply,
                                                    G_DBUS_CALL_FLAGS_NONE, call_timeout_ms, nullptr,
                                                    failure.out()));
    if (!result && error)
        *error = failure.message();
    return result;
}

std::optional<std::vector<lab_node>> lab::nodes(int camera, const char* method, std::string* error)
{
    auto reply = call(camera, bus_name, method, nullptr, G_VARIANT_TYPE("(a(ssstt))"), error);
    if (!reply)
        return std::nullopt;
    std::vector<lab_node> result;
    g_ptr<GVariant> list(g_variant_get_child_value(reply.get(), 0));
    GVariantIter iter;
    g_variant_iter_init(&iter, list.get());
    const char* mac = nullptr;
    const char* ipv4 = nullptr;
    const char* ipv6 = nullptr;
    guint64 first = 0;
    guint64 last = 0;
    while (g_variant_iter_next(&iter, "(&s&s&stt)", &mac, &ipv4, &ipv6, &first, &last))
        result.push_back({mac, ipv4, ipv6, first, last});
    return result;
}

g_ptr<GVariant> lab::property(int camera, const char* name, std::string* error)
{
    auto reply = call(camera, "org.freedesktop.DBus.Properties", "Get", g_variant_new("(ss)", bus_name, name),
                      G_VARIANT_TYPE("(v)"), error);
    if (!reply)
        return nullptr;
    GVariant* value = nullptr;
    g_variant_get(reply.get(), "(v)", &value);
    return adopt(value);
}

bool lab::set_property(int camera, const char* name, GVariant* value, std::string* error)
{
    return call(camera, "org.freedesktop.DBus.Properties", "Set", g_variant_new("(ssv)", bus_name, name, value),
                nullptr, error) != nullptr;
}

// A sanitizer report or a critical or fatal log line in a service's log
// fails the test that ran it.
void lab::check_logs() const
{
    for (int camera = 1; camera <= m_cameras; ++camera) {
        std::istringstream lines(log(camera));
        for (std::string line; std::getline(lines, line);) {
            for (const char* marker : {"Sanitizer", "runtime error:", "CRITICAL **", "ERROR **"}) {
                if (line.find(marker) != std::string::npos)
                    ADD_FAILURE() << "camera " << camera << "'s log: " << line;
            }
        }
    }
}

std::vector<lab_datagram> read_capture(const std::string& path)
{
    std::vector<lab_datagram> datagrams;
    std::string file = read_file(path);
    auto bytes = reinterpret_cast<const std::uint8_t*>(file.data());
    if (file.size() < 24) {
        ADD_FAILURE() << "no pcap file at " << path;
        return datagrams;
    }
    // The magic number tells the byte order of the file's own fields.
    std::uint32_t magic = 0;
    std::memcpy(&magic, bytes, 4);
    bool swapped = false;
    if (magic == 0xd4c3b2a1 || magic == 0x4d3cb2a1)
        swapped = true;
    else if (magic != 0xa1b2c3d4 && magic != 0xa1b23c4d) {
        ADD_FAILURE() << path << " is no pcap file";
        return datagrams;
    }
    auto u32 = [&](std::size_t at) {
        std::uint32_t value = 0;
        std::memcpy(&value, bytes + at, 4);
        return swapped ? __builtin_bswap32(value) : value;
    };
    if (u32(20) != 1) {
        ADD_FAILURE() << path << " does not hold Ethernet frames";
        return datagrams;
    }
    for (std::size_t at = 24; at + 16 <= file.size();) {
        std::size_t captured = u32(at + 8);
        at += 16;
        if (at + captured > file.size())
            break;
        lab_datagram datagram;
        if (parse_frame(bytes + at, captured, datagram))
            datagrams.push_back(std::move(datagram));
        at += captured;
    }
    return datagrams;
}

std::uint64_t unix_seconds()
{
    return static_cast<std::uint64_t>(g_get_real_time() / G_USEC_PER_SEC);
}

std::optional<double> wait_for(const std::function<bool()>& condition, std::chrono::seconds limit)
{
    auto start = std::chrono::steady_clock::now();
    for (;;) {
        if (condition())
            return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (std::chrono::steady_clock::now() - start > limit)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}

} // namespace kw::test
