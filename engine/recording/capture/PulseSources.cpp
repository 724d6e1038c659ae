#include "engine/recording/capture/PulseSources.hpp"

#include <gst/gst.h>

#include <atomic>
#include <thread>

#include "engine/recording/capture/GstSegmentEncoder.hpp"

namespace tessarin::engine {

namespace {

// Whether `monitor`'s current device list holds the microphone `id`.
bool listsSource(GstDeviceMonitor* monitor, const std::string& id) {
    GList* devices = gst_device_monitor_get_devices(monitor);
    bool found = false;
    for (GList* item = devices; item != nullptr && !found; item = item->next) {
        auto* device = static_cast<GstDevice*>(item->data);
        GstStructure* properties = gst_device_get_properties(device);
        // The PulseAudio plugin's devices carry the source's own name as "internal-name".
        gchar* name = nullptr;
        if (g_object_class_find_property(G_OBJECT_GET_CLASS(device), "internal-name") != nullptr) {
            g_object_get(device, "internal-name", &name, nullptr);
        }
        const gchar* monitorOf =
            properties != nullptr ? gst_structure_get_string(properties, "device.class") : nullptr;
        const bool isMonitor = monitorOf != nullptr && std::string(monitorOf) == "monitor";
        if (!isMonitor && (id == "default" || (name != nullptr && id == name))) {
            found = true;
        }
        g_free(name);
        if (properties != nullptr) {
            gst_structure_free(properties);
        }
    }
    g_list_free_full(devices, gst_object_unref);
    return found;
}

GstDeviceMonitor* sourceMonitor() {
    ensureGStreamer();
    GstDeviceMonitor* monitor = gst_device_monitor_new();
    gst_device_monitor_add_filter(monitor, "Audio/Source", nullptr);
    return monitor;
}

// Watches the device list on a thread of its own and calls `onGone` once when the source has
// left it. The thread reads the monitor's bus, so no main loop is needed.
class PulseSourceWatch {
public:
    PulseSourceWatch(std::string id, std::function<void()> onGone)
        : id_(std::move(id)), onGone_(std::move(onGone)), monitor_(sourceMonitor()) {
        if (!gst_device_monitor_start(monitor_)) {
            return;  // no sound server: nothing to watch (the take's start checked it)
        }
        started_ = true;
        thread_ = std::thread([this] { run(); });
    }
    ~PulseSourceWatch() {
        stopping_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        if (started_) {
            gst_device_monitor_stop(monitor_);
        }
        gst_object_unref(monitor_);
    }
    PulseSourceWatch(const PulseSourceWatch&) = delete;
    PulseSourceWatch& operator=(const PulseSourceWatch&) = delete;

private:
    void run() {
        GstBus* bus = gst_device_monitor_get_bus(monitor_);
        while (!stopping_) {
            GstMessage* message = gst_bus_timed_pop_filtered(
                bus, 100 * GST_MSECOND,
                static_cast<GstMessageType>(GST_MESSAGE_DEVICE_REMOVED | GST_MESSAGE_DEVICE_ADDED));
            if (message == nullptr) {
                continue;
            }
            const bool removed = GST_MESSAGE_TYPE(message) == GST_MESSAGE_DEVICE_REMOVED;
            gst_message_unref(message);
            if (removed && !listsSource(monitor_, id_)) {
                onGone_();
                break;  // once: the take ends with it
            }
        }
        gst_object_unref(bus);
    }

    std::string id_;
    std::function<void()> onGone_;
    GstDeviceMonitor* monitor_;
    bool started_ = false;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace

bool pulseSourceAvailable(const std::string& id) {
    GstDeviceMonitor* monitor = sourceMonitor();
    bool found = false;
    if (gst_device_monitor_start(monitor)) {
        found = listsSource(monitor, id);
        gst_device_monitor_stop(monitor);
    }
    gst_object_unref(monitor);
    return found;
}

std::shared_ptr<void> watchPulseSource(const std::string& id, std::function<void()> onGone) {
    return std::make_shared<PulseSourceWatch>(id, std::move(onGone));
}

}  // namespace tessarin::engine
