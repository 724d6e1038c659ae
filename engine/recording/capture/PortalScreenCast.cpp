// The ScreenCast portal over GDBus, run synchronously on the calling thread (the session's
// queue, never the Qt main thread) with a private main context for the portal's Response
// signals. The portal remembers the user's choice for the life of the application (persist mode
// 1 and the restore token), so that a resumed segment does not ask again.
//
// This road can't be exercised where there is no portal (Xvfb, CI): it is built against the
// portal's documented interface and is untested here.
#include "engine/recording/capture/PortalScreenCast.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>

namespace tessarin::engine {

namespace {

constexpr const char* kPortalName = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kScreenCast = "org.freedesktop.portal.ScreenCast";
constexpr guint32 kSourceMonitor = 1;
constexpr guint32 kSourceWindow = 2;
constexpr guint32 kCursorHidden = 1;
constexpr guint32 kCursorEmbedded = 2;
constexpr gint kChoiceTimeoutMs = 120'000;  // the user answers the portal's dialog

std::mutex restoreMutex;
std::string restoreToken;  // guarded by restoreMutex

[[noreturn]] void refuse(const std::string& reason) {
    throw std::runtime_error("Screen sources could not be loaded. " + reason);
}

std::string newToken() {
    static std::atomic<unsigned> counter{0};
    return fmt::format("tessarin{}_{}", ::getpid(), counter.fetch_add(1));
}

// One portal request: the call is made, then its Response signal on the request object awaited.
class PortalCall {
public:
    explicit PortalCall(GDBusConnection* bus) : bus_(bus) {
        context_ = g_main_context_new();
        loop_ = g_main_loop_new(context_, FALSE);
    }
    ~PortalCall() {
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
        if (results_ != nullptr) {
            g_variant_unref(results_);
        }
    }

    // Calls `method` with `parameters` (whose options carry `token` as handle_token) and waits
    // for the response; the results dictionary (owned by this object).
    GVariant* call(const char* method, GVariant* parameters, const std::string& token) {
        std::string sender = g_dbus_connection_get_unique_name(bus_) + 1;  // without the ':'
        for (char& c : sender) {
            c = c == '.' ? '_' : c;
        }
        const std::string requestPath =
            fmt::format("/org/freedesktop/portal/desktop/request/{}/{}", sender, token);
        g_main_context_push_thread_default(context_);
        const guint subscription = g_dbus_connection_signal_subscribe(
            bus_, kPortalName, "org.freedesktop.portal.Request", "Response", requestPath.c_str(),
            nullptr, G_DBUS_SIGNAL_FLAGS_NO_MATCH_RULE, &PortalCall::onResponse, this, nullptr);
        GError* error = nullptr;
        GVariant* reply = g_dbus_connection_call_sync(bus_, kPortalName, kPortalPath, kScreenCast,
                                                      method, parameters, nullptr,
                                                      G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
        if (reply != nullptr) {
            g_variant_unref(reply);
            GSource* timeout = g_timeout_source_new(kChoiceTimeoutMs);
            g_source_set_callback(
                timeout, [](gpointer loop) {
                    g_main_loop_quit(static_cast<GMainLoop*>(loop));
                    return G_SOURCE_REMOVE;
                },
                loop_, nullptr);
            g_source_attach(timeout, context_);
            g_main_loop_run(loop_);
            g_source_destroy(timeout);
            g_source_unref(timeout);
        }
        g_dbus_connection_signal_unsubscribe(bus_, subscription);
        g_main_context_pop_thread_default(context_);
        if (error != nullptr) {
            const std::string reason = error->message;
            g_error_free(error);
            refuse(reason);
        }
        if (!answered_) {
            refuse("The screen sharing dialog was not answered in time.");
        }
        if (response_ != 0) {
            refuse(response_ == 1 ? "Screen sharing was cancelled."
                                  : "The screen sharing portal refused the request.");
        }
        return results_;
    }

private:
    static void onResponse(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                           GVariant* parameters, gpointer data) {
        auto* self = static_cast<PortalCall*>(data);
        guint32 response = 2;
        GVariant* results = nullptr;
        g_variant_get(parameters, "(u@a{sv})", &response, &results);
        self->response_ = response;
        self->results_ = results;
        self->answered_ = true;
        g_main_loop_quit(self->loop_);
    }

    GDBusConnection* bus_;
    GMainContext* context_ = nullptr;
    GMainLoop* loop_ = nullptr;
    GVariant* results_ = nullptr;
    guint32 response_ = 2;
    bool answered_ = false;
};

// Keeps the portal session (and its bus connection) open while the capture runs.
struct PortalSession {
    GDBusConnection* bus = nullptr;
    std::string handle;
    int pipewire = -1;

