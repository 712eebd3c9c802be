#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kw::ctl {

// What the operator asked for. Parsing checks the shape of the command line
// and every value whose type allows it, so a usage error never reaches the
// bus.
class command_line {
public:
    enum class action { status, nodes, set, watch, stats, help, version };

    // nullopt with a one-line reason in error for a usage error.
    static std::optional<command_line> parse(const std::vector<std::string>& args, std::string& error);
    static std::optional<command_line> parse(int argc, char** argv, std::string& error);

    // The text --help prints.
    static std::string help_text();

    action what() const { return m_action; }
    // Empty for the system bus.
    const std::string& address() const { return m_address; }
    bool lost() const { return m_lost; }
    bool json() const { return m_json; }
    // watch: the changes to print before ending; 0 for no limit.
    unsigned limit() const { return m_limit; }
    const std::string& setting_name() const { return m_setting; }
    const std::string& value() const { return m_value; }

private:
    command_line() = default;

    action m_action = action::status;
    std::string m_address;
    bool m_lost = false;
    bool m_json = false;
    unsigned m_limit = 0;
    std::string m_setting;
    std::string m_value;
};

} // namespace kw::ctl
