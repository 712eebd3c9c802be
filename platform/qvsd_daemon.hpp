#pragma once

namespace kw {

// Modes understood by qvsd_daemon.
inline constexpr int QVSD_DAEMON_BACKGROUND = 2;
inline constexpr int QVSD_DAEMON_FOREGROUND = 10;

// The platform daemon library's one call, as a layer of our own, and the
// call that ends a start in the background.
//
// mode QVSD_DAEMON_BACKGROUND detaches the process: it forks, starts a new
// session without a controlling terminal, forks again, changes to "/" and
// puts /dev/null on standard input. Only the grandchild returns. The process
// that made the call waits until the grandchild calls qvsd_daemon_ready(),
// then leaves with _exit(0); when the grandchild ends before (a start-up step
// failed), with _exit(1). Meanwhile the grandchild keeps the caller's standard
// error, and GLib logs there, so whoever started the service reads why a
// start failed; its standard output is the pipe that the caller waits on.
// The umask is left as the platform set it.
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
// or a failing open, pipe, fork, setsid, chdir or dup2) returns non-zero and,
// when `error` is not null, stores a new text there that the caller releases
// with g_free. A failure after the first fork is returned in the child that
// met it; the process that made the call leaves with status 1 when it ends.
int qvsd_daemon(const char* ident, int* option, const char* name, const char* name2, int mode, char** error);

// For the mode given to qvsd_daemon: in the background, tells the waiting
// process that the start succeeded, puts /dev/null on standard output and
// error and sends every GLib log line from then on to syslog (facility
// daemon) under the ident, or the name when no ident was given; debug lines
// only when GLib would print them. In the foreground it does nothing.
void qvsd_daemon_ready(int mode);

} // namespace kw
