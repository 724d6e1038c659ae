#include "engine/recording/capture/GstSegmentEncoder.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <unistd.h>

#include <mutex>
#include <stdexcept>

namespace tessarin::engine {

void ensureGStreamer() {
    static std::once_flag once;
    std::call_once(once, [] { gst_init(nullptr, nullptr); });
}

std::string x264Settings(int64_t framesPerSecond) {
    return fmt::format("x264enc speed-preset=veryfast tune=zerolatency key-int-max={} "
                       "threads=0",
                       framesPerSecond);
}

struct GstSegmentEncoder::Pipeline {
    GstElement* pipeline = nullptr;
    GstElement* sources[3] = {nullptr, nullptr, nullptr};  // by WriterTrack
    guint64 maximumQueued = 60;
    std::string error;  // the first error on the bus

    ~Pipeline() {
        for (GstElement* source : sources) {
            if (source != nullptr) {
                gst_object_unref(source);
            }
        }
        if (pipeline != nullptr) {
            gst_element_set_state(pipeline, GST_STATE_NULL);
            gst_object_unref(pipeline);
        }
    }
};

namespace {

std::string errorText(GstMessage* message) {
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    std::string text = error != nullptr ? error->message : "unknown error";
    g_clear_error(&error);
    g_free(debug);
    return text;
}

}  // namespace

GstSegmentEncoder::GstSegmentEncoder(SegmentEncoderSettings settings)
    : settings_(std::move(settings)) {}

GstSegmentEncoder::~GstSegmentEncoder() = default;

void GstSegmentEncoder::begin() {
    ensureGStreamer();
    // The file is claimed exclusively: a segment never overwrites anything. The sink writes each
    // fragment as it comes (unbuffered), so a killed recorder leaves every finished fragment.
    const int claimed = ::open(settings_.url.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (claimed < 0) {
        throw std::runtime_error(errno == EEXIST ? "A recording segment already exists."
                                                 : "Sample writer startup failed.");
    }
    ::close(claimed);

    const RecordingSize size = settings_.size;
    std::string description = fmt::format(
        "appsrc name=video format=time is-live=true do-timestamp=false max-buffers=0 block=false "
        "caps=video/x-raw,format=I420,width={},height={},framerate={}/1,pixel-aspect-ratio=1/1,"
        "colorimetry=bt709 ! queue max-size-buffers=0 max-size-bytes=0 max-size-time=0 ! {} ! "
        "video/x-h264,profile=high ! h264parse ! mp4mux name=mux fragment-duration=1000 "
        "faststart=false ! filesink name=file append=true sync=false buffer-mode=unbuffered",
        size.width, size.height, settings_.framesPerSecond, x264Settings(settings_.framesPerSecond));
    for (const AudioSource source : settings_.audioSources) {
        description += fmt::format(
            " appsrc name={} format=time is-live=true do-timestamp=false max-buffers=0 block=false "
            "caps=audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=2 ! queue "
            "max-size-buffers=0 max-size-bytes=0 max-size-time=0 ! audioconvert ! "
            "avenc_aac bitrate=160000 ! aacparse ! mux.",
            source == AudioSource::system ? "system" : "microphone");
    }
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
    if (pipeline == nullptr || error != nullptr) {
        const std::string reason = error != nullptr ? error->message : "no pipeline";
        g_clear_error(&error);
        if (pipeline != nullptr) {
            gst_object_unref(pipeline);
        }
        throw std::runtime_error(
            fmt::format("The recording encoder cannot configure these tracks. ({})", reason));
    }
    pipeline_ = std::make_unique<Pipeline>();
    pipeline_->pipeline = pipeline;
    pipeline_->maximumQueued = static_cast<guint64>(settings_.framesPerSecond * 2);
    const char* names[3] = {"video", "system", "microphone"};
    for (int i = 0; i < 3; ++i) {
        pipeline_->sources[i] = gst_bin_get_by_name(GST_BIN(pipeline), names[i]);
    }
    GstElement* file = gst_bin_get_by_name(GST_BIN(pipeline), "file");
    g_object_set(file, "location", settings_.url.c_str(), nullptr);
    gst_object_unref(file);
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        throw std::runtime_error("Sample writer startup failed.");
    }
}

bool GstSegmentEncoder::ready(WriterTrack track) const {
    GstElement* source = pipeline_ ? pipeline_->sources[static_cast<int>(track)] : nullptr;
    if (source == nullptr) {
        return false;
    }
    guint64 queued = 0;
    g_object_get(source, "current-level-buffers", &queued, nullptr);
    // Audio buffers are smaller and more frequent than frames; they get the same time budget.
    const guint64 limit = track == WriterTrack::video ? pipeline_->maximumQueued : 200;
    return queued < limit;
}

bool GstSegmentEncoder::append(WriterTrack track, const MediaSample& sample, int64_t pts,
                               int64_t duration) {
    GstElement* source = pipeline_ ? pipeline_->sources[static_cast<int>(track)] : nullptr;
    if (source == nullptr || !sample.payload) {
        return false;
    }
    auto* original = static_cast<GstBuffer*>(sample.payload.get());
    GstBuffer* buffer = gst_buffer_copy(original);  // shares the memory, new timing
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(pts);
    GST_BUFFER_DTS(buffer) = GST_CLOCK_TIME_NONE;
    GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(duration);
    return gst_app_src_push_buffer(GST_APP_SRC(source), buffer) == GST_FLOW_OK;
}

std::optional<std::string> GstSegmentEncoder::error() const {
    if (!pipeline_) {
        return std::nullopt;
    }
    if (pipeline_->error.empty()) {
        GstBus* bus = gst_element_get_bus(pipeline_->pipeline);
        if (GstMessage* message = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR)) {
            pipeline_->error = errorText(message);
            gst_message_unref(message);
        }
        gst_object_unref(bus);
    }
    return pipeline_->error.empty() ? std::nullopt : std::optional(pipeline_->error);
}

void GstSegmentEncoder::finish() {
    if (!pipeline_) {
        return;
    }
    for (GstElement* source : pipeline_->sources) {
        if (source != nullptr) {
            gst_app_src_end_of_stream(GST_APP_SRC(source));
        }
    }
    GstBus* bus = gst_element_get_bus(pipeline_->pipeline);
    GstMessage* message = gst_bus_timed_pop_filtered(
        bus, 30 * GST_SECOND,
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    gst_object_unref(bus);
    std::string failure = pipeline_->error;
    if (failure.empty() && message == nullptr) {
        failure = "Sample writer finalization failed.";
    } else if (failure.empty() && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        failure = errorText(message);
    }
    if (message != nullptr) {
        gst_message_unref(message);
    }
    pipeline_.reset();
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
}

}  // namespace tessarin::engine
