// logind's PrepareForSleep signal on the system bus, watched on a thread of our own with its own
// GLib main context (never the interface's). Without a system bus nothing is watched.
#include <gio/gio.h>

#include <memory>
#include <thread>

#include "engine/recording/session/SleepWatch.hpp"

namespace tessarin::engine {

namespace {

struct SleepWatch {
    GMainContext* context = nullptr;
    GMainLoop* loop = nullptr;
    GDBusConnection* bus = nullptr;
    guint subscription = 0;
    std::function<void()> onSleep;
    std::thread thread;

    ~SleepWatch() {
        g_main_loop_quit(loop);
        if (thread.joinable()) {
            thread.join();
        }
        if (subscription != 0) {
            g_dbus_connection_signal_unsubscribe(bus, subscription);
        }
        g_object_unref(bus);
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }
};

void onPrepareForSleep(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                       GVariant* parameters, gpointer data) {
    gboolean starting = FALSE;
    g_variant_get(parameters, "(b)", &starting);
    if (starting) {
        static_cast<SleepWatch*>(data)->onSleep();
    }
}

}  // namespace

std::shared_ptr<void> watchSystemSleep(std::function<void()> onSleep) {
    GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (bus == nullptr) {
        return nullptr;
    }
    auto watch = std::make_shared<SleepWatch>();
    watch->bus = bus;
    watch->onSleep = std::move(onSleep);
    watch->context = g_main_context_new();
    watch->loop = g_main_loop_new(watch->context, FALSE);
    g_main_context_push_thread_default(watch->context);
    watch->subscription = g_dbus_connection_signal_subscribe(
        bus, "org.freedesktop.login1", "org.freedesktop.login1.Manager", "PrepareForSleep",
        "/org/freedesktop/login1", nullptr, G_DBUS_SIGNAL_FLAGS_NONE, onPrepareForSleep,
        watch.get(), nullptr);
    g_main_context_pop_thread_default(watch->context);
    SleepWatch* raw = watch.get();
    watch->thread = std::thread([raw] {
        g_main_context_push_thread_default(raw->context);
        g_main_loop_run(raw->loop);
        g_main_context_pop_thread_default(raw->context);
    });
    return watch;
}

}  // namespace tessarin::engine
