#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

#include "engine/frames/FrameManifest.hpp"

namespace tessarin::engine {
namespace {

using nlohmann::json;
using testing::HasSubstr;

// Two frames of a 10-second 1080p clip, one pruned span, one sheet.
FrameManifest sampleManifest() {
    FrameManifest manifest;
    manifest.source = {
        .name = "clip.mp4",
        .bytes = 1234,
        .modified = 1700000000.25,
        .durationSeconds = 10,
        .width = 1920,
        .height = 1080,
        .videoCodec = "h264",
    };
    manifest.window = {.start = 0, .end = 10};
    manifest.decodedUntil = 10;
    manifest.settings = {
        .mode = FrameSelectionMode::changes,
        .maxFrames = 24,
        .maxSize = 1568,
        .format = FrameImageFormat::jpeg,
        .analysis = {},
    };
    manifest.summary = {.candidates = 3, .kept = 2, .prunedByBudget = 1};
    manifest.frames = {
        {.index = 1,
         .file = "frame-001-0.000s.jpg",
         .time = 0,
         .pts = 0,
         .timeBase = "1/15360",
         .width = 1568,
         .height = 882,
         .reason = FrameManifest::Reason::first,
         .changedCells = std::nullopt,
         .holdsUntil = 4.5,
         .followingSpanPruned = true},
        {.index = 2,
         .file = "frame-002-4.500s.jpg",
         .time = 4.5,
         .pts = 69120,
         .timeBase = "1/15360",
         .width = 1568,
         .height = 882,
         .reason = FrameManifest::Reason::change,
         .changedCells = 120,
         .holdsUntil = 10,
         .followingSpanPruned = false},
    };
    manifest.warnings = {FrameWarning::budgetPruned};
    manifest.contactSheets = std::vector<FrameManifest::Sheet>{
        {.file = "contact-sheet.jpg", .firstFrame = 1, .lastFrame = 2}};
    return manifest;
}

// Written out by hand from the rules: keys in byte order, two-space indentation, the slash of
// the time base as it is.
constexpr std::string_view kSampleText = R"({
  "contactSheets": [
    {
      "file": "contact-sheet.jpg",
      "firstFrame": 1,
      "lastFrame": 2
    }
  ],
  "decodedUntil": 10.0,
  "frames": [
    {
      "file": "frame-001-0.000s.jpg",
      "followingSpanPruned": true,
      "height": 882,
      "holdsUntil": 4.5,
      "index": 1,
      "pts": 0,
      "reason": "first",
      "time": 0.0,
      "timeBase": "1/15360",
      "width": 1568
    },
    {
      "changedCells": 120,
      "file": "frame-002-4.500s.jpg",
      "followingSpanPruned": false,
      "height": 882,
      "holdsUntil": 10.0,
      "index": 2,
      "pts": 69120,
      "reason": "change",
      "time": 4.5,
      "timeBase": "1/15360",
      "width": 1568
    }
  ],
  "settings": {
    "analysis": {
      "activitySeconds": 2.0,
      "cellDelta": 12,
      "cutFraction": 0.25,
      "cutHoldSeconds": 0.5,
      "gridLongEdge": 320,
      "minFraction": 0.0003,
      "pruneGapFactor": 2.0,
      "pruneLongEdge": 160,
      "quietFraction": 0.0002,
      "settleSeconds": 0.3,
      "spacingSeconds": 0.25
    },
    "format": "jpeg",
    "maxFrames": 24,
    "maxSize": 1568,
    "mode": "changes"
  },
  "source": {
    "bytes": 1234,
    "durationSeconds": 10.0,
    "height": 1080,
    "modified": 1700000000.25,
    "name": "clip.mp4",
    "videoCodec": "h264",
    "width": 1920
  },
  "summary": {
    "candidates": 3,
    "kept": 2,
    "prunedByBudget": 1
  },
  "version": 1,
  "warnings": [
    "budget-pruned"
  ],
  "window": {
    "end": 10.0,
    "start": 0.0
  }
}
)";

// Runs `body` and gives what the DecodingError said, or nothing when it decoded.
template <typename Body>
std::optional<std::string> decodingError(Body body) {
    try {
        static_cast<void>(body());
    } catch (const FrameManifest::DecodingError& error) {
        return error.what();
    }
    return std::nullopt;
}

