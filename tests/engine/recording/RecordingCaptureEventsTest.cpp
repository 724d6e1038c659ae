// The capture's waiting room: results that come before, during and after waits, from other
// threads; the first result winning; deadlines that end only their own wait; a refused start.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "engine/recording/capture/RecordingCaptureEvents.hpp"

namespace tessarin::engine {
namespace {

using namespace std::chrono_literals;
using Event = RecordingCaptureEvents::Event;
using Result = RecordingCaptureEvents::Result;
using Kind = Result::Kind;

bool waitingBecomes(const RecordingCaptureEvents& events, Event event, int64_t count) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    while (events.waiting(event) != count) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

TEST(RecordingCaptureEvents, TheFirstResultAnswersEveryWaitBeforeAndAfterIt) {
    RecordingCaptureEvents events;
    auto early = std::async(std::launch::async, [&] { return events.wait(Event::finished, 10s); });
    ASSERT_TRUE(waitingBecomes(events, Event::finished, 1));
    std::thread([&] {
        EXPECT_TRUE(events.complete(Event::finished, Result::success(4.5)));
        EXPECT_FALSE(events.complete(Event::finished, Result::failure("late")));
    }).join();
    const Result first = early.get();
    EXPECT_EQ(first.kind, Kind::succeeded);
    EXPECT_DOUBLE_EQ(first.duration, 4.5);
    // A wait after the fact gets the stored result at once, not the later one.
    const auto before = std::chrono::steady_clock::now();
    const Result stored = events.wait(Event::finished, 10s);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 1s);
    EXPECT_EQ(stored.kind, Kind::succeeded);
    EXPECT_DOUBLE_EQ(stored.duration, 4.5);
    // Events are separate: `stopped` has no result yet.
    EXPECT_EQ(events.wait(Event::stopped, 10ms).kind, Kind::timedOut);
}

TEST(RecordingCaptureEvents, ADeadlineEndsOnlyItsOwnWait) {
    RecordingCaptureEvents events;
    auto patient = std::async(std::launch::async, [&] { return events.wait(Event::stopped, 10s); });
    ASSERT_TRUE(waitingBecomes(events, Event::stopped, 1));
    const Result hasty = events.wait(Event::stopped, 100ms);
    EXPECT_EQ(hasty.kind, Kind::timedOut);
    EXPECT_EQ(events.waiting(Event::stopped), 1);  // the patient one still waits
    EXPECT_EQ(patient.wait_for(50ms), std::future_status::timeout);
    events.complete(Event::stopped, Result::failure("The capture stream failed."));
    const Result answered = patient.get();
    EXPECT_EQ(answered.kind, Kind::failed);
    EXPECT_EQ(answered.message, "The capture stream failed.");
    EXPECT_EQ(events.waiting(Event::stopped), 0);
}

TEST(RecordingCaptureEvents, ARefusedStartEndsWaitsForTheFileWithNoOutput) {
    RecordingCaptureEvents events;
    auto finished = std::async(std::launch::async, [&] { return events.wait(Event::finished, 10s); });
    ASSERT_TRUE(waitingBecomes(events, Event::finished, 1));
    EXPECT_FALSE(events.streamStartRejected());
    events.rejectStart("Could not open display");
    EXPECT_TRUE(events.streamStartRejected());
    EXPECT_EQ(finished.get().kind, Kind::noOutput);
    const Result started = events.wait(Event::started, 10ms);
    EXPECT_EQ(started.kind, Kind::failed);
    EXPECT_EQ(started.message, "Could not open display");
    // A first frame arriving after the refusal changes nothing.
    EXPECT_FALSE(events.complete(Event::started, Result::success()));
}

}  // namespace
}  // namespace tessarin::engine
