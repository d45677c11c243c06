// Ownership of GLib's objects, sources and texts.
#pragma once

#include <functional>
#include <gio/gio.h>
#include <memory>
#include <string>

struct ObjectRelease {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <class T> using ObjectPtr = std::unique_ptr<T, ObjectRelease>;

/// Runs until it is released.
struct SourceRelease {
    void operator()(GSource* source) const {
        g_source_destroy(source);
        g_source_unref(source);
    }
};
using SourcePtr = std::unique_ptr<GSource, SourceRelease>;

/// Calls `function`, of the kind that such a source calls, with `data` whenever the source is ready.
template <class Function> SourcePtr attached(GSource* source, Function* function, gpointer data) {
    g_source_set_callback(source, G_SOURCE_FUNC(function), data, nullptr);
    g_source_attach(source, nullptr);
    return SourcePtr(source);
}

/// Calls `function` with `data` every so many milliseconds.
inline SourcePtr every(guint ms, GSourceFunc function, gpointer data) {
    return attached(g_timeout_source_new(ms), function, data);
}

/// Calls `function` once, so many milliseconds from now, if the loop still runs then. From any thread.
inline void later(guint ms, std::function<void()> function) {
    const GSourceFunc run = [](gpointer data) -> gboolean {
        (*static_cast<std::function<void()>*>(data))();
        return G_SOURCE_REMOVE;
    };
    g_timeout_add_full(G_PRIORITY_DEFAULT, ms, run, new std::function<void()>(std::move(function)),
                       [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

/// A text of the library's, which is freed.
inline std::string taken(char* text) {
    std::string result = text ? text : "";
    g_free(text);
    return result;
}

/// Whether to try again; the error is freed.
inline bool wouldBlock(GError* error) {
    const bool result = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK);
    g_error_free(error);
    return result;
}

/// What an error says; the error is freed.
inline std::string taken(GError* error) {
    std::string result = error->message;
    g_error_free(error);
    return result;
}