// ---- JSON form ---------------------------------------------------------------------------------

TEST(FrameManifest, EncodesSortedPrettyTextWithSlashesAsTheyAre) {
    EXPECT_EQ(sampleManifest().encodedText(), kSampleText);
}

TEST(FrameManifest, RoundTripsThroughDataAndTextWithEveryCase) {
    EXPECT_EQ(FrameManifest::decoded(sampleManifest().encoded()), sampleManifest());

    FrameManifest manifest = sampleManifest();
    manifest.settings.mode = FrameSelectionMode::interval;
    manifest.settings.format = FrameImageFormat::png;
    manifest.source.videoCodec.reset();
    manifest.warnings = {FrameWarning::hdrNotToneMapped, FrameWarning::decodedShort,
                         FrameWarning::budgetPruned, FrameWarning::permissionsNotEnforced,
                         FrameWarning::contactSheetSkipped};
    const std::vector<FrameReason> reasons = {
        FrameReason::first,     FrameReason::change, FrameReason::transient, FrameReason::activity,
        FrameReason::unsettled, FrameReason::last,   FrameReason::interval};
    manifest.frames.clear();
    for (std::size_t i = 0; i < reasons.size(); ++i) {
        const auto index = static_cast<int64_t>(i) + 1;
        manifest.frames.push_back({.index = index,
                                   .file = frameFileName(index, 0.5 * index, FrameImageFormat::png),
                                   .time = 0.5 * static_cast<double>(index),
                                   .pts = 7680 * index,
                                   .timeBase = "1/15360",
                                   .width = 64,
                                   .height = 36,
                                   .reason = reasons[i],
                                   .changedCells = index * 3,
                                   .holdsUntil = 0.5 * static_cast<double>(index) + 0.5,
                                   .followingSpanPruned = i % 2 == 0});
    }
    manifest.settings.analysis.minFraction = 0.000125;
    manifest.settings.analysis.cellDelta = 9;

    EXPECT_EQ(FrameManifest::decodedText(manifest.encodedText()), manifest);
}

// Absent values are left out, never written as null; an empty sheet list is kept apart from none.
TEST(FrameManifest, LeavesAbsentValuesOut) {
    FrameManifest manifest = sampleManifest();
    manifest.contactSheets.reset();
    manifest.source.videoCodec.reset();
    manifest.frames[0].reason = FrameReason::interval;

    const json encoded = manifest.encoded();
    EXPECT_FALSE(encoded.contains("contactSheets"));
    EXPECT_FALSE(encoded.at("source").contains("videoCodec"));
    EXPECT_FALSE(encoded.at("frames")[0].contains("changedCells"));
    EXPECT_EQ(encoded.at("frames")[1].at("changedCells"), 120);
    EXPECT_THAT(manifest.encodedText(), testing::Not(HasSubstr("null")));
    EXPECT_EQ(FrameManifest::decoded(encoded).contactSheets, std::nullopt);

    manifest.contactSheets.emplace();
    EXPECT_EQ(manifest.encoded().at("contactSheets"), json::array());
    EXPECT_EQ(FrameManifest::decoded(manifest.encoded()), manifest);
}

TEST(FrameManifest, RoundsEveryTimeToTheMicrosecond) {
    FrameManifest manifest = sampleManifest();
    manifest.source.modified = 1700000000.1234567;
    manifest.source.durationSeconds = 10.0000004;
    manifest.window = {.start = 60.0000016, .end = 69.9999996};
    manifest.decodedUntil = 69.12345649;
    manifest.frames[0].time = 72.50000049;
    manifest.frames[0].holdsUntil = 1.23456789;

    const json encoded = manifest.encoded();
    EXPECT_EQ(encoded.at("source").at("modified").get<double>(), 1700000000.123457);
    EXPECT_EQ(encoded.at("source").at("durationSeconds").get<double>(), 10.0);
    EXPECT_EQ(encoded.at("window").at("start").get<double>(), 60.000002);
    EXPECT_EQ(encoded.at("window").at("end").get<double>(), 70.0);
    EXPECT_EQ(encoded.at("decodedUntil").get<double>(), 69.123456);
    EXPECT_EQ(encoded.at("frames")[0].at("time").get<double>(), 72.5);
    EXPECT_EQ(encoded.at("frames")[0].at("holdsUntil").get<double>(), 1.234568);
    EXPECT_THAT(manifest.encodedText(), HasSubstr("\"holdsUntil\": 1.234568,"));
}

