// Any configuration file the loader accepts must survive a save and a second
// load with all eight values equal: what the service writes back after a bus
// change is what it reads at the next start.
#include "src/config/settings.hpp"

#include <glib.h>
#include <glib/gstdio.h>

#include <cstdlib>
#include <string>
#include <tuple>

namespace {

GLogWriterOutput discard(GLogLevelFlags, const GLogField*, gsize, gpointer)
{
    return G_LOG_WRITER_HANDLED;
}

// One file in a scratch folder, on tmpfs where there is one: each input is
// written to it, loaded, saved over it and loaded again.
struct scratch {
    std::string dir;
    std::string path;

    scratch()
    {
        g_log_set_writer_func(discard, nullptr, nullptr);
        std::string pattern = g_file_test("/dev/shm", G_FILE_TEST_IS_DIR) ? "/dev/shm" : g_get_tmp_dir();
        pattern += "/kw-settings-fuzz.XXXXXX";
        if (!g_mkdtemp(pattern.data()))
            std::abort();
        dir = pattern;
        path = dir + "/kinwatch.conf";
    }
    ~scratch()
    {
        g_remove(path.c_str());
        g_rmdir(dir.c_str());
    }
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
    static scratch file;
    if (!g_file_set_contents(file.path.c_str(), reinterpret_cast<const char*>(data), static_cast<gssize>(size),
                             nullptr))
        std::abort();
    auto loaded = kw::settings::create(file.path);
    if (!loaded)
        return 0;
    if (!loaded->save())
        std::abort();
    auto reloaded = kw::settings::create(file.path);
    if (!reloaded || values(*reloaded) != values(*loaded))
        std::abort();
    return 0;
}
