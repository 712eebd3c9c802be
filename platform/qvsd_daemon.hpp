#pragma once

namespace kw {

// Modes understood by qvsd_daemon.
inline constexpr int QVSD_DAEMON_BACKGROUND = 2;
inline constexpr int QVSD_DAEMON_FOREGROUND = 10;

// The platform daemon library's one call, as a layer of our own.
//
// mode QVSD_DAEMON_BACKGROUND detaches the process: it forks, starts a new
// session without a controlling terminal, forks again, changes to "/" and
// puts /dev/null on standard input, output and error. Only the grandchild
// returns; the parents leave with _exit(0). The umask is left as the
// platform set it. From then on every GLib log line goes to syslog (facility
// daemon) under `ident`, or under `name` when no ident is given; debug lines
// only when GLib would print them.
// mode QVSD_DAEMON_FOREGROUND changes nothing: the process stays attached and
// GLib keeps logging to standard error.
//
// `name` names the program. `option` and `name2` are accepted for the
// platform's sake and not interpreted here; either may be null.
//
// No signal handler is installed: SIGTERM ends the service without its main
// loop returning, so teardown never rewrites the configuration then.
//
// Returns 0 on success. On failure (an unknown mode, no name to log under,
// or a failing open, fork, setsid, chdir or dup2) returns non-zero and, when
// `error` is not null, stores a new text there that the caller releases with
// g_free. A failure after the first fork is returned in the child that met
// it; the process that made the call has already left then.
int qvsd_daemon(const char* ident, int* option, const char* name, const char* name2, int mode, char** error);

} // namespace kw