TEST(FrameManifest, RoundingGivesNoNegativeZero) {
    EXPECT_FALSE(std::signbit(roundedToMicroseconds(-0.0000004)));
    EXPECT_EQ(roundedToMicroseconds(-0.0000004), 0.0);
    EXPECT_EQ(roundedToMicroseconds(-1.2345674), -1.234567);
    EXPECT_EQ(roundedToMicroseconds(3599.2500006), 3599.250001);
}

TEST(FrameManifest, RefusesToEncodeANonFiniteTime) {
    FrameManifest manifest = sampleManifest();
    manifest.window.end = std::numeric_limits<double>::infinity();

    try {
        static_cast<void>(manifest.encoded());
        FAIL() << "encoded a non-finite time";
    } catch (const std::invalid_argument& error) {
        EXPECT_STREQ(error.what(), "window.end is not a finite number");
    }
}

TEST(FrameManifest, WritesTextThatIsNotUtf8AsReplacementCharacters) {
    FrameManifest manifest = sampleManifest();
    manifest.source.name = "clip\xff.mp4";

    EXPECT_THAT(manifest.encodedText(), HasSubstr("\"name\": \"clip\xEF\xBF\xBD.mp4\""));
}

TEST(FrameManifest, DecodingIgnoresUnknownKeysAndTakesNullAsAbsent) {
    json encoded = sampleManifest().encoded();
    encoded["producer"] = "a later version";
    encoded["frames"][0]["score"] = 0.5;
    encoded["source"]["videoCodec"] = nullptr;

    FrameManifest expected = sampleManifest();
    expected.source.videoCodec.reset();
    EXPECT_EQ(FrameManifest::decoded(encoded), expected);
}

struct DecodingFailureCase {
    std::string name;
    json::json_pointer pointer;
    json value;  // a discarded value removes the key
    std::string message;
};

// Shown by its name in test listings.
void PrintTo(const DecodingFailureCase& failure, std::ostream* stream) {
    *stream << failure.name;
}

class FrameManifestDecodingFailure : public testing::TestWithParam<DecodingFailureCase> {};

TEST_P(FrameManifestDecodingFailure, NamesTheKey) {
    json encoded = sampleManifest().encoded();
    const DecodingFailureCase& failure = GetParam();
    if (failure.value.is_discarded()) {
        encoded[failure.pointer.parent_pointer()].erase(failure.pointer.back());
    } else {
        encoded[failure.pointer] = failure.value;
    }

    EXPECT_EQ(decodingError([&] { return FrameManifest::decoded(encoded); }), failure.message);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FrameManifestDecodingFailure,
    testing::Values(
        DecodingFailureCase{"UnknownReason", json::json_pointer("/frames/1/reason"), "sideways",
                            "frames[1].reason: unknown value \"sideways\""},
        DecodingFailureCase{"UnknownWarning", json::json_pointer("/warnings/0"), "too-late",
                            "warnings[0]: unknown value \"too-late\""},
        DecodingFailureCase{"UnknownMode", json::json_pointer("/settings/mode"), "all",
                            "settings.mode: unknown value \"all\""},
        DecodingFailureCase{"UnknownFormat", json::json_pointer("/settings/format"), "gif",
                            "settings.format: unknown value \"gif\""},
        DecodingFailureCase{"ReasonOfWrongType", json::json_pointer("/frames/0/reason"), 1,
                            "frames[0].reason: not a string"},
        DecodingFailureCase{"PtsAsText", json::json_pointer("/frames/0/pts"), "0",
                            "frames[0].pts: not an integer"},
        DecodingFailureCase{"FractionalIndex", json::json_pointer("/frames/0/index"), 1.5,
                            "frames[0].index: not an integer"},
        DecodingFailureCase{"BytesBeyondInt64", json::json_pointer("/source/bytes"),
                            json(uint64_t{1} << 63U), "source.bytes: integer out of range"},
        DecodingFailureCase{"TimeAsText", json::json_pointer("/window/start"), "0",
                            "window.start: not a number"},
        DecodingFailureCase{"PrunedAsNumber", json::json_pointer("/frames/0/followingSpanPruned"),
                            1, "frames[0].followingSpanPruned: not a Boolean"},
        DecodingFailureCase{"FramesAsObject", json::json_pointer("/frames"), json::object(),
                            "frames: not an array"},
        DecodingFailureCase{"SheetsAsText", json::json_pointer("/contactSheets"), "none",
                            "contactSheets: not an array"},
        DecodingFailureCase{"MissingSummary", json::json_pointer("/summary"),
                            json(json::value_t::discarded), "manifest: missing key \"summary\""},
        DecodingFailureCase{
            "MissingAnalysisKey", json::json_pointer("/settings/analysis/pruneGapFactor"),
            json(json::value_t::discarded), "settings.analysis: missing key \"pruneGapFactor\""},
        DecodingFailureCase{"SourceAsArray", json::json_pointer("/source"), json::array(),
                            "source: not an object"}),
    [](const testing::TestParamInfo<DecodingFailureCase>& info) { return info.param.name; });

