#include "tests/peer/probe.hpp"

#include <arpa/inet.h>
#include <dirent.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

namespace kw::test {

namespace {

// Calls fn with the name of each entry of a /proc directory.
template <class Fn> void for_each_entry(const char* path, Fn fn)
{
    if (DIR* dir = opendir(path)) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.')
                fn(std::string(entry->d_name));
        closedir(dir);
    }
}

} // namespace

std::unique_ptr<probe> probe::open(const std::string& interface, const std::string& group, int port)
{
    auto result = std::make_unique<probe>(private_tag {});
    int on = 1;
    int off = 0;
    unsigned index = if_nametoindex(interface.c_str());
    sockaddr_in6 address6 {AF_INET6, htons(static_cast<std::uint16_t>(port)), 0, in6addr_any, 0};
    sockaddr_in address4 {};
    address4.sin_family = AF_INET;
    address4.sin_port = address6.sin6_port;
    ip_mreqn request4 {};
    request4.imr_ifindex = static_cast<int>(index);
    ipv6_mreq request6 {};
    request6.ipv6mr_interface = index;

    // Without IP_MULTICAST_ALL a wildcard socket would also hear groups that other sockets joined.
    if (inet_pton(AF_INET, group.c_str(), &request4.imr_multiaddr) == 1) {
        result->m_socket.reset(::socket(AF_INET, SOCK_DGRAM, 0));
        int fd = result->m_socket.get();
        if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
            setsockopt(fd, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off) == 0 &&
            setsockopt(fd, IPPROTO_IP, IP_RECVTTL, &on, sizeof on) == 0 &&
            ::bind(fd, reinterpret_cast<sockaddr*>(&address4), sizeof address4) == 0 &&
            setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request4, sizeof request4) == 0)
            return result;
    } else if (inet_pton(AF_INET6, group.c_str(), &request6.ipv6mr_multiaddr) == 1) {
        result->m_socket.reset(::socket(AF_INET6, SOCK_DGRAM, 0));
        int fd = result->m_socket.get();
        if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
            setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_ALL, &off, sizeof off) == 0 &&
            setsockopt(fd, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, &on, sizeof on) == 0 &&
            ::bind(fd, reinterpret_cast<sockaddr*>(&address6), sizeof address6) == 0 &&
            setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &request6, sizeof request6) == 0)
            return result;
    }
    return nullptr;
}

std::optional<datagram> probe::receive()
{
    if (!wait_readable(m_socket.get()))
        return std::nullopt;

    datagram out;
    out.bytes.resize(2048);
    iovec data {out.bytes.data(), out.bytes.size()};
    alignas(cmsghdr) char control[256];
    msghdr header {};
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    ssize_t received = recvmsg(m_socket.get(), &header, 0);
    if (received < 0)
        return std::nullopt;
    out.bytes.resize(static_cast<std::size_t>(received));
    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c)) {
        if ((c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TTL) ||
            (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_HOPLIMIT))
            std::memcpy(&out.ttl, CMSG_DATA(c), sizeof out.ttl);
    }
    return out;
}

bool probe::idle() const
{
    pollfd wait {m_socket.get(), POLLIN, 0};
    return poll(&wait, 1, 0) == 0;
}

bool wait_readable(int fd)
{
    pollfd wait {fd, POLLIN, 0};
    auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(patience);
    return poll(&wait, 1, static_cast<int>(limit.count())) == 1;
}

bool wait_until(const std::function<bool()>& condition)
{
    auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

int threads_named(const std::string& name)
{
    std::string wanted = name.substr(0, 15) + "\n";
    int count = 0;
    for_each_entry("/proc/self/task", [&](const std::string& task) {
        std::ifstream comm("/proc/self/task/" + task + "/comm");
        count += std::string(std::istreambuf_iterator<char>(comm), {}) == wanted;
    });
    return count;
}

int thread_count()
{
    return threads_named("monitor_sender_start_local") + threads_named("monitor_receiver_start_local");
}

void rename_test_thread()
{
    prctl(PR_SET_NAME, "kw-test");
}

std::string memberships(const netns& ns, const std::string& interface)
{
    std::string output;
    ns.exec("ip maddr show dev " + interface, &output);
    return output;
}

} // namespace kw::test
