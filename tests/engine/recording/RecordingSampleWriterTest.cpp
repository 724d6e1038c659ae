// The sample writer's rules, driven by synthetic samples into an encoder that records what it
// was given: the epoch and audio pre-roll, the 60 fps cadence, the drop rules at stop, and the
// first failure winning.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/recording/capture/RecordingSampleWriter.hpp"

namespace tessarin::engine {
namespace {

using ::testing::ElementsAre;

constexpr int64_t kSecond = 1'000'000'000;

struct Appended {
    WriterTrack track;
    int64_t pts;
    int64_t duration;
    bool operator==(const Appended&) const = default;
};

class RecordingEncoder final : public SegmentEncoder {
public:
    RecordingEncoder(std::vector<Appended>& log, bool& begun, bool& ready)
        : log_(log), begun_(begun), ready_(ready) {}
    void begin() override { begun_ = true; }
    [[nodiscard]] bool ready(WriterTrack) const override { return ready_; }
    [[nodiscard]] bool append(WriterTrack track, const MediaSample&, int64_t pts,
                              int64_t duration) override {
        log_.push_back({track, pts, duration});
        return true;
    }
    [[nodiscard]] std::optional<std::string> error() const override { return std::nullopt; }
    void finish() override {}

private:
    std::vector<Appended>& log_;
    bool& begun_;
    bool& ready_;
};

MediaSample sample(int64_t pts, int64_t duration = 0) {
    return {pts, duration, std::make_shared<int>(0)};
}

struct Harness {
    std::vector<Appended> log;
    bool begun = false;
    bool ready = true;
    std::vector<std::string> failures;
    std::optional<int64_t> started;
    RecordingSampleWriter writer;

    Harness(int64_t fps, std::vector<AudioSource> sources)
        : writer(std::make_unique<RecordingEncoder>(log, begun, ready), fps, std::move(sources),
                 {[this](int64_t epoch) { started = epoch; },
                  [this](const std::string& message) { failures.push_back(message); }}) {}

