// Ownership of GLib's objects and sources.
#pragma once

#include <gio/gio.h>
#include <memory>

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

/// Calls `function` with `data` every so many milliseconds.
inline SourcePtr every(guint ms, GSourceFunc function, gpointer data) {
    SourcePtr source(g_timeout_source_new(ms));
    g_source_set_callback(source.get(), function, data, nullptr);
    g_source_attach(source.get(), nullptr);
    return source;
}
