#include "tests/tracking/date_time_ledger.hpp"

#include <dlfcn.h>

#include <mutex>
#include <unordered_map>

namespace {

std::mutex ledger_mutex; // guards ledger
std::unordered_map<GDateTime*, int> ledger;

template <class F> F glib_function(const char* name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" GDateTime* g_date_time_ref(GDateTime* time)
{
    static auto real = glib_function<GDateTime* (*)(GDateTime*)>("g_date_time_ref");
    {
        std::lock_guard lock(ledger_mutex);
        if (auto entry = ledger.find(time); entry != ledger.end())
            ++entry->second;
    }
    return real(time);
}

extern "C" void g_date_time_unref(GDateTime* time)
{
    static auto real = glib_function<void (*)(GDateTime*)>("g_date_time_unref");
    {
        std::lock_guard lock(ledger_mutex);
        // The entry goes with the last reference, since GLib may hand the
        // same address to a later date-time.
        if (auto entry = ledger.find(time); entry != ledger.end() && --entry->second == 0)
            ledger.erase(entry);
    }
    real(time);
}

namespace kw::test {

g_ptr<GDateTime> counted(GDateTime* fresh)
{
    std::lock_guard lock(ledger_mutex);
    ledger[fresh] = 1;
    return adopt(fresh);
}

int references(GDateTime* time)
{
    std::lock_guard lock(ledger_mutex);
    auto entry = ledger.find(time);
    return entry == ledger.end() ? 0 : entry->second;
}

} // namespace kw::test
