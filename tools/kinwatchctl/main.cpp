#include "tools/kinwatchctl/bus_client.hpp"
#include "tools/kinwatchctl/command_line.hpp"
#include "tools/kinwatchctl/commands.hpp"

#include <iostream>

int main(int argc, char** argv)
{
    using namespace kw::ctl;

    std::string error;
    auto line = command_line::parse(argc, argv, error);
    if (!line) {
        std::cerr << "kinwatchctl: " << error << "\nTry 'kinwatchctl --help'.\n";
        return exit_usage;
    }
    if (line->what() == command_line::action::help) {
        std::cout << command_line::help_text();
        return exit_ok;
    }
    if (line->what() == command_line::action::version) {
        std::cout << "kinwatchctl " KW_VERSION "\n";
        return exit_ok;
    }

    bus_failure failure;
    auto client = bus_client::create(line->address(), failure);
    if (!client)
        return failure.report(std::cerr, "connect");
    return commands(*client, std::cout, std::cerr).execute(*line);
}
