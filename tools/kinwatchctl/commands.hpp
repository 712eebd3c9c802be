#pragma once

#include "tools/kinwatchctl/bus_client.hpp"
#include "tools/kinwatchctl/command_line.hpp"

#include <glib.h>

#include <ostream>

namespace kw::ctl {

// Carries out one parsed command against the service and writes its
// output; each returns the tool's exit status.
class commands {
public:
    commands(bus_client& client, std::ostream& out, std::ostream& err) : m_client(client), m_out(out), m_err(err) {}

    int execute(const command_line& line);

    int status(bool json);
    int nodes(bus_client::node_list which, bool json);
    int set(const std::string& name, const std::string& value);
    int watch(bool json, unsigned limit);
    int stats(bool json);

private:
    bus_client& m_client;
    std::ostream& m_out;
    std::ostream& m_err;
};

} // namespace kw::ctl
