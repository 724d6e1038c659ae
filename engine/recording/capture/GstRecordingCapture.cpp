#include "engine/recording/capture/GstRecordingCapture.hpp"

#include <fmt/format.h>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "engine/log/Log.hpp"
#include "engine/recording/RecordingError.hpp"
#include "engine/recording/capture/GstSegmentEncoder.hpp"
#include "engine/recording/capture/RecordingCaptureEvents.hpp"
#include "engine/recording/capture/RecordingSampleWriter.hpp"
#include "engine/recording/capture/SerialQueue.hpp"
#include "engine/recording/capture/X11ConnectionLoss.hpp"

namespace tessarin::engine {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr auto kStartDeadline = 10s;
// How long stopping waits for the stream to be down and for the file to be finished.
constexpr auto kEventDeadline = 30s;
// How long a refused start waits for the bus to say why.
constexpr auto kStartFailureDeadline = 2s;
constexpr auto kTrackCatchUpDeadline = 1500ms;

using Event = RecordingCaptureEvents::Event;
using EventResult = RecordingCaptureEvents::Result;

std::string windowClosedMessage(RecordingMode mode) {
    if (mode == RecordingMode::window) {
        return "The selected window closed. Recording was stopped and the take will be saved.";
    }
    return "The selected app's shared windows closed. Recording was stopped and the take will be "
           "saved.";
}

// The loudest sample of an interleaved signed 16-bit buffer, in [0, 1].
double peakLevel(GstBuffer* buffer) {
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) {
        return 0;
    }
    int peak = 0;
    const auto* samples = reinterpret_cast<const int16_t*>(map.data);
    for (gsize i = 0; i < map.size / 2; ++i) {
        const int value = samples[i] < 0 ? -static_cast<int>(samples[i]) : samples[i];
        peak = value > peak ? value : peak;
    }
    gst_buffer_unmap(buffer, &map);
    return static_cast<double>(peak) / 32768.0;
}

// State shared with GStreamer's threads; they hold it through the appsink callbacks' user data,
// so it outlives an abandoned pipeline.
struct Shared {
    std::unique_ptr<SerialQueue> queue;  // "com.tessarin.recording.sample-writer"
    std::unique_ptr<RecordingSampleWriter> writer;  // touched only on `queue`
    std::shared_ptr<RecordingAudioMeter> meter = std::make_shared<RecordingAudioMeter>();
    std::atomic<bool> closed{false};  // no more samples go to the writer
    std::atomic<int64_t> epoch{-1};
    std::atomic<int64_t> lastVideoPTS{-1};

    RecordingCaptureEvents events;

    std::mutex mutex;  // guards the fields below
    bool started = false;  // the first frame is in the file: bus errors now interrupt the take
    std::function<void(std::optional<std::string>)> onInterruption;
    bool interruptionDelivered = false;

    void interrupt(std::optional<std::string> message) {
        std::function<void(std::optional<std::string>)> handler;
        {
            const std::lock_guard lock(mutex);
            if (interruptionDelivered) {
                return;
            }
            interruptionDelivered = true;
            handler = onInterruption;
        }
        if (handler) {
            handler(std::move(message));
        }
    }
};

struct SinkContext {
    std::shared_ptr<Shared> shared;
    std::optional<AudioSource> audio;  // empty: video
};

GstFlowReturn onSample(GstAppSink* sink, gpointer data) {
    auto* context = static_cast<SinkContext*>(data);
    GstSample* sample = gst_app_sink_pull_sample(sink);
    if (sample == nullptr) {
        return GST_FLOW_EOS;
    }
    const std::shared_ptr<Shared>& shared = context->shared;
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    const GstSegment* segment = gst_sample_get_segment(sample);
    if (shared->closed.load() || buffer == nullptr || !GST_BUFFER_PTS_IS_VALID(buffer)) {
        gst_sample_unref(sample);
        return GST_FLOW_OK;
    }
    MediaSample media;
    media.pts = static_cast<int64_t>(
        gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(buffer)));
    media.duration =
        GST_BUFFER_DURATION_IS_VALID(buffer) ? static_cast<int64_t>(GST_BUFFER_DURATION(buffer)) : 0;
    media.payload = std::shared_ptr<void>(gst_buffer_ref(buffer),
                                          [](void* held) { gst_buffer_unref(static_cast<GstBuffer*>(held)); });
    gst_sample_unref(sample);
    if (context->audio) {
        const double level = peakLevel(static_cast<GstBuffer*>(media.payload.get()));
        const AudioSource source = *context->audio;
        shared->queue->post([shared, source, level, media = std::move(media)]() mutable {
            shared->writer->appendAudio(source, std::move(media), level);
        });
    } else {
        shared->lastVideoPTS.store(media.pts);
        shared->queue->post([shared, media = std::move(media)]() mutable {
            shared->writer->appendVideo(std::move(media));
        });
    }
    return GST_FLOW_OK;
}

