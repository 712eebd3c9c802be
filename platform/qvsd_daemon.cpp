#include "platform/qvsd_daemon.hpp"

#include "platform/unique_fd.hpp"

#include <glib.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace kw {

namespace {

int fail(char** error, char* text)
{
    if (error)
        *error = text;
    else
        g_free(text);
    return -1;
}

int fail_errno(char** error, const char* call)
{
    int code = errno;
    return fail(error, g_strdup_printf("%s: %s", call, g_strerror(code)));
}

int syslog_priority(GLogLevelFlags level)
{
    if (level & G_LOG_LEVEL_ERROR)
        return LOG_CRIT;
    if (level & G_LOG_LEVEL_CRITICAL)
        return LOG_ERR;
    if (level & G_LOG_LEVEL_WARNING)
        return LOG_WARNING;
    if (level & G_LOG_LEVEL_MESSAGE)
        return LOG_NOTICE;
    if (level & G_LOG_LEVEL_INFO)
        return LOG_INFO;
    return LOG_DEBUG;
}

GLogWriterOutput write_to_syslog(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer)
{
    const char* domain = nullptr;
    const GLogField* message = nullptr;
    for (gsize i = 0; i < count; ++i) {
        if (g_strcmp0(fields[i].key, "MESSAGE") == 0)
            message = &fields[i];
        else if (g_strcmp0(fields[i].key, "GLIB_DOMAIN") == 0 && fields[i].length < 0)
            domain = static_cast<const char*>(fields[i].value);
    }
    if (!message || g_log_writer_default_would_drop(level, domain))
        return G_LOG_WRITER_HANDLED;

    const char* text = static_cast<const char*>(message->value);
    if (message->length < 0)
        syslog(syslog_priority(level), "%s", text);
    else
        syslog(syslog_priority(level), "%.*s", static_cast<int>(message->length), text);
    return G_LOG_WRITER_HANDLED;
}

// Puts the caller's process in the background; only the grandchild returns,
// with /dev/null on its standard input and, on its standard output, the pipe
// that the calling process waits on for the word that the start succeeded.
int detach(char** error)
{
    // Opened first, so that every failure before the forks is still reported
    // by the process that the caller started.
    unique_fd null_device(::open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!null_device)
        return fail_errno(error, "open /dev/null");
    unique_pipe started;
    if (!started.open())
        return fail_errno(error, "pipe");

    pid_t child = ::fork();
    if (child < 0)
        return fail_errno(error, "fork");
    if (child > 0) {
        // The pipe ends without a word when the grandchild ends first.
        started.write_end.reset();
        char word = 0;
        ssize_t got = 0;
        while ((got = ::read(started.read_end.get(), &word, 1)) < 0 && errno == EINTR) {
        }
        ::_exit(got == 1 ? 0 : 1);
    }
    started.read_end.reset();

    if (::setsid() < 0)
        return fail_errno(error, "setsid");

    // The second fork leaves a process that is not a session leader, so it
    // can never acquire a controlling terminal again.
    child = ::fork();
    if (child < 0)
        return fail_errno(error, "fork");
    if (child > 0)
        ::_exit(0);

    if (::chdir("/") != 0)
        return fail_errno(error, "chdir /");

    if (::dup2(null_device.get(), STDIN_FILENO) < 0 || ::dup2(started.write_end.get(), STDOUT_FILENO) < 0)
        return fail_errno(error, "dup2");
    // A descriptor that landed on a standard stream is that stream now.
    for (unique_fd* fd : {&null_device, &started.write_end})
        if (fd->get() <= STDERR_FILENO)
            fd->release();
    return 0;
}

} // namespace

int qvsd_daemon(const char* ident, int* /* option */, const char* name, const char* /* name2 */, int mode,
                char** error)
{
    if (mode == QVSD_DAEMON_FOREGROUND)
        return 0;
    if (mode != QVSD_DAEMON_BACKGROUND)
        return fail(error, g_strdup_printf("unknown daemon mode %d", mode));

    const char* syslog_ident = ident ? ident : name;
    if (!syslog_ident)
        return fail(error, g_strdup("no program name to log under"));

    int result = detach(error);
    if (result != 0)
        return result;

    // openlog keeps the pointer for the life of the process; an interned
    // string lives as long.
    ::openlog(g_intern_string(syslog_ident), LOG_PID, LOG_DAEMON);
    return 0;
}

void qvsd_daemon_ready(int mode)
{
    if (mode != QVSD_DAEMON_BACKGROUND)
        return;
    const char word = 0;
    while (::write(STDOUT_FILENO, &word, 1) < 0 && errno == EINTR) {
    }
    // Standard input is /dev/null, open for reading and writing.
    ::dup2(STDIN_FILENO, STDOUT_FILENO);
    ::dup2(STDIN_FILENO, STDERR_FILENO);
    g_log_set_writer_func(write_to_syslog, nullptr, nullptr);
}

} // namespace kw
