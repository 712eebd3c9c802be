#pragma once

#include "src/peer/message_queue.hpp"
#include "src/peer/monitor_chain.hpp"

#include <cstdint>
#include <memory>
#include <string>

namespace kw {

// One network interface as the monitor engine sees it: its name, the IPv4
// and IPv6 group addresses, port, TTL and sibling group, and up to two
// chains, one per address family. Used on the main thread only.
class monitor_interface {
public:
    // The receive queue and the checks are the engine's and must outlive the
    // interface.
    static std::unique_ptr<monitor_interface> create(const std::string& name, const std::string& ipv4_address,
                                                     const std::string& ipv6_address, std::uint16_t port, int ttl,
                                                     message_queue& receive_queue, std::uint32_t group,
                                                     receive_checks checks = {});

    monitor_interface(const monitor_interface&) = delete;
    monitor_interface& operator=(const monitor_interface&) = delete;
    // Destroys the IPv4 chain, then the IPv6 chain; both send what is queued first.
    ~monitor_interface();

    // Build the family's chain if there is none; true if one exists afterwards.
    bool setup_ipv4();
    bool setup_ipv6();
    void teardown_ipv4();
    void teardown_ipv6();
    // False, without a log line, when the family has no chain.
    bool start_ipv4();
    bool start_ipv6();
    // True when the family has no chain.
    bool stop_ipv4();
    bool stop_ipv6();

    // Queues a copy on each running chain, so nothing piles up in a stopped
    // chain's queue. Takes the message; the number of copies queued.
    int send(std::unique_ptr<peer_message> message);
    // Queues it on the family's running chain only; with AF_UNSPEC on IPv4's
    // if it runs, else on IPv6's. The family used, AF_UNSPEC when none: what
    // must reach a sibling in order goes on one family, since the two are
    // received apart.
    sa_family_t send_once(std::unique_ptr<peer_message> message, sa_family_t family = AF_UNSPEC);
    // True when every chain took the new TTL; the stored TTL changes only then.
    bool set_ttl(int ttl);
    void set_group(std::uint32_t group);
    // A new group address, in two steps so that a change across interfaces
    // is all or nothing. prepare builds the family's chain on the new group
    // beside the one in use (false, after a warning and with nothing changed,
    // when it cannot be made); commit then puts it in place of the old chain,
    // which first sends what was queued to the old group, and starts it if
    // the old one ran; abandon drops it instead. Without a chain only the
    // address is kept, for the next one.
    enum address_family { ipv4, ipv6 };
    bool prepare_address(address_family which, const std::string& address);
    void commit_address(address_family which);
    void abandon_address(address_family which);
    // Both steps at once; true when the address is in force.
    bool set_address(address_family which, const std::string& address);

    const std::string& name() const { return m_name; }
    // The interface's own addresses as the link watcher last reported them,
    // all zero for a family without a usable one: what its ANNOUNCE carries.
    void set_own_addresses(const in_addr& ipv4, const in6_addr& ipv6) { m_own_ipv4 = ipv4, m_own_ipv6 = ipv6; }
    const in_addr& own_ipv4() const { return m_own_ipv4; }
    const in6_addr& own_ipv6() const { return m_own_ipv6; }

    struct private_tag {
        explicit private_tag() = default;
    };
    monitor_interface(private_tag, const std::string& name, const std::string& ipv4_address,
                      const std::string& ipv6_address, std::uint16_t port, int ttl, message_queue& receive_queue,
                      std::uint32_t group, receive_checks checks);

private:
    // What differs between the two families.
    struct family {
        std::string address;
        std::unique_ptr<monitor_chain> chain;
        const char* setup_failed;
        const char* start_failed;
        // Made by prepare_address, until commit_address or abandon_address.
        std::string next_address;
        std::unique_ptr<monitor_chain> next_chain;
    };

    bool setup(family& f);
    void teardown(family& f);
    bool start(family& f);
    bool stop(family& f);
    int send_copy(family& f, const peer_message& message);
    family& of(address_family which) { return which == ipv4 ? m_ipv4 : m_ipv6; }

    std::string m_name;
    std::uint16_t m_port;
    int m_ttl;
    std::uint32_t m_group;
    message_queue& m_receive_queue;
    receive_checks m_checks;
    family m_ipv4;
    family m_ipv6;
    in_addr m_own_ipv4 {};
    in6_addr m_own_ipv6 {};
};

} // namespace kw