TEST(FrameManifest, DecodingTextThatIsNotJsonFails) {
    const std::optional<std::string> message =
        decodingError([] { return FrameManifest::decodedText("{\"version\": 1"); });
    ASSERT_TRUE(message.has_value());
    EXPECT_THAT(*message, testing::StartsWith("manifest: not JSON"));
    EXPECT_EQ(decodingError([] { return FrameManifest::decodedText("[]"); }),
              "manifest: not an object");
}

TEST(FrameAnalysisSettings, RoundTripsWithAllElevenKeys) {
    const FrameAnalysisSettings settings{.gridLongEdge = 256,
                                         .pruneLongEdge = 128,
                                         .cellDelta = 10,
                                         .minFraction = 0.001,
                                         .quietFraction = 0.0005,
                                         .settleSeconds = 0.4,
                                         .spacingSeconds = 0.2,
                                         .activitySeconds = 3,
                                         .cutFraction = 0.3,
                                         .cutHoldSeconds = 0.6,
                                         .pruneGapFactor = 1.5};
    const json encoded = engine::encoded(settings);

    EXPECT_EQ(encoded.size(), 11U);
    EXPECT_EQ(decodedFrameAnalysisSettings(encoded), settings);
}

// ---- FrameIndex --------------------------------------------------------------------------------

TEST(FrameIndex, GivesOneFrameSizeWhenAllFramesShareIt) {
    const FrameIndex index(sampleManifest(), "/videos/clip-frames");

    EXPECT_EQ(index.directory, "/videos/clip-frames");
    EXPECT_EQ(index.frameSize, (FrameIndex::Size{1568, 882}));
    ASSERT_EQ(index.frames.size(), 2U);
    EXPECT_EQ(index.frames[0].size, std::nullopt);

    const json encoded = index.encoded();
    EXPECT_EQ(encoded.at("frameSize"), json::array({1568, 882}));
    EXPECT_FALSE(encoded.at("frames")[0].contains("size"));
    EXPECT_FALSE(encoded.at("frames")[1].contains("size"));
}

TEST(FrameIndex, GivesEachEntryItsSizeWhenSizesDiffer) {
    FrameManifest manifest = sampleManifest();
    manifest.frames[1].height = 880;

    const json encoded = FrameIndex(manifest, "/videos/clip-frames").encoded();
    EXPECT_FALSE(encoded.contains("frameSize"));
    EXPECT_EQ(encoded.at("frames")[0].at("size"), json::array({1568, 882}));
    EXPECT_EQ(encoded.at("frames")[1].at("size"), json::array({1568, 880}));
}