void attachSink(GstElement* pipeline, const char* name, SinkContext* context) {
    GstElement* element = gst_bin_get_by_name(GST_BIN(pipeline), name);
    GstAppSinkCallbacks callbacks{};
    callbacks.new_sample = onSample;
    gst_app_sink_set_callbacks(GST_APP_SINK(element), &callbacks, context,
                               [](gpointer data) { delete static_cast<SinkContext*>(data); });
    gst_object_unref(element);
}

std::string messageText(GstMessage* message) {
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    std::string text = error != nullptr ? error->message : "The capture stream failed.";
    g_clear_error(&error);
    g_free(debug);
    return text;
}

class GstRecordingCapture final : public RecordingCaptureControlling {
public:
    GstRecordingCapture(RecordingCaptureRequest request, GstCaptureSource source)
        : request_(std::move(request)), source_(std::move(source)) {
        size_ = request_.outputSize ? *request_.outputSize
                                    : fittedRecordingSize(source_.contentSize,
                                                          request_.preferences.maximumDimension);
        if (request_.preferences.systemAudio) {
            audioSources_.push_back(AudioSource::system);
        }
        if (request_.preferences.microphoneID) {
            audioSources_.push_back(AudioSource::microphone);
        }
    }

    ~GstRecordingCapture() override {
        if (pipeline_ != nullptr) {
            teardown();
        }
        stopBusThread();
    }

    void start() override {
        ensureGStreamer();
        if (fs::exists(fs::symlink_status(request_.url))) {
            throw RecordingError::outputExists(request_.url.filename().string());
        }
        shared_->queue = std::make_unique<SerialQueue>("com.tessarin.recording.sample-writer");
        SegmentEncoderSettings settings{request_.url, size_, request_.preferences.framesPerSecond,
                                        audioSources_};
        RecordingSampleWriter::Callbacks callbacks;
        std::weak_ptr<Shared> weak = shared_;
        callbacks.onStarted = [weak](int64_t epoch) {
            if (auto shared = weak.lock()) {
                shared->epoch.store(epoch);
                {
                    const std::lock_guard lock(shared->mutex);
                    shared->started = true;
                }
                shared->events.complete(Event::started, EventResult::success());
            }
        };
        callbacks.onFailure = [weak](const std::string& message) {
            if (auto shared = weak.lock()) {
                // Before the first frame this fails the start; after it, it ends the take.
                shared->events.complete(Event::started, EventResult::failure(message));
                shared->interrupt(message);
            }
        };
        shared_->writer = std::make_unique<RecordingSampleWriter>(
            std::make_unique<GstSegmentEncoder>(settings), request_.preferences.framesPerSecond,
            audioSources_, std::move(callbacks), shared_->meter);

        const std::string description = pipelineText();
        GError* error = nullptr;
        pipeline_ = gst_parse_launch(description.c_str(), &error);
        if (pipeline_ == nullptr || error != nullptr) {
            const std::string reason = error != nullptr ? error->message : "no pipeline";
            g_clear_error(&error);
            throw std::runtime_error("Screen sources could not be loaded. " + reason);
        }
        GstClock* clock = gst_system_clock_obtain();
        gst_pipeline_use_clock(GST_PIPELINE(pipeline_), clock);
        gst_object_unref(clock);
        attachSink(pipeline_, "video", new SinkContext{shared_, std::nullopt});
        for (const AudioSource audio : audioSources_) {
            attachSink(pipeline_, audio == AudioSource::system ? "system" : "microphone",
                       new SinkContext{shared_, audio});
        }
        lossesAtStart_ = x11ConnectionLosses();
        startBusThread();
        if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
            const EventResult refused = shared_->events.wait(Event::started, kStartFailureDeadline);
            throw std::runtime_error("Screen sources could not be loaded. " +
                                     (refused.kind == EventResult::Kind::failed
                                          ? refused.message
                                          : std::string("The capture pipeline did not start.")));
        }
        const EventResult started = shared_->events.wait(Event::started, kStartDeadline);
        if (started.kind == EventResult::Kind::succeeded) {
            return;
        }
        teardown();
        if (started.kind == EventResult::Kind::timedOut) {
            throw RecordingError(RecordingError::Case::timedOut);
        }
        throw std::runtime_error("Screen sources could not be loaded. " + started.message);
    }

    double stop() override {
        if (pipeline_ == nullptr) {
            throw std::logic_error("RecordingCapture::stop without a running capture");
        }
        stopping_.store(true);
        const int64_t stopTime = clockTime();
        shared_->queue->post([shared = shared_, stopTime] { shared->writer->stop(stopTime); });
        const auto deadline = std::chrono::steady_clock::now() + kTrackCatchUpDeadline;
        while (std::chrono::steady_clock::now() < deadline) {
            const int64_t now = clockTime();
            if (shared_->queue->sync([shared = shared_, now] { return shared->writer->reachedStop(now); })) {
                break;
            }
            std::this_thread::sleep_for(20ms);
        }
        const bool tornDown = teardown();
        if (!tornDown) {
            Logger("com.tessarin.recording", "capture").notice("teardown=abandoned");
        }
        // The writer's queue outlives this capture when finishing takes too long (see below),
        // so the task holds Shared by plain pointer and never drops the last reference there.
        Shared* shared = shared_.get();
        shared_->queue->post([shared, endReason = streamEnded_ ? "stream-ended" : "requested-stop",
                              reportPath = reportPath()] {
            EventResult result;
            try {
                result = EventResult::success(shared->writer->finish(endReason));
            } catch (const std::exception& error) {
                result = EventResult::failure(error.what());
            }
            writeReport(reportPath, shared->writer->report());
            shared->events.complete(Event::finished, std::move(result));
        });
        const EventResult finished = shared_->events.wait(Event::finished, kEventDeadline);
        if (finished.kind == EventResult::Kind::timedOut) {
            // Let the finish end on its own; this thread doesn't wait for it any longer.
            std::thread([held = shared_] { held->queue->sync([] {}); }).detach();
            throw RecordingError(RecordingError::Case::timedOut);
        }
        if (finished.kind != EventResult::Kind::succeeded) {
            throw std::runtime_error(finished.message);
        }
        return finished.duration;
    }

    [[nodiscard]] RecordingSize outputSize() const override { return size_; }

    [[nodiscard]] double runningTime() const override {
        const int64_t epoch = shared_->epoch.load();
        const int64_t last = shared_->lastVideoPTS.load();
        if (epoch < 0 || last < epoch) {
            return 0;
        }
        return static_cast<double>(last - epoch) / 1e9;
    }

    [[nodiscard]] RecordingAudioLevels levels() const override { return shared_->meter->levels(); }

    void setOnInterruption(std::function<void(std::optional<std::string>)> handler) override {
        const std::lock_guard lock(shared_->mutex);
        shared_->onInterruption = std::move(handler);
    }

