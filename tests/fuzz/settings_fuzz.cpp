// An accepted configuration file survives a save and a second load with all eight values equal.
#include "src/config/settings.hpp"

#include <glib.h>
#include <glib/gstdio.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <tuple>

namespace {

// One scratch file per process on tmpfs, removed after each input (libFuzzer runs no exit handlers).
const std::string& scratch_path()
{
    static const std::string path = [] {
        g_log_set_writer_func([](GLogLevelFlags, const GLogField*, gsize, gpointer) { return G_LOG_WRITER_HANDLED; },
                              nullptr, nullptr);
        return "/dev/shm/kw-settings-fuzz-" + std::to_string(getpid()) + ".conf";
    }();
    return path;
}

struct removed_at_end {
    ~removed_at_end() { g_remove(scratch_path().c_str()); }
};

auto values(kw::settings& s)
{
    std::string ipv4, ipv6, interface;
    s.get_ipv4_group(ipv4);
    s.get_ipv6_group(ipv6);
    s.get_interface(interface);
    return std::make_tuple(s.get_ttl(), s.get_enabled(), ipv4, ipv6, s.get_port(), s.get_group(),
                           s.get_max_hosts(), interface);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string& path = scratch_path();
    removed_at_end scratch;
    if (!g_file_set_contents(path.c_str(), reinterpret_cast<const char*>(data), static_cast<gssize>(size), nullptr))
        std::abort();
    auto loaded = kw::settings::create(path);
    if (!loaded)
        return 0;
    if (!loaded->save())
        std::abort();
    auto reloaded = kw::settings::create(path);
    if (!reloaded || values(*reloaded) != values(*loaded))
        std::abort();
    return 0;
}
