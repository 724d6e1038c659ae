#include "engine/recording/capture/PulseSources.hpp"

#include <gst/gst.h>

#include "engine/recording/capture/GstSegmentEncoder.hpp"

namespace tessarin::engine {

bool pulseSourceAvailable(const std::string& id) {
    ensureGStreamer();
    GstDeviceMonitor* monitor = gst_device_monitor_new();
    gst_device_monitor_add_filter(monitor, "Audio/Source", nullptr);
    bool found = false;
    if (gst_device_monitor_start(monitor)) {
        GList* devices = gst_device_monitor_get_devices(monitor);
        for (GList* item = devices; item != nullptr && !found; item = item->next) {
            auto* device = static_cast<GstDevice*>(item->data);
            GstStructure* properties = gst_device_get_properties(device);
            // The PulseAudio plugin's devices carry the source's own name as "internal-name".
            gchar* name = nullptr;
            if (g_object_class_find_property(G_OBJECT_GET_CLASS(device), "internal-name") !=
                nullptr) {
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
        gst_device_monitor_stop(monitor);
    }
    gst_object_unref(monitor);
    return found;
}

}  // namespace tessarin::engine