    std::vector<int64_t> videoTimes() const {
        std::vector<int64_t> times;
        for (const Appended& entry : log) {
            if (entry.track == WriterTrack::video) {
                times.push_back(entry.pts);
            }
        }
        return times;
    }
};

TEST(RecordingSampleWriter, AudioWaitsForTheFirstFrameAndOnlyWhatReachesItIsKept) {
    Harness h(30, {AudioSource::system});
    const int64_t step = 20'000'000;  // 20 ms buffers
    for (int64_t i = 0; i < 10; ++i) {
        h.writer.appendAudio(AudioSource::system, sample(i * step, step), 0.5);
    }
    EXPECT_FALSE(h.begun);  // nothing is written before a frame proves that the stream runs
    h.writer.appendVideo(sample(170'000'000));
    ASSERT_EQ(h.started, 170'000'000);
    // Buffers ending at or before 170 ms are dropped; the one over the epoch starts the file.
    EXPECT_THAT(h.log, ElementsAre(Appended{WriterTrack::system, 0, step},
                                   Appended{WriterTrack::system, 10'000'000, step},
                                   Appended{WriterTrack::video, 0, kSecond / 30}));
    h.writer.appendAudio(AudioSource::system, sample(200'000'000, step), 0.5);
    EXPECT_EQ(h.log.back(), (Appended{WriterTrack::system, 30'000'000, step}));
    EXPECT_TRUE(h.failures.empty());
}

TEST(RecordingSampleWriter, PrerollHoldsAtMost255SamplesThenFails) {
    Harness h(30, {AudioSource::microphone});
    for (int64_t i = 0; i < 255; ++i) {
        h.writer.appendAudio(AudioSource::microphone, sample(i * 1000, 1000), 0);
    }
    EXPECT_TRUE(h.failures.empty());
    h.writer.appendAudio(AudioSource::microphone, sample(255'000, 1000), 0);
    EXPECT_THAT(h.failures,
                ElementsAre("Recording audio pre-roll filled before capture could start."));
    h.writer.appendVideo(sample(300'000));
    EXPECT_TRUE(h.log.empty());  // after the first failure every sample is ignored
    EXPECT_EQ(h.failures.size(), 1u);
}

TEST(RecordingSampleWriter, SixtyFpsTakeOfA120HzStreamWritesEverySecondFrameOnAnEvenGrid) {
    Harness h(60, {});
    const int64_t tick = kSecond / 120;
    for (int64_t i = 0; i < 13; ++i) {
        // A little jitter, as a real compositor has.
        h.writer.appendVideo(sample(i * tick + (i % 3) * 300'000));
    }
    const std::vector<int64_t> times = h.videoTimes();
    ASSERT_GE(times.size(), 5u);
    for (std::size_t i = 0; i < times.size(); ++i) {
        EXPECT_EQ(times[i], static_cast<int64_t>(i) * (kSecond / 60)) << i;
    }
}

TEST(RecordingSampleWriter, ThirtyFpsTakeNeverHoldsAFrame) {
    Harness h(30, {});
    const std::vector<int64_t> arrivals{0, 5'000'000, 9'000'000, 40'000'000, 41'000'000};
    for (const int64_t at : arrivals) {
        h.writer.appendVideo(sample(at));
    }
    EXPECT_EQ(h.videoTimes(), arrivals);
}

TEST(RecordingSampleWriter, NothingAtOrAfterTheStopTimeIsWritten) {
    Harness h(30, {AudioSource::system});
    const int64_t frame = kSecond / 30;
    for (int64_t i = 0; i < 5; ++i) {
        h.writer.appendVideo(sample(i * frame));
    }
    h.writer.appendAudio(AudioSource::system, sample(0, 100'000'000), 0);
    h.writer.stop(5 * frame);
    EXPECT_FALSE(h.writer.reachedStop(5 * frame));  // no frame has reached the stop time yet
    h.writer.appendVideo(sample(5 * frame));
    h.writer.appendVideo(sample(6 * frame));
    h.writer.appendAudio(AudioSource::system, sample(100'000'000, 100'000'000), 0);  // partly in
    h.writer.appendAudio(AudioSource::system, sample(200'000'000, 100'000'000), 0);  // after
    EXPECT_TRUE(h.writer.reachedStop(6 * frame));
    EXPECT_EQ(h.videoTimes().size(), 5u);
    EXPECT_EQ(h.writer.ignoredVideoAfterStop(), 2);
    EXPECT_NEAR(h.writer.finish("requested-stop"), 5.0 / 30, 1e-8);
    const nlohmann::json report = h.writer.report();
    EXPECT_EQ(report["result"], "finished");
    EXPECT_EQ(report["audioTracks"]["system"]["ignoredAfterStop"], 1);
    EXPECT_NEAR(report["terminalVideoPTS"].get<double>(), 5.0 / 30, 1e-8);
}

TEST(RecordingSampleWriter, FailuresAreReportedOnceAndKeepWhatWasWritten) {
    Harness h(30, {AudioSource::system});
    h.writer.appendVideo(sample(0));
    h.writer.appendAudio(AudioSource::system, sample(0, 20'000'000), 0);
    h.writer.appendAudio(AudioSource::system, sample(10'000'000, 5'000'000), 0);
    EXPECT_THAT(h.failures,
                ElementsAre("Recording stopped because captured audio timestamps did not increase."));
    h.ready = false;
    h.writer.appendVideo(sample(kSecond / 30));
    EXPECT_EQ(h.failures.size(), 1u);
    EXPECT_EQ(h.videoTimes().size(), 1u);
    EXPECT_THROW((void)h.writer.finish("requested-stop"), std::runtime_error);
    EXPECT_EQ(h.writer.report()["result"], "failed");

    Harness behind(30, {});
    behind.writer.appendVideo(sample(0));
    behind.ready = false;
    behind.writer.appendVideo(sample(kSecond / 30));
    EXPECT_THAT(behind.failures,
                ElementsAre("Recording stopped because the encoder could not keep up. Captured "
                            "parts have been kept."));
}

}  // namespace
}  // namespace tessarin::engine
