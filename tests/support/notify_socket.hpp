#pragma once

// The service manager's end of NOTIFY_SOCKET, whose messages the test reads.

#include "platform/unique_fd.hpp"
#include "tests/support/temp_dir.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace kw::test {

class notify_socket {
public:
    notify_socket() { ::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&m_address), sizeof m_address); }
    std::string path() const { return m_address.sun_path; }
    // The next message, waiting up to the time given.
    std::optional<std::string> receive(int timeout_ms = 20000)
    {
        char buffer[4096];
        pollfd wait {m_socket.get(), POLLIN, 0};
        ssize_t got = ::poll(&wait, 1, timeout_ms) == 1 ? ::recv(wait.fd, buffer, sizeof buffer, 0) : -1;
        return got < 0 ? std::nullopt : std::optional(std::string(buffer, static_cast<std::size_t>(got)));
    }

private:
    temp_dir m_dir;
    sockaddr_un m_address = [this] {
        sockaddr_un address {AF_UNIX, {}};
        m_dir.file("notify").copy(address.sun_path, sizeof address.sun_path - 1);
        return address;
    }();
    unique_fd m_socket {::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

} // namespace kw::test