TEST(FrameIndex, EncodesTheCompactView) {
    FrameManifest manifest = sampleManifest();
    manifest.frames[1].time = 4.50000049;

    const json expected = json::parse(R"({
        "contactSheets": [{"file": "contact-sheet.jpg", "firstFrame": 1, "lastFrame": 2}],
        "directory": "/videos/clip-frames",
        "frameSize": [1568, 882],
        "frames": [
            {"file": "frame-001-0.000s.jpg", "followingSpanPruned": true, "holdsUntil": 4.5,
             "reason": "first", "time": 0.0},
            {"file": "frame-002-4.500s.jpg", "holdsUntil": 10.0, "reason": "change",
             "time": 4.5}
        ],
        "summary": {"candidates": 3, "kept": 2, "prunedByBudget": 1},
        "version": 1,
        "warnings": ["budget-pruned"]
    })");
    EXPECT_EQ(FrameIndex(manifest, "/videos/clip-frames").encoded(), expected);
}

TEST(FrameIndex, HasNoFrameSizeAndNoSheetsWhenThereIsNothing) {
    FrameManifest manifest = sampleManifest();
    manifest.frames.clear();
    manifest.contactSheets.reset();

    const json encoded = FrameIndex(manifest, "/videos/clip-frames").encoded();
    EXPECT_FALSE(encoded.contains("frameSize"));
    EXPECT_FALSE(encoded.contains("contactSheets"));
    EXPECT_EQ(encoded.at("frames"), json::array());
}

// ---- Names -------------------------------------------------------------------------------------

struct FileNameCase {
    int64_t index;
    double time;
    FrameImageFormat format;
    std::string name;
};

TEST(FrameFileName, FollowsTheNamePatterns) {
    const std::vector<FileNameCase> cases = {
        {1, 1.5, FrameImageFormat::jpeg, "frame-001-1.500s.jpg"},
        {12, 3599.25, FrameImageFormat::jpeg, "frame-012-3599.250s.jpg"},
        {7, 0, FrameImageFormat::png, "frame-007-0.000s.png"},
        {999, 12.0004, FrameImageFormat::png, "frame-999-12.000s.png"},
        {1000, 21600, FrameImageFormat::jpeg, "frame-1000-21600.000s.jpg"},
        {1, -0.0000004, FrameImageFormat::jpeg, "frame-001-0.000s.jpg"},
    };
    for (const FileNameCase& c : cases) {
        EXPECT_EQ(frameFileName(c.index, c.time, c.format), c.name) << c.index << " " << c.time;
        // Names up to the budget fit the staging pattern; four digits, which no budget reaches,
        // fall outside it.
        EXPECT_EQ(isFramesStagingName(c.name), c.index < 1000) << c.name;
    }
    EXPECT_EQ(scratchFrameFileName(1, FrameImageFormat::jpeg), "000001.jpg");
    EXPECT_EQ(scratchFrameFileName(1000, FrameImageFormat::png), "001000.png");
}

TEST(FramesStagingName, AcceptsTheFourPatternsOnly) {
    for (const std::string_view name :
         {"contact-sheet.jpg", "contact-sheet-01.jpg", "contact-sheet-123.jpg", "000001.jpg",
          "999999.png", "frame-001-1.500s.jpg", "frame-012-3599.250s.png", "frames.json"}) {
        EXPECT_TRUE(isFramesStagingName(name)) << name;
    }
    const std::string_view refused[] = {"contact-sheet-.jpg",
                                        "contact-sheet.png",
                                        "contact-sheet-01.jpeg",
                                        "contact-sheet-a.jpg",
                                        "00001.jpg",
                                        "0000001.jpg",
                                        "000001.jpeg",
                                        "000001.JPG",
                                        "frame-1000-1.500s.jpg",
                                        "frame-01-1.500s.jpg",
                                        "frame-001-1.5s.jpg",
                                        "frame-001-.500s.jpg",
                                        "frame-001-1.500.jpg",
                                        "frame-001--1.500s.jpg",
                                        "frame-001-1.500s.gif",
                                        "frames.json.tmp",
                                        "xframes.json",
                                        "framesxjson",
                                        "a000001.jpg",
                                        "000001.jpg\n",
                                        "000001.jpg/",
                                        "contact-sheet.jpg.part",
                                        "input",
                                        "out",
                                        ""};
    for (const std::string_view name : refused) {
        EXPECT_FALSE(isFramesStagingName(name)) << '"' << name << '"';
    }
    EXPECT_FALSE(isFramesStagingName(std::string_view("frames.json\0x", 13)));
}

}  // namespace
}  // namespace tessarin::engine
