#pragma once

// Plain sockets and small waits for the peer tests. A probe is an ordinary
// UDP socket, made inside a test namespace, that listens to one group on
// one interface and reports the TTL (hop limit) each datagram arrived with.

#include "platform/unique_fd.hpp"
#include "tests/support/netns.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kw::test {

inline constexpr std::chrono::seconds patience {10};

struct datagram {
    std::vector<std::uint8_t> bytes;
    int ttl = -1;
};

class probe {
public:
    // Call inside the namespace. Hears only the group it joined.
    static std::unique_ptr<probe> open(const std::string& interface, const std::string& group, int port);

    // The next datagram, waiting up to the patience limit.
    std::optional<datagram> receive();
    // True when no datagram is waiting at this instant.
    bool idle() const;

    struct private_tag {
        explicit private_tag() = default;
    };
    explicit probe(private_tag) {}

private:
    unique_fd m_socket;
};

// Waits up to the patience limit for the descriptor to become readable.
bool wait_readable(int fd);

// Polls the condition until it holds or the patience limit passes.
bool wait_until(const std::function<bool()>& condition);

// Threads of this process that carry this name (the kernel keeps 15
// characters of it).
int threads_named(const std::string& name);
// Sending and receiving threads, counted by name.
int thread_count();
// Renames the calling thread. The test binary's name, cut to 15 characters,
// can equal a worker's, and helper threads that a sanitizer starts later
// inherit it; call this before the first thread starts.
void rename_test_thread();

// The multicast groups an interface of the namespace is a member of ("ip maddr").
std::string memberships(const netns& ns, const std::string& interface);

} // namespace kw::test
