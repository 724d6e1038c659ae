// ffprobe's JSON as MediaProbe::decode reads it: either a MediaInfo whose numbers are usable and
// whose summary fields agree with its tracks, or MediaProbeError(unparseableOutput) and nothing
// else. The chapters it returns must also be safe to hand to ClipSelection::fromChapters.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string_view>

#include "engine/clips/ClipSelection.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::ClipSelection;
using tessarin::engine::MediaInfo;
using tessarin::engine::MediaProbe;
using tessarin::engine::MediaProbeError;
using tessarin::engine::MediaTrack;
using tessarin::fuzz::require;

void checkInfo(const MediaInfo& info, std::size_t inputSize) {
    // Each stream and chapter takes at least "{}" of the document.
    require(info.tracks.size() <= inputSize / 2, "no more tracks than the document can hold");
    require(info.chapters.size() <= inputSize / 2, "no more chapters than the document can hold");

    for (const std::optional<double>& duration : {info.videoDuration, info.durationSeconds}) {
        if (duration) {
            require(std::isfinite(*duration) && *duration >= 0,
                    "durations are finite, not negative");
        }
    }
    for (const std::optional<double>& start : {info.videoStart, info.timelineStart}) {
        if (start) {
            require(std::isfinite(*start), "start times are finite");
        }
    }

    const auto isKind = [](std::string_view kind) {
        return [kind](const MediaTrack& track) { return track.kind == kind; };
    };
    require(info.hasAudio == std::any_of(info.tracks.begin(), info.tracks.end(), isKind("audio")),
            "hasAudio says whether an audio track exists");
    require(!info.audioCodec || info.hasAudio, "an audio codec only with an audio track");
    require(
        info.videoCodecs.size() == static_cast<std::size_t>(std::count_if(
                                       info.tracks.begin(), info.tracks.end(), isKind("video"))),
        "one video codec entry per video track");

    const bool hasPrimaryVideo = std::any_of(
        info.tracks.begin(), info.tracks.end(),
        [](const MediaTrack& track) { return track.kind == "video" && !track.attachedPicture; });
    if (!hasPrimaryVideo) {
        require(!info.videoCodec && !info.videoStart && !info.videoDuration &&
                    !info.videoFrameCount && !info.width && !info.height && !info.isHDR,
                "no primary-video facts without a primary video stream");
    }

    // The CLI prints this form; the parsed strings were UTF-8, so it must always encode.
    const nlohmann::ordered_json serialised = tessarin::engine::toJson(info);
    const std::string text = serialised.dump();
    require(nlohmann::ordered_json::parse(text) == serialised, "the JSON form reads back");
}

// Chapters go from the probe straight into clip making; that may refuse them only with Invalid.
void checkChapters(const MediaInfo& info) {
    if (info.chapters.empty()) {
        return;
    }
    try {
        const std::vector<ClipSelection> clips =
            ClipSelection::fromChapters(info.chapters, info.durationSeconds);
        require(clips.size() == info.chapters.size(), "one clip per chapter");
        for (const ClipSelection& clip : clips) {
            require(!clip.name().empty(), "every chapter clip has a name");
            require(clip.trim().start && clip.trim().end, "chapter clips are closed ranges");
        }
    } catch (const ClipSelection::Invalid&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::optional<nlohmann::json> document = tessarin::fuzz::parseStrictJson(bytes);
    const bool refusable = !document || !document->is_object();

    MediaInfo info;
    try {
        info = MediaProbe::decode(bytes);
    } catch (const MediaProbeError& error) {
        require(error.kind == MediaProbeError::Kind::unparseableOutput,
                "decoding fails only as unparseableOutput");
        return 0;
    }
    require(!refusable, "text that is not a JSON object is refused");
    checkInfo(info, size);
    checkChapters(info);
    return 0;
}
