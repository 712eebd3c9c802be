#include "tools/kinwatchctl/commands.hpp"

#include "tools/kinwatchctl/node_format.hpp"
#include "tools/kinwatchctl/setting.hpp"
#include "tools/kinwatchctl/watch_loop.hpp"

#include <algorithm>
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
        return status(line.json());
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

int commands::status(bool json)
{
    // Labels are the names that set takes, so what status shows can be
    // changed by copying it; the JSON keys are the labels with "_" for
    // every "-" or blank.
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
    std::string object;
    auto add = [&](const std::string& label, const std::string& plain, const std::string& json_value) {
        std::ostringstream line;
        line << std::left << std::setw(label_width) << (label + ":") << plain << '\n';
        text += line.str();
        std::string key = label;
        std::ranges::replace_if(key, [](char c) { return c == '-' || c == ' '; }, '_');
        object += object.empty() ? '{' : ',';
        object += node_format::json_string(key);
        object += ':';
        object += json_value;
    };
    for (const auto& r : rows) {
        bus_failure failure;
        auto value = m_client.get(r.property, failure);
        if (!value)
            return failure.report(m_err, std::string("read ") + r.label);
        std::string plain = text_of(value.get());
        add(r.label, plain, g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING) ? node_format::json_string(plain)
                                                                                      : plain);
    }
    {
        bus_failure failure;
        auto keyed = m_client.get("Keyed", failure, bus_client::monitor_interface_name);
        if (!keyed)
            return failure.report(m_err, "read keyed");
        bool on = g_variant_get_boolean(keyed.get());
        add("keyed", on ? "yes" : "no", on ? "true" : "false");
    }
    for (auto which : {bus_client::node_list::known, bus_client::node_list::lost}) {
        bus_failure failure;
        auto list = m_client.nodes(which, failure);
        if (list)
            add(std::string(list_name(which)) + " nodes", std::to_string(list->size()), std::to_string(list->size()));
        else if (failure.what() == bus_failure::kind::not_enabled)
            add(std::string(list_name(which)) + " nodes", "- (not enabled)", "null");
        else
            return failure.report(m_err, std::string("count the ") + list_name(which) + " nodes");
    }
    {
        bus_failure failure;
        auto interfaces = m_client.get("Interfaces", failure, bus_client::monitor_interface_name);
        if (!interfaces || !g_variant_is_of_type(interfaces.get(), G_VARIANT_TYPE("a(sss)")))
            return failure.report(m_err, "read the interfaces");
        // One interface a line, "-" for a family without an address.
        std::string lines;
        std::string array;
        GVariantIter iter;
        g_variant_iter_init(&iter, interfaces.get());
        const char *name = nullptr, *ipv4 = nullptr, *ipv6 = nullptr;
        while (g_variant_iter_next(&iter, "(&s&s&s)", &name, &ipv4, &ipv6)) {
            if (!lines.empty()) {
                lines += '\n';
                lines.append(label_width, ' ');
            }
            lines += name;
            for (const char* address : {ipv4, ipv6}) {
                lines += ' ';
                lines += *address ? address : "-";
            }
            array += array.empty() ? '[' : ',';
            array += "{\"name\":";
            array += node_format::json_string(name);
            array += ",\"ipv4\":";
            array += node_format::json_string(ipv4);
            array += ",\"ipv6\":";
            array += node_format::json_string(ipv6);
            array += '}';
        }
        add("interfaces", lines.empty() ? "none" : lines, array.empty() ? "[]" : array + "]");
    }
    m_out << (json ? object + "}\n" : text) << std::flush;
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
