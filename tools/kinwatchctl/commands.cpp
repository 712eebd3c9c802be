#include "tools/kinwatchctl/commands.hpp"

#include "tools/kinwatchctl/node_format.hpp"
#include "tools/kinwatchctl/setting.hpp"
#include "tools/kinwatchctl/watch_loop.hpp"

#include <array>
#include <iomanip>
#include <sstream>

namespace kw::ctl {

namespace {

std::string text_of(GVariant* value)
{
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN))
        return g_variant_get_boolean(value) ? "true" : "false";
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_BYTE))
        return std::to_string(g_variant_get_byte(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32))
        return std::to_string(g_variant_get_uint32(value));
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING))
        return g_variant_get_string(value, nullptr);
    return take_string(g_variant_print(value, FALSE));
}

const char* list_name(bus_client::node_list which)
{
    return which == bus_client::node_list::known ? "known" : "lost";
}

} // namespace

int commands::execute(const command_line& line)
{
    switch (line.what()) {
    case command_line::action::status:
        return status();
    case command_line::action::nodes:
        return nodes(line.lost() ? bus_client::node_list::lost : bus_client::node_list::known, line.json());
    case command_line::action::set:
        return set(line.setting_name(), line.value());
    case command_line::action::watch:
        return watch(line.json(), line.limit());
    case command_line::action::stats:
        return stats(line.json());
    case command_line::action::help:
    case command_line::action::version:
        break;
    }
    return exit_usage;
}

int commands::status()
{
    // Labels are the names that set takes, so what status shows can be
    // changed by copying it.
    struct row {
        const char* label;
        const char* property;
    };
    static constexpr std::array<row, 5> rows = {{
        {"enabled", "Enabled"},
        {"ttl", "TTL"},
        {"group", "Group"},
        {"ipv4-group", "IPv4MulticastGroup"},
        {"ipv6-group", "IPv6MulticastGroup"},
    }};
    constexpr int label_width = 13;

    std::string text;
    for (const auto& r : rows) {
        bus_failure failure;
        auto value = m_client.get(r.property, failure);
        if (!value)
            return failure.report(m_err, std::string("read ") + r.label);
        std::ostringstream line;
        line << std::left << std::setw(label_width) << (std::string(r.label) + ":") << text_of(value.get()) << '\n';
        text += line.str();
    }
    {
        bus_failure failure;
        auto keyed = m_client.get("Keyed", failure, bus_client::monitor_interface_name);
        if (!keyed)
            return failure.report(m_err, "read keyed");
        text += std::string("keyed:") + std::string(label_width - 6, ' ') +
                (g_variant_get_boolean(keyed.get()) ? "yes" : "no") + "\n";
    }
    for (auto which : {bus_client::node_list::known, bus_client::node_list::lost}) {
        bus_failure failure;
        auto list = m_client.nodes(which, failure);
        std::string count;
        if (list)
            count = std::to_string(list->size());
        else if (failure.what() == bus_failure::kind::not_enabled)
            count = "- (not enabled)";
        else
            return failure.report(m_err, std::string("count the ") + list_name(which) + " nodes");
        std::ostringstream line;
        line << std::left << std::setw(label_width) << (std::string(list_name(which)) + " nodes:") << count << '\n';
        text += line.str();
    }
    m_out << text << std::flush;
    return exit_ok;
}

int commands::nodes(bus_client::node_list which, bool json)
{
    bus_failure failure;
    auto list = m_client.nodes(which, failure);
    if (!list)
        return failure.report(m_err, std::string("list the ") + list_name(which) + " nodes");
    if (json) {
        for (const auto& node : *list)
            m_out << node_format::json_line(node) << '\n';
    } else if (list->empty()) {
        m_out << "No " << list_name(which) << " nodes.\n";
    } else {
        m_out << node_format(g_get_real_time() / G_USEC_PER_SEC).table(*list);
    }
    m_out << std::flush;
    return exit_ok;
}

int commands::set(const std::string& name, const std::string& value)
{
    auto target = setting::find(name);
    std::string reason;
    auto variant = target ? target->parse(value, reason) : nullptr;
    if (!variant) {
        // The command line checks this already; the check here keeps the
        // command safe to call on its own.
        m_err << "kinwatchctl: invalid value '" << value << "' for " << name << "\n";
        return exit_usage;
    }
    bus_failure failure;
    if (!m_client.set(target->property(), variant.get(), failure))
        return failure.report(m_err, "set " + name);
    return exit_ok;
}

int commands::watch(bool json, unsigned limit)
{
    watch_loop loop(m_client, m_out, m_err, json, limit);
    return loop.run();
}

int commands::stats(bool json)
{
    bus_failure failure;
    auto counters = m_client.get("Statistics", failure, bus_client::monitor_interface_name);
    if (!counters || !g_variant_is_of_type(counters.get(), G_VARIANT_TYPE("a{st}")))
        return failure.report(m_err, "read the statistics");
    // The service's order, which groups the counters by what they count.
    GVariantIter iter;
    g_variant_iter_init(&iter, counters.get());
    const char* name = nullptr;
    guint64 value = 0;
    std::string text;
    while (g_variant_iter_next(&iter, "{&st}", &name, &value)) {
        if (json) {
            // Appended piece by piece: GCC 12 warns falsely (-Wrestrict) on
            // a literal added to a std::string in an optimised build.
            text += text.empty() ? '{' : ',';
            text += node_format::json_string(name);
            text += ':';
            text += std::to_string(value);
        } else {
            std::ostringstream line;
            line << std::left << std::setw(26) << (std::string(name) + ":") << value << '\n';
            text += line.str();
        }
    }
    m_out << (json ? (text.empty() ? "{" : text) + "}\n" : text) << std::flush;
    return exit_ok;
}

} // namespace kw::ctl
