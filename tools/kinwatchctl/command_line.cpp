#include "tools/kinwatchctl/command_line.hpp"

#include "tools/kinwatchctl/setting.hpp"

#include <glib.h>

namespace kw::ctl {

namespace {

// "-5" is a (wrong) value for set, not an option; the value check then
// says what is expected instead of calling it an unknown option.
bool looks_like_option(const std::string& arg)
{
    return arg.size() > 1 && arg[0] == '-' && !g_ascii_isdigit(arg[1]);
}

std::optional<command_line::action> action_named(const std::string& word)
{
    if (word == "status")
        return command_line::action::status;
    if (word == "nodes")
        return command_line::action::nodes;
    if (word == "set")
        return command_line::action::set;
    if (word == "watch")
        return command_line::action::watch;
    if (word == "stats")
        return command_line::action::stats;
    return std::nullopt;
}

} // namespace

std::optional<command_line> command_line::parse(int argc, char** argv, std::string& error)
{
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i)
        args.emplace_back(argv[i]);
    return parse(args, error);
}

std::optional<command_line> command_line::parse(const std::vector<std::string>& args, std::string& error)
{
    command_line result;
    std::vector<std::string> words;
    bool help = false;
    bool version = false;
    bool options_ended = false;

    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (options_ended || !looks_like_option(arg)) {
            words.push_back(arg);
        } else if (arg == "--") {
            options_ended = true;
        } else if (arg == "--help" || arg == "-h") {
            help = true;
        } else if (arg == "--version") {
            version = true;
        } else if (arg == "--lost") {
            result.m_lost = true;
        } else if (arg == "--json") {
            result.m_json = true;
        } else if (arg == "--limit" || arg.rfind("--limit=", 0) == 0) {
            std::string count = arg == "--limit" ? (i + 1 < args.size() ? args[++i] : "") : arg.substr(8);
            guint64 value = 0;
            if (!g_ascii_string_to_unsigned(count.c_str(), 10, 1, G_MAXUINT, &value, nullptr)) {
                error = "--limit needs a whole number from 1";
                return std::nullopt;
            }
            result.m_limit = static_cast<unsigned>(value);
        } else if (arg == "--address" || arg.rfind("--address=", 0) == 0) {
            if (arg == "--address") {
                if (i + 1 == args.size()) {
                    error = "--address needs a bus address";
                    return std::nullopt;
                }
                result.m_address = args[++i];
            } else {
                result.m_address = arg.substr(sizeof("--address=") - 1);
            }
            if (result.m_address.empty()) {
                error = "--address needs a bus address";
                return std::nullopt;
            }
        } else {
            error = "unknown option " + arg;
            return std::nullopt;
        }
    }

    // Help and version win over everything else, as in most tools.
    if (help) {
        result.m_action = action::help;
        return result;
    }
    if (version) {
        result.m_action = action::version;
        return result;
    }

    // A bare "kinwatchctl" shows the status, the question most often asked.
    if (words.empty())
        words.push_back("status");
    auto action = action_named(words[0]);
    if (!action) {
        error = "unknown command " + words[0];
        return std::nullopt;
    }
    result.m_action = *action;

    if (result.m_lost && result.m_action != action::nodes) {
        error = "--lost only goes with nodes";
        return std::nullopt;
    }
    if (result.m_json && result.m_action == action::set) {
        error = "--json only goes with status, nodes, watch or stats";
        return std::nullopt;
    }
    if (result.m_limit && result.m_action != action::watch) {
        error = "--limit only goes with watch";
        return std::nullopt;
    }

    if (result.m_action == action::set) {
        if (words.size() != 3) {
            error = "set needs a setting and a value";
            return std::nullopt;
        }
        auto target = setting::find(words[1]);
        if (!target) {
            error = "unknown setting " + words[1] + " (enabled, ttl, group, ipv4-group or ipv6-group)";
            return std::nullopt;
        }
        std::string reason;
        if (!target->parse(words[2], reason)) {
            error = "invalid value '" + words[2] + "' for " + words[1] + ": " + reason;
            return std::nullopt;
        }
        result.m_setting = words[1];
        result.m_value = words[2];
        return result;
    }

    if (words.size() != 1) {
        error = words[0] + " takes no argument";
        return std::nullopt;
    }
    return result;
}

std::string command_line::help_text()
{
    return "Usage: kinwatchctl [--address ADDRESS] [COMMAND]\n"
           "\n"
           "Reads and changes the settings of the kinwatch service and lists the\n"
           "sibling cameras it knows.\n"
           "\n"
           "Commands:\n"
           "  status [--json]         the five settings, whether the group is keyed, the number\n"
           "                          of known and lost nodes and the interfaces in use with\n"
           "                          their addresses (the default command); --json prints\n"
           "                          one JSON object\n"
           "  nodes [--lost] [--json] the known (or lost) nodes, sorted by hardware address;\n"
           "                          --json prints one JSON object per line\n"
           "  set SETTING VALUE       change a setting:\n"
           "                            enabled     true/false, yes/no, on/off, 1/0\n"
           "                            ttl         1 to 255\n"
           "                            group       0 to 4294967295\n"
           "                            ipv4-group  an IPv4 multicast address\n"
           "                            ipv6-group  an IPv6 multicast address\n"
           "  watch [--json] [--limit N]\n"
           "                          print a line for every node that joins, is lost, comes\n"
           "                          back or leaves, as the service tells it, until interrupted\n"
           "                          or N changes are printed; --json prints JSON objects\n"
           "  stats [--json]          the service's counters since it started\n"
           "\n"
           "Options:\n"
           "  --address ADDRESS       talk to the bus at ADDRESS instead of the system bus\n"
           "  -h, --help              show this text\n"
           "  --version               show the version\n"
           "\n"
           "Exit status: 0 done, 1 refused by the service, 2 usage error,\n"
           "3 the service is not running on the bus.\n";
}

} // namespace kw::ctl
