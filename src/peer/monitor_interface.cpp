#include "src/peer/monitor_interface.hpp"

namespace kw {

std::unique_ptr<monitor_interface> monitor_interface::create(const std::string& name, const std::string& ipv4_address,
                                                             const std::string& ipv6_address, std::uint16_t port,
                                                             int ttl, message_queue& receive_queue,
                                                             std::uint32_t group, receive_checks checks)
{
    return std::make_unique<monitor_interface>(private_tag {}, name, ipv4_address, ipv6_address, port, ttl,
                                               receive_queue, group, checks);
}

monitor_interface::monitor_interface(private_tag, const std::string& name, const std::string& ipv4_address,
                                     const std::string& ipv6_address, std::uint16_t port, int ttl,
                                     message_queue& receive_queue, std::uint32_t group, receive_checks checks)
    : m_name(name)
    , m_port(port)
    , m_ttl(ttl)
    , m_group(group)
    , m_receive_queue(receive_queue)
    , m_checks(checks)
    , m_ipv4 {ipv4_address, nullptr, "monitor_interface: failed to setup ipv4 chain",
              "monitor_interface: failed to start ipv4 address"}
    , m_ipv6 {ipv6_address, nullptr, "monitor_interface: failed to setup ipv6 chain",
              "monitor_interface: failed to start ipv6 address"}
{
}

monitor_interface::~monitor_interface()
{
    teardown(m_ipv4);
    teardown(m_ipv6);
}

bool monitor_interface::setup(family& f)
{
    if (f.chain)
        return true;
    f.chain = monitor_chain::create(m_name, f.address, m_port, m_ttl, m_receive_queue, m_group, m_checks);
    if (!f.chain) {
        g_warning("%s", f.setup_failed);
        return false;
    }
    return true;
}

void monitor_interface::teardown(family& f)
{
    f.chain.reset();
}

bool monitor_interface::start(family& f)
{
    if (!f.chain)
        return false;
    if (!f.chain->start()) {
        g_warning("%s", f.start_failed);
        return false;
    }
    return true;
}

bool monitor_interface::stop(family& f)
{
    return !f.chain || f.chain->stop();
}

int monitor_interface::send_copy(family& f, const peer_message& message)
{
    if (!f.chain || !f.chain->is_running())
        return 0;
    f.chain->send(message.copy());
    return 1;
}

bool monitor_interface::prepare_address(address_family which, const std::string& address)
{
    family& f = of(which);
    f.next_address = address;
    f.next_chain.reset();
    if (address == f.address || !f.chain)
        return true;
    f.next_chain = monitor_chain::create(m_name, address, m_port, m_ttl, m_receive_queue, m_group, m_checks);
    if (!f.next_chain) {
        g_warning("%s", f.setup_failed);
        return false;
    }
    return true;
}

void monitor_interface::commit_address(address_family which)
{
    family& f = of(which);
    f.address = f.next_address;
    if (!f.next_chain)
        return;
    // The old chain's stop first sends what is queued, still to the old group.
    bool was_running = f.chain->is_running();
    f.chain = std::move(f.next_chain);
    if (was_running)
        start(f);
}

void monitor_interface::abandon_address(address_family which)
{
    of(which).next_chain.reset();
}

bool monitor_interface::set_address(address_family which, const std::string& address)
{
    if (!prepare_address(which, address))
        return false;
    commit_address(which);
    return true;
}

bool monitor_interface::setup_ipv4()
{
    return setup(m_ipv4);
}

bool monitor_interface::setup_ipv6()
{
    return setup(m_ipv6);
}

void monitor_interface::teardown_ipv4()
{
    teardown(m_ipv4);
}

void monitor_interface::teardown_ipv6()
{
    teardown(m_ipv6);
}

bool monitor_interface::start_ipv4()
{
    return start(m_ipv4);
}

bool monitor_interface::start_ipv6()
{
    return start(m_ipv6);
}

bool monitor_interface::stop_ipv4()
{
    return stop(m_ipv4);
}

bool monitor_interface::stop_ipv6()
{
    return stop(m_ipv6);
}

int monitor_interface::send(std::unique_ptr<peer_message> message)
{
    if (!message)
        return 0;
    return send_copy(m_ipv4, *message) + send_copy(m_ipv6, *message);
}

sa_family_t monitor_interface::send_once(std::unique_ptr<peer_message> message, sa_family_t family)
{
    if (!message)
        return AF_UNSPEC;
    if (family != AF_INET6 && send_copy(m_ipv4, *message))
        return AF_INET;
    if (family != AF_INET && send_copy(m_ipv6, *message))
        return AF_INET6;
    return AF_UNSPEC;
}

bool monitor_interface::set_ttl(int ttl)
{
    // An IPv4 chain that already took the new TTL keeps it when the IPv6 chain refuses.
    for (family* f : {&m_ipv4, &m_ipv6}) {
        if (f->chain && !f->chain->set_ttl(ttl))
            return false;
    }
    m_ttl = ttl;
    return true;
}

void monitor_interface::set_group(std::uint32_t group)
{
    for (family* f : {&m_ipv4, &m_ipv6}) {
        if (f->chain)
            f->chain->set_group(group);
    }
    m_group = group;
}

} // namespace kw
