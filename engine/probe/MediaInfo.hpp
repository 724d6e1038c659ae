// The facts of a source as one ffprobe run saw them. Plain values: copy them freely between
// threads.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace tessarin::engine {

struct MediaTrack {
    int64_t index = 0;  // the stream's index, or its position when ffprobe gave none
    std::string kind;   // ffprobe's codec_type ("video", "audio", "subtitle"...) or "unknown"
    std::optional<std::string> codec;
    std::optional<std::string> title;
    std::optional<std::string> language;
    bool attachedPicture = false;

    bool operator==(const MediaTrack&) const = default;
};

// Times stay ffprobe's strings.
struct MediaChapter {
    std::optional<std::string> start;
    std::optional<std::string> end;
    std::optional<std::string> title;

    bool operator==(const MediaChapter&) const = default;
};

// "Primary video stream" is the first video stream that is not an attached picture (cover art).
struct MediaInfo {
    std::vector<MediaTrack> tracks;          // one per stream, in stream order
    std::optional<std::string> videoCodec;   // of the primary video stream
    std::optional<double> videoStart;        // its start_time; may be negative
    std::optional<double> videoDuration;     // its duration; never negative
    std::optional<std::string> container;    // format_name
    std::optional<double> timelineStart;     // format start_time; may be negative
    std::optional<double> durationSeconds;   // format duration; never negative
    std::optional<int64_t> videoFrameCount;  // nb_frames of the primary video stream
    std::optional<int64_t> width;
    std::optional<int64_t> height;
    bool hasAudio = false;
    std::optional<std::string> audioCodec;  // of the first audio stream
    std::vector<MediaChapter> chapters;     // empty unless chapters were asked for and present
    std::vector<std::optional<std::string>> videoCodecs;  // every video stream, pictures too
    // The primary video stream may need tone mapping: PQ or HLG transfer, BT.2020 primaries,
    // or any 10- or 12-bit pixel format (so 10-bit SDR counts too).
    bool isHDR = false;

    bool operator==(const MediaInfo&) const = default;
};

// JSON objects whose keys are the field names above, in field order; absent values are null.
// Never throws except std::bad_alloc.
[[nodiscard]] nlohmann::ordered_json toJson(const MediaTrack& track);
[[nodiscard]] nlohmann::ordered_json toJson(const MediaChapter& chapter);
[[nodiscard]] nlohmann::ordered_json toJson(const MediaInfo& info);

}  // namespace tessarin::engine
