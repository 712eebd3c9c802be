#pragma once

#include "platform/g_ptr.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <string>

namespace kw::test {

// Signals and waits up to the grace; one that lingers has its backtraces printed (scripts/stacks)
// and is killed: false then.
inline bool end_process(GSubprocess* process, int signal = SIGTERM, int grace_seconds = 10)
{
    if (!process)
        return true;
    g_subprocess_send_signal(process, signal);
    // The identifier goes once GLib has reaped the process.
    for (int tries = 0; tries < grace_seconds * 100 && g_subprocess_get_identifier(process); ++tries)
        g_usleep(10'000);
    const char* pid = g_subprocess_get_identifier(process);
    if (!pid)
        return true;
    std::string command = std::string(KW_STACKS_SCRIPT) + " " + pid + " 'a process signalled " +
                          std::to_string(grace_seconds) + " s ago, pid' >&2";
    if (system(command.c_str()) != 0)
        ADD_FAILURE() << "could not run " << KW_STACKS_SCRIPT;
    g_subprocess_force_exit(process);
    g_subprocess_wait(process, nullptr, nullptr);
    ADD_FAILURE() << "process " << pid << " did not end within " << grace_seconds << " s of signal " << signal;
    return false;
}

} // namespace kw::test
