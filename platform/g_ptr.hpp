#pragma once

// The one place that knows how each GLib, GIO and libnl type is released.
// Everything else holds a g_ptr<T> and never calls an unref or free itself.

#include "platform/event_library.hpp"

#include <gio/gio.h>
#include <glib.h>
#include <ifaddrs.h>
#include <netdb.h>

#include <memory>
#include <string>

struct nl_sock;
struct nl_cache;

extern "C" {
void nl_socket_free(struct nl_sock*);
void nl_cache_free(struct nl_cache*);
}

namespace kw {

template <class T> struct release;

#define KW_RELEASE(T, fn)                                                                          \
    template <> struct release<T> {                                                                \
        void operator()(T* p) const { fn(p); }                                                     \
    };

KW_RELEASE(char, g_free)
KW_RELEASE(guchar, g_free)
KW_RELEASE(char*, g_strfreev)
KW_RELEASE(GDateTime, g_date_time_unref)
KW_RELEASE(GTimeZone, g_time_zone_unref)
KW_RELEASE(GKeyFile, g_key_file_unref)
KW_RELEASE(GError, g_error_free)
KW_RELEASE(GMainLoop, g_main_loop_unref)
KW_RELEASE(GOptionContext, g_option_context_free)
KW_RELEASE(GIOChannel, g_io_channel_unref)
KW_RELEASE(GHashTable, g_hash_table_unref)
KW_RELEASE(GVariant, g_variant_unref)
KW_RELEASE(GVariantBuilder, g_variant_builder_unref)
KW_RELEASE(GDBusNodeInfo, g_dbus_node_info_unref)
KW_RELEASE(GDBusConnection, g_object_unref)
KW_RELEASE(GDBusMessage, g_object_unref)
KW_RELEASE(GCancellable, g_object_unref)
KW_RELEASE(GFile, g_object_unref)
KW_RELEASE(GFileMonitor, g_object_unref)
KW_RELEASE(GSubprocess, g_object_unref)
KW_RELEASE(GSubprocessLauncher, g_object_unref)
KW_RELEASE(GDataInputStream, g_object_unref)
KW_RELEASE(nl_sock, nl_socket_free)
KW_RELEASE(nl_cache, nl_cache_free)
KW_RELEASE(event_producer, event_producer_free)
KW_RELEASE(event_declaration, event_declaration_free)
KW_RELEASE(event, event_free)
KW_RELEASE(ifaddrs, freeifaddrs)
KW_RELEASE(addrinfo, freeaddrinfo)
KW_RELEASE(GThread, g_thread_unref)
KW_RELEASE(GSource, g_source_unref)
KW_RELEASE(GMainContext, g_main_context_unref)

#undef KW_RELEASE

template <class T> using g_ptr = std::unique_ptr<T, release<T>>;

// Takes over a reference (or allocation) that the caller already owns.
template <class T> g_ptr<T> adopt(T* p) { return g_ptr<T>(p); }

// Takes one more reference to a reference-counted GLib object.
inline g_ptr<GDateTime> ref(GDateTime* p) { return g_ptr<GDateTime>(p ? g_date_time_ref(p) : nullptr); }
inline g_ptr<GVariant> ref(GVariant* p) { return g_ptr<GVariant>(p ? g_variant_ref(p) : nullptr); }
inline g_ptr<GDBusConnection> ref(GDBusConnection* p)
{
    return g_ptr<GDBusConnection>(p ? G_DBUS_CONNECTION(g_object_ref(p)) : nullptr);
}

// A GError** out-parameter whose error, if any, is freed by scope.
class error_out {
public:
    error_out() = default;
    error_out(const error_out&) = delete;
    error_out& operator=(const error_out&) = delete;
    ~error_out() { clear(); }

    GError** out()
    {
        clear();
        return &m_error;
    }
    explicit operator bool() const { return m_error != nullptr; }
    const char* message() const { return m_error ? m_error->message : ""; }
    const GError* get() const { return m_error; }
    void clear() { g_clear_error(&m_error); }

private:
    GError* m_error = nullptr;
};

// Copies a GLib string into a std::string and frees it.
inline std::string take_string(char* p)
{
    g_ptr<char> owned(p);
    return owned ? std::string(owned.get()) : std::string();
}

} // namespace kw