private:
    std::string pipelineText() const {
        const int64_t fps = request_.preferences.framesPerSecond;
        std::string text = fmt::format(
            "{} ! video/x-raw,framerate={}/1 ! videoconvert ! videoscale ! "
            "video/x-raw,format=I420,width={},height={},pixel-aspect-ratio=1/1 ! "
            "appsink name=video sync=false max-buffers=5 drop=false",
            source_.videoSource, fps, size_.width, size_.height);
        for (const AudioSource audio : audioSources_) {
            std::string device = "@DEFAULT_MONITOR@";
            if (audio == AudioSource::microphone) {
                device = *request_.preferences.microphoneID;
            }
            // The device name is passed as a property below the parser: quoting keeps it one word.
            text += fmt::format(
                " pulsesrc name={}-source provide-clock=false do-timestamp=true "
                "buffer-time=100000 latency-time=20000 ! audioconvert ! audioresample ! "
                "audio/x-raw,format=S16LE,layout=interleaved,rate=48000,channels=2 ! "
                "appsink name={} sync=false max-buffers=50 drop=false",
                audio == AudioSource::system ? "system" : "microphone",
                audio == AudioSource::system ? "system" : "microphone");
            devices_.emplace_back(audio, device);
        }
        return text;
    }

    int64_t clockTime() const {
        GstClock* clock = gst_element_get_clock(pipeline_);
        if (clock == nullptr) {
            return 0;
        }
        const GstClockTime now = gst_clock_get_time(clock);
        gst_object_unref(clock);
        return static_cast<int64_t>(now - gst_element_get_base_time(pipeline_));
    }

    void startBusThread() {
        for (const auto& [audio, device] : devices_) {
            GstElement* element = gst_bin_get_by_name(
                GST_BIN(pipeline_), audio == AudioSource::system ? "system-source" : "microphone-source");
            if (device != "default") {
                g_object_set(element, "device", device.c_str(), nullptr);
            }
            gst_object_unref(element);
        }
        GstBus* bus = gst_element_get_bus(pipeline_);
        busThread_ = std::thread([this, bus] {
            while (!busDone_.load()) {
                GstMessage* message = gst_bus_timed_pop_filtered(
                    bus, 100 * GST_MSECOND,
                    static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS));
                if (message == nullptr) {
                    continue;
                }
                const bool isError = GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR;
                const std::string text = isError ? messageText(message) : std::string();
                const std::string origin =
                    GST_MESSAGE_SRC(message) != nullptr ? GST_OBJECT_NAME(GST_MESSAGE_SRC(message)) : "";
                gst_message_unref(message);
                {
                    std::unique_lock lock(shared_->mutex);
                    if (!shared_->started) {
                        lock.unlock();
                        shared_->events.rejectStart(text.empty() ? "The capture stream ended."
                                                                 : text);
                        continue;
                    }
                }
                if (!stopping_.load()) {
                    streamEnded_ = true;
                    shared_->interrupt(interruptionMessage(origin));
                }
            }
            gst_object_unref(bus);
        });
    }

    // What ended the stream, by the element that reported it: a sound source, or the picture.
    std::optional<std::string> interruptionMessage(const std::string& origin) const {
        if (origin == "microphone-source") {
            return "The selected microphone disconnected. Tessarin did not switch to another "
                   "microphone.";
        }
        if (origin == "system-source") {
            return "System audio ended before the recording finished. Captured parts have been "
                   "kept. Choose Retry saving to recover them.";
        }
        if (request_.target.mode == RecordingMode::window || request_.target.mode == RecordingMode::app) {
            return windowClosedMessage(request_.target.mode);
        }
        return std::nullopt;  // the session names what is gone
    }

    void stopBusThread() {
        busDone_.store(true);
        if (busThread_.joinable()) {
            busThread_.join();
        }
    }

    // Stops the capture pipeline. A source whose thread is stuck (an X server that went away
    // parks it) can't be joined: the pipeline is then left behind rather than hanging the take.
    bool teardown() {
        shared_->closed.store(true);
        GstElement* pipeline = std::exchange(pipeline_, nullptr);
        if (pipeline == nullptr) {
            return true;
        }
        stopBusThread();
        if (source_.usesX11 && x11ConnectionLosses() != lossesAtStart_) {
            return false;  // deliberately not unreferenced: its parked thread still uses it
        }
        std::thread([pipeline, shared = shared_] {
            gst_element_set_state(pipeline, GST_STATE_NULL);
            gst_object_unref(pipeline);
            shared->events.complete(Event::stopped, EventResult::success());
        }).detach();
        return shared_->events.wait(Event::stopped, kEventDeadline).kind ==
               EventResult::Kind::succeeded;
    }

    fs::path reportPath() const {
        return request_.url.parent_path() /
               (".tessarin-" + request_.url.stem().string() + ".report.json");
    }

    static void writeReport(const fs::path& path, const nlohmann::json& report) {
        std::ofstream out(path, std::ios::trunc);
        out << report.dump(2) << "\n";
        if (!out) {
            Logger("com.tessarin.recording", "capture")
                .error("Sample writer report could not be saved: " + privateValue(path.string()));
        }
    }

    RecordingCaptureRequest request_;
    GstCaptureSource source_;
    RecordingSize size_;
    std::vector<AudioSource> audioSources_;
    mutable std::vector<std::pair<AudioSource, std::string>> devices_;
    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
    GstElement* pipeline_ = nullptr;
    std::thread busThread_;
    std::atomic<bool> busDone_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<bool> streamEnded_{false};
    uint64_t lossesAtStart_ = 0;
};

}  // namespace

std::unique_ptr<RecordingCaptureControlling> makeGstRecordingCapture(RecordingCaptureRequest request,
                                                                    GstCaptureSource source) {
    return std::make_unique<GstRecordingCapture>(std::move(request), std::move(source));
}

RecordingSize fittedRecordingSize(RecordingSize content, int64_t maximumDimension) {
    int64_t width = content.width;
    int64_t height = content.height;
    const int64_t longer = width > height ? width : height;
    if (maximumDimension > 0 && longer > maximumDimension) {
        width = width * maximumDimension / longer;
        height = height * maximumDimension / longer;
    }
    width -= width % 2;
    height -= height % 2;
    return {width < 2 ? 2 : width, height < 2 ? 2 : height};
}

}  // namespace tessarin::engine
