#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/clips/KeyframeProbe.hpp"

namespace tessarin::engine {
namespace {

using Direction = KeyframeProbe::Direction;
using Kind = KeyframeProbe::Failure::Kind;

struct Packet {
    std::optional<std::string> pts;
    std::optional<std::string> duration;
    std::optional<std::string> flags;
};

std::string output(const std::vector<Packet>& packets) {
    nlohmann::json array = nlohmann::json::array();
    for (const Packet& packet : packets) {
        nlohmann::json entry = nlohmann::json::object();
        if (packet.pts) {
            entry["pts_time"] = *packet.pts;
        }
        if (packet.duration) {
            entry["duration_time"] = *packet.duration;
        }
        if (packet.flags) {
            entry["flags"] = *packet.flags;
        }
        array.push_back(entry);
    }
    return nlohmann::json{{"packets", array}}.dump();
}

// One packet every 0.5 s from `from` to `to`, keyframes at the listed times.
std::vector<Packet> stream(double from, double to, const std::vector<double>& keyframes) {
    std::vector<Packet> packets;
    for (double t = from; t < to - 1e-9; t += 0.5) {
        bool key = false;
        for (double k : keyframes) {
            key = key || std::abs(k - t) < 1e-9;
        }
        packets.push_back({fmt::format("{:.6f}", t), "0.500000", key ? "K_" : "__"});
    }
    return packets;
}

// The result of pick(), or the kind of failure it threw.
struct Outcome {
    std::optional<double> seconds;
    std::optional<Kind> failure;
    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* out) {
    if (outcome.seconds) {
        *out << *outcome.seconds << " s";
    } else {
        *out << "failure " << static_cast<int>(*outcome.failure);
    }
}

Outcome pick(const std::string& json, double time, double origin, Direction direction,
             std::optional<double> limit = std::nullopt) {
    try {
        return {KeyframeProbe::pick(json, time, origin, direction, limit), std::nullopt};
    } catch (const KeyframeProbe::Failure& failure) {
        return {std::nullopt, failure.kind()};
    }
}

Outcome at(double seconds) {
    return {seconds, std::nullopt};
}
Outcome failed(Kind kind) {
    return {std::nullopt, kind};
}

TEST(KeyframeProbe, PicksTheNearestKeyframeInEachDirection) {
    const std::string json = output(stream(0, 30, {0, 8, 21}));
    struct Case {
        double time;
        Direction direction;
        Outcome expected;
    };
    const std::vector<Case> cases = {
        {10, Direction::atOrBefore, at(8)},
        {8, Direction::atOrBefore, at(8)},
        {8, Direction::previous, at(0)},
        {8, Direction::next, at(21)},
        {8, Direction::atOrAfter, at(8)},
        {20, Direction::atOrAfter, at(21)},
        {0, Direction::previous, failed(Kind::missing)},
        {22, Direction::next, failed(Kind::missing)},
        // A hair past a keyframe still counts as on it.
        {8.0000004, Direction::atOrBefore, at(8)},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(pick(json, c.time, 0, c.direction), c.expected)
            << c.time << " " << static_cast<int>(c.direction);
    }
}

TEST(KeyframeProbe, DiscardedPacketsAndUnreadableTimesAreNotKeyframes) {
    const std::string json = output({{"0.000000", "0.5", "K_"},
                                     {"2.000000", "0.5", "KD"},
                                     {"3.000000", "0.5", std::nullopt},
                                     {"garbage", "0.5", "K_"},
                                     {"4.000000", "0.5", "__"}});
    EXPECT_EQ(pick(json, 4, 0, Direction::atOrBefore), at(0));
    EXPECT_EQ(
        pick(output({{"inf", "0.5", "K_"}, {"4.0", "0.5", "__"}}), 4, 0, Direction::atOrBefore),
        failed(Kind::timing));
}

TEST(KeyframeProbe, TimesAreOnTheVideosOwnTimeline) {
    const std::string json = output({{"1.400000", "0.5", "K_"},
                                     {"1.399999", "0.5", "__"},
                                     {"2.400000", "0.5", "K_"},
                                     {"3.400000", "0.5", "__"}});
    EXPECT_EQ(pick(json, 1.5, 1.4, Direction::atOrBefore), at(1.0));
    EXPECT_EQ(pick(json, 0.5, 1.4, Direction::atOrBefore), at(0.0));
    // A keyframe a hair before the origin is the start; one well before it is not on the
    // timeline at all.
    EXPECT_EQ(pick(output({{"0.9999995", "0.5", "K_"}, {"1.5", "0.5", "__"}}), 0.2, 1.0,
                   Direction::atOrBefore),
              at(0.0));
    EXPECT_EQ(
        pick(output({{"0.5", "0.5", "K_"}, {"1.5", "0.5", "__"}}), 0.2, 1.0, Direction::atOrBefore),
        failed(Kind::missing));
}

TEST(KeyframeProbe, BackwardSearchNeedsTheScanToReachTheTime) {
    // Keyframes every 60 s: searching back from 45 scans from 15 and sees none.
    EXPECT_EQ(pick(output(stream(15, 50, {})), 45, 0, Direction::atOrBefore),
              failed(Kind::missing));
    // The packet cap ended the scan before the time.
    EXPECT_EQ(pick(output(stream(0, 10, {0, 5})), 12, 0, Direction::atOrBefore),
              failed(Kind::missing));
    EXPECT_EQ(pick(output(stream(0, 10, {0, 5})), 9.8, 0, Direction::atOrBefore), at(5));
    EXPECT_EQ(pick(output(stream(0, 10, {0, 5})), 12, 0, Direction::atOrAfter),
              failed(Kind::missing));
}

TEST(KeyframeProbe, EndOfTheVideoServesAsTheLastBoundary) {
    const std::string json = output(stream(15, 20, {15}));
    EXPECT_EQ(pick(json, 17, 0, Direction::atOrAfter, 20.0), at(20.0));
    EXPECT_EQ(pick(json, 20, 0, Direction::atOrAfter, 20.0), at(20.0));
    // The last packet must end at the limit, within 10 µs.
    EXPECT_EQ(pick(json, 17, 0, Direction::atOrAfter, 20.000005), at(20.000005));
    EXPECT_EQ(pick(json, 17, 0, Direction::atOrAfter, 21.0), failed(Kind::missing));
    EXPECT_EQ(pick(json, 17, 0, Direction::atOrAfter, 16.0), failed(Kind::missing));
    // Every packet that counts needs a time and a positive length.
    std::vector<Packet> broken = stream(15, 20, {15});
    broken[3].duration = "0";
    EXPECT_EQ(pick(output(broken), 17, 0, Direction::atOrAfter, 20.0), failed(Kind::timing));
    broken[3].flags = "_D";
    EXPECT_EQ(pick(output(broken), 17, 0, Direction::atOrAfter, 20.0), at(20.0));
}

TEST(KeyframeProbe, OutputThatIsNotPacketsIsATimingFailure) {
    const double kNaN = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(pick("not json", 1, 0, Direction::next), failed(Kind::timing));
    EXPECT_EQ(pick("[]", 1, 0, Direction::next), failed(Kind::timing));
    EXPECT_EQ(pick(R"({"packets": {}})", 1, 0, Direction::next), failed(Kind::timing));
    EXPECT_EQ(pick(output(stream(0, 5001, {0})), 1, 0, Direction::next), failed(Kind::timing));
    EXPECT_EQ(pick(R"({})", 1, 0, Direction::next), failed(Kind::missing));
    EXPECT_EQ(pick(output(stream(0, 5, {0})), 1, kNaN, Direction::next), failed(Kind::timing));
    EXPECT_EQ(pick(output(stream(0, 5, {0})), -1, 0, Direction::next), failed(Kind::timing));
}

TEST(KeyframeProbe, NulByteAfterThePacketsIsATimingFailure) {
    std::string json = output(stream(0, 5, {0, 2}));
    ASSERT_EQ(pick(json, 1, 0, Direction::next), at(2));
    json.push_back('\0');
    EXPECT_EQ(pick(json, 1, 0, Direction::next), failed(Kind::timing));
    EXPECT_EQ(pick(json + "garbage", 1, 0, Direction::next), failed(Kind::timing));
}

TEST(KeyframeProbe, ArgumentsAskForABoundedStretchOfPackets) {
    const auto tail = [](const std::string& interval) {
        return std::vector<std::string>{"-v",
                                        "error",
                                        "-select_streams",
                                        "V:0",
                                        "-read_intervals",
                                        interval,
                                        "-show_packets",
                                        "-show_entries",
                                        "packet=pts_time,duration_time,flags",
                                        "-of",
                                        "json",
                                        "/in/a.mp4"};
    };
    EXPECT_EQ(KeyframeProbe::arguments("/in/a.mp4", 45, 0, Direction::atOrBefore),
              tail("15.000000%+#10000"));
    EXPECT_EQ(KeyframeProbe::arguments("/in/a.mp4", 12.5, 1.4, Direction::previous),
              tail("1.400000%+#10000"));
    EXPECT_EQ(KeyframeProbe::arguments("/in/a.mp4", 12.5, 1.4, Direction::next),
              tail("13.900000%+#10000"));
    EXPECT_THROW((void)KeyframeProbe::arguments("/in/a.mp4", -0.5, 0, Direction::next),
                 KeyframeProbe::Failure);
}

}  // namespace
}  // namespace tessarin::engine
