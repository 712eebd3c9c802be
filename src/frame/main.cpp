#include "src/frame/service.hpp"

#include <glib.h>
#include <malloc.h>

namespace {

// GLib 2.74's slice allocator, which GLib uses for its small objects (hash
// tables, variants, strings, list nodes), keeps freed chunks in per-thread
// magazines and in slabs that go back to the system only when every chunk
// of them is free: a tick's bus signals or log lines left hundreds of
// kilobytes behind for good. With plain malloc they are given back. The
// allocator takes its configuration when GLib's own library constructor
// makes the first hash table, so it is set before any library is
// initialised: from the executable's pre-initialisation array, which runs
// first. The call sets one variable of the relocated library; GLib 2.76 and
// later always use malloc and ignore it.
void slices_from_malloc(int, char**, char**)
{
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    g_slice_set_config(G_SLICE_CONFIG_ALWAYS_MALLOC, TRUE);
    G_GNUC_END_IGNORE_DEPRECATIONS
}

[[gnu::section(".preinit_array"), gnu::used]] void (*const set_up_slices)(int, char**, char**) = &slices_from_malloc;

} // namespace

int main(int argc, char** argv)
{
    // One malloc arena for every thread. With an arena per thread, the
    // messages a receiving thread made and the main thread freed stayed in
    // the receiver's arena, and each arena kept its own free memory and
    // pages. The threads allocate little and seldom at once: in
    // bench/receive_bench the shared lock made no difference beyond the
    // noise between runs.
    mallopt(M_ARENA_MAX, 1);
    kw::service service;
    return service.run(argc, argv);
}