    ~PortalSession() {
        if (bus != nullptr && !handle.empty()) {
            g_dbus_connection_call_sync(bus, kPortalName, handle.c_str(),
                                        "org.freedesktop.portal.Session", "Close", nullptr,
                                        nullptr, G_DBUS_CALL_FLAGS_NONE, 2000, nullptr, nullptr);
        }
        if (pipewire >= 0) {
            ::close(pipewire);
        }
        if (bus != nullptr) {
            g_object_unref(bus);
        }
    }
};

}  // namespace

GstCaptureSource portalSource(const RecordingCaptureRequest& request) {
    auto session = std::make_shared<PortalSession>();
    GError* error = nullptr;
    session->bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
    if (session->bus == nullptr) {
        const std::string reason = error != nullptr ? error->message : "no session bus";
        g_clear_error(&error);
        refuse(reason);
    }

    {
        const std::string token = newToken();
        GVariantBuilder options;
        g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&options, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
        g_variant_builder_add(&options, "{sv}", "session_handle_token",
                              g_variant_new_string(newToken().c_str()));
        PortalCall call(session->bus);
        GVariant* results = call.call("CreateSession", g_variant_new("(a{sv})", &options), token);
        const gchar* handle = nullptr;
        if (!g_variant_lookup(results, "session_handle", "&s", &handle) || handle == nullptr) {
            refuse("The screen sharing portal gave no session.");
        }
        session->handle = handle;
    }
    {
        const std::string token = newToken();
        const bool window = request.target.mode == RecordingMode::window ||
                            request.target.mode == RecordingMode::app;
        GVariantBuilder options;
        g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&options, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
        g_variant_builder_add(&options, "{sv}", "types",
                              g_variant_new_uint32(window ? kSourceWindow : kSourceMonitor));
        g_variant_builder_add(&options, "{sv}", "multiple", g_variant_new_boolean(FALSE));
        g_variant_builder_add(
            &options, "{sv}", "cursor_mode",
            g_variant_new_uint32(request.preferences.showsCursor ? kCursorEmbedded : kCursorHidden));
        g_variant_builder_add(&options, "{sv}", "persist_mode", g_variant_new_uint32(1));
        {
            const std::lock_guard lock(restoreMutex);
            if (!restoreToken.empty()) {
                g_variant_builder_add(&options, "{sv}", "restore_token",
                                      g_variant_new_string(restoreToken.c_str()));
            }
        }
        PortalCall call(session->bus);
        (void)call.call("SelectSources",
                        g_variant_new("(oa{sv})", session->handle.c_str(), &options), token);
    }
    guint32 node = 0;
    RecordingSize size{1920, 1080};
    {
        const std::string token = newToken();
        GVariantBuilder options;
        g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&options, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
        PortalCall call(session->bus);
        GVariant* results =
            call.call("Start", g_variant_new("(osa{sv})", session->handle.c_str(), "", &options),
                      token);
        const gchar* restore = nullptr;
        if (g_variant_lookup(results, "restore_token", "&s", &restore) && restore != nullptr) {
            const std::lock_guard lock(restoreMutex);
            restoreToken = restore;
        }
        GVariant* streams = g_variant_lookup_value(results, "streams", G_VARIANT_TYPE("a(ua{sv})"));
        if (streams == nullptr || g_variant_n_children(streams) == 0) {
            if (streams != nullptr) {
                g_variant_unref(streams);
            }
            refuse("The screen sharing portal gave no stream.");
        }
        GVariant* properties = nullptr;
        g_variant_get_child(streams, 0, "(u@a{sv})", &node, &properties);
        gint32 width = 0;
        gint32 height = 0;
        if (g_variant_lookup(properties, "size", "(ii)", &width, &height) && width > 0 &&
            height > 0) {
            size = {width, height};
        }
        g_variant_unref(properties);
        g_variant_unref(streams);
    }
    {
        GVariantBuilder options;
        g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
        GUnixFDList* descriptors = nullptr;
        GVariant* reply = g_dbus_connection_call_with_unix_fd_list_sync(
            session->bus, kPortalName, kPortalPath, kScreenCast, "OpenPipeWireRemote",
            g_variant_new("(oa{sv})", session->handle.c_str(), &options), G_VARIANT_TYPE("(h)"),
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &descriptors, nullptr, &error);
        if (reply == nullptr) {
            const std::string reason = error != nullptr ? error->message : "no PipeWire remote";
            g_clear_error(&error);
            refuse(reason);
        }
        gint32 index = 0;
        g_variant_get(reply, "(h)", &index);
        g_variant_unref(reply);
        session->pipewire = g_unix_fd_list_get(descriptors, index, &error);
        g_object_unref(descriptors);
        if (session->pipewire < 0) {
            g_clear_error(&error);
            refuse("The screen sharing portal gave no PipeWire connection.");
        }
    }

    // videorate makes the portal's variable-rate stream regular before the capture's caps.
    std::string element = fmt::format(
        "pipewiresrc fd={} path={} do-timestamp=true keepalive-time=1000 always-copy=true ! "
        "videorate",
        session->pipewire, node);
    RecordingSize content = size;
    if (request.target.mode == RecordingMode::area && request.target.area) {
        // The area is in the shared monitor's pixels, as the area picker reports them.
        const RecordingRect& area = *request.target.area;
        const int64_t right = std::max<int64_t>(0, size.width - area.x - area.width);
        const int64_t bottom = std::max<int64_t>(0, size.height - area.y - area.height);
        element += fmt::format(" ! videoconvert ! videocrop left={} top={} right={} bottom={}",
                               area.x, area.y, right, bottom);
        content = {area.width, area.height};
    }
    GstCaptureSource source{element, content, false, session};
    return source;
}

}  // namespace tessarin::engine
