#include "engine/clips/FastCut.hpp"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>

#include "engine/clips/ClipSelection.hpp"
#include "engine/clips/KeyframeProbe.hpp"
#include "engine/model/TimeText.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

constexpr double kStartTolerance = 0.000001;

bool nearZero(const std::optional<double>& value) {
    return value && std::isfinite(*value) && std::fabs(*value) <= kStartTolerance;
}

bool hasMovFormat(const std::optional<std::string>& container) {
    if (!container) {
        return false;
    }
    std::string_view rest = *container;
    while (!rest.empty()) {
        const std::size_t comma = rest.find(',');
        if (rest.substr(0, comma) == "mov") {
            return true;
        }
        if (comma == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(comma + 1);
    }
    return false;
}

// The length of the video track, or of the file when the track has none.
std::optional<double> videoLength(const MediaInfo& info) {
    const std::optional<double> length =
        info.videoDuration ? info.videoDuration : info.durationSeconds;
    if (!length || !std::isfinite(*length) || *length <= 0) {
        return std::nullopt;
    }
    return length;
}

std::string describeTrack(const MediaTrack& track) {
    std::string text = track.kind;
    std::vector<std::string> details;
    if (track.codec) {
        details.push_back(*track.codec);
    }
    if (track.language && *track.language != "und") {  // "undetermined" says nothing
        details.push_back(*track.language);
    }
    if (!details.empty()) {
        text += " (" + fmt::format("{}", fmt::join(details, ", ")) + ")";
    }
    return text;
}

std::string plural(int64_t count, std::string_view one, std::string_view many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

// One keyframe search on a fresh runner that the caller may cancel.
double search(const fs::path& source, const Tools& tools, double time, double origin,
              KeyframeProbe::Direction direction, std::optional<double> limit,
              const std::function<void(std::shared_ptr<ProcessRunner>)>& runnerInstalled) {
    auto runner = std::make_shared<ProcessRunner>();
    if (runnerInstalled) {
        runnerInstalled(runner);
    }
    return KeyframeProbe::find(source, tools, time, origin, direction, limit, *runner);
}

}  // namespace

std::optional<FastCut::SourceStamp> FastCut::SourceStamp::of(const fs::path& file) {
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return SourceStamp{
        file.string(), static_cast<int64_t>(status.st_size),
        static_cast<int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec};
}

bool FastCut::Plan::keepsWholeVideo() const {
    return start == 0 && end == videoDuration;
}

const char* FastCut::Failure::what() const noexcept {
    switch (kind_) {
        case Kind::unsupported:
            return "Fast cut supports H.264 video with AAC audio or no audio in MP4/MOV files with "
                   "a zero-based video timeline. Use a conversion preset for this source.";
        case Kind::range:
            return "Fast cut needs a nonempty range within the video's length.";
        case Kind::boundary:
            return "A reliable cut boundary was not found nearby. Use a conversion preset instead.";
        case Kind::changed:
            return "The source or cut boundaries changed after review. Review this file again "
                   "before exporting.";
    }
    return "Fast cut failed.";
}

void FastCut::checkEligible(const MediaInfo& info) {
    const bool eligible = info.videoCodec == "h264" &&
                          (!info.hasAudio || info.audioCodec == "aac") &&
                          hasMovFormat(info.container) && nearZero(info.timelineStart) &&
                          nearZero(info.videoStart) && videoLength(info).has_value();
    if (!eligible) {
        throw Failure(Failure::Kind::unsupported);
    }
}

FastCut::Plan FastCut::plan(
    const fs::path& source, const Trim& trim, const MediaInfo& info, const Tools& tools,
    const std::function<void(std::shared_ptr<ProcessRunner>)>& runnerInstalled) {
    checkEligible(info);
    const double length = *videoLength(info);
    const ClipSelection clip(trim);
    const double requestedStart =
        clip.trim().start ? parseTimeSeconds(*clip.trim().start).value_or(0.0) : 0.0;
    const double requestedEnd =
        clip.trim().end ? parseTimeSeconds(*clip.trim().end).value_or(length) : length;
    if (!(requestedStart < requestedEnd && requestedEnd <= length)) {
        throw Failure(Failure::Kind::range);
    }

    const std::optional<SourceStamp> before = SourceStamp::of(source);
    if (!before) {
        throw Failure(Failure::Kind::changed);
    }
    const double origin = *info.videoStart;
    using Direction = KeyframeProbe::Direction;
    const double start = requestedStart == 0
                             ? 0.0
                             : search(source, tools, requestedStart, origin, Direction::atOrBefore,
                                      std::nullopt, runnerInstalled);
    const double end =
        search(source, tools, requestedEnd, origin, Direction::atOrAfter, length, runnerInstalled);
    if (end <= start || end < requestedEnd - kStartTolerance ||
        start > requestedStart + kStartTolerance || end > length ||
        requestedStart - start > kMaximumShiftSeconds ||
        end - requestedEnd > kMaximumShiftSeconds) {
        throw Failure(Failure::Kind::boundary);
    }
    // The copy's tail hangs on its last keyframe; too far from the end, it may not decode.
    const double lastKeyframe =
        search(source, tools, std::max(end - kStartTolerance, start), origin, Direction::atOrBefore,
               std::nullopt, runnerInstalled);
    if (end - lastKeyframe > kMaximumShiftSeconds) {
        throw Failure(Failure::Kind::boundary);
    }
    if (SourceStamp::of(source) != before) {
        throw Failure(Failure::Kind::changed);
    }

    Plan plan;
    plan.source = *before;
    plan.requestedStart = requestedStart;
    plan.requestedEnd = requestedEnd;
    plan.start = start;
    plan.end = end;
    plan.videoDuration = length;
    bool haveVideo = false;
    bool haveAudio = false;
    for (const MediaTrack& track : info.tracks) {
        if (!haveVideo && track.kind == "video" && !track.attachedPicture) {
            haveVideo = true;
            plan.retainedTracks.push_back(track);
        } else if (!haveAudio && track.kind == "audio") {
            haveAudio = true;
            plan.retainedTracks.push_back(track);
        } else {
            plan.omittedTracks.push_back(track);
        }
    }
    plan.omittedChapters = static_cast<int64_t>(info.chapters.size());
    return plan;
}

std::vector<std::string> FastCut::copyArguments(const Plan& plan, bool hasAudio,
                                                const fs::path& output) {
    const double duration = plan.end - plan.start;
    std::vector<std::string> arguments = {"-y",   "-nostdin",
                                          "-v",   "error",
                                          "-ss",  fmt::format("{:.6f}", plan.start),
                                          "-i",   plan.source.path,
                                          "-t",   fmt::format("{:.6f}", duration),
                                          "-map", "0:V:0"};
    if (hasAudio) {
        arguments.insert(arguments.end(), {"-map", "0:a:0"});
    }
    // Drops the video packets before the start and from the end on, untouched, so that the
    // video timeline holds exactly the planned range.
    const std::string filter =
        fmt::format("noise=amount=0:drop='lt(pts*tb,0)+gte(pts*tb,{:.6f}-0.000001)'", duration);
    arguments.insert(arguments.end(),
                     {"-c", "copy", "-bsf:v", filter, "-map_metadata", "0", "-map_chapters", "-1",
                      "-avoid_negative_ts", "disabled", "-movflags", "+faststart", "-progress",
                      "pipe:1", output.string()});
    return arguments;
}

std::string FastCut::retainedDescription(const Plan& plan) {
    std::vector<std::string> kept;
    kept.reserve(plan.retainedTracks.size());
    for (const MediaTrack& track : plan.retainedTracks) {
        kept.push_back(describeTrack(track));
    }
    std::string text = fmt::format("Keeps: {}.", fmt::join(kept, "; "));
    const auto omitted = static_cast<int64_t>(plan.omittedTracks.size());
    if (omitted > 0 || plan.omittedChapters > 0) {
        text += fmt::format(" Leaves out {} and {} chapters. Audio uses whole packets.",
                            plural(omitted, "other track", "other tracks"), plan.omittedChapters);
    }
    return text;
}

std::string FastCut::summary(const Plan& plan) {
    return fmt::format(
        "Selected {:.3f}–{:.3f} s · planned {:.3f}–{:.3f} s. Adds {:.3f} s before and {:.3f} s "
        "after. {}",
        plan.requestedStart, plan.requestedEnd, plan.start, plan.end,
        std::max(0.0, plan.requestedStart - plan.start),
        std::max(0.0, plan.end - plan.requestedEnd), retainedDescription(plan));
}

std::string FastCut::jobNote(const Plan& plan) {
    return fmt::format(
        "Fast cut: requested {:.3f}–{:.3f}s; keyframe range {:.3f}–{:.3f}s. Audio uses whole "
        "packets. First video/audio only; {} other tracks and {} chapters omitted.",
        plan.requestedStart, plan.requestedEnd, plan.start, plan.end, plan.omittedTracks.size(),
        plan.omittedChapters);
}

nlohmann::json FastCut::toJson(const Plan& plan) {
    const auto tracks = [](const std::vector<MediaTrack>& list) {
        nlohmann::json array = nlohmann::json::array();
        for (const MediaTrack& track : list) {
            array.push_back(nlohmann::json(engine::toJson(track)));
        }
        return array;
    };
    return {{"source",
             {{"path", plan.source.path},
              {"bytes", plan.source.bytes},
              {"modified", plan.source.modifiedNanoseconds}}},
            {"requestedStart", plan.requestedStart},
            {"requestedEnd", plan.requestedEnd},
            {"start", plan.start},
            {"end", plan.end},
            {"videoDuration", plan.videoDuration},
            {"retainedTracks", tracks(plan.retainedTracks)},
            {"omittedTracks", tracks(plan.omittedTracks)},
            {"omittedChapters", plan.omittedChapters}};
}

std::optional<FastCut::Plan> FastCut::fromJson(const nlohmann::json& json) {
    const auto optionalText = [](const nlohmann::json& object,
                                 const char* key) -> std::optional<std::string> {
        const auto found = object.find(key);
        if (found == object.end() || !found->is_string()) {
            return std::nullopt;
        }
        return found->get<std::string>();
    };
    const auto readTracks = [&](const nlohmann::json& array, std::vector<MediaTrack>& out) -> bool {
        if (!array.is_array()) {
            return false;
        }
        for (const nlohmann::json& item : array) {
            if (!item.is_object() || !item.contains("index") ||
                !item["index"].is_number_integer() || !item.contains("kind") ||
                !item["kind"].is_string()) {
                return false;
            }
            MediaTrack track;
            track.index = item["index"].get<int64_t>();
            track.kind = item["kind"].get<std::string>();
            track.codec = optionalText(item, "codec");
            track.title = optionalText(item, "title");
            track.language = optionalText(item, "language");
            const auto picture = item.find("attachedPicture");
            track.attachedPicture =
                picture != item.end() && picture->is_boolean() && picture->get<bool>();
            out.push_back(std::move(track));
        }
        return true;
    };
    const auto number = [&](const char* key, double& out) {
        const auto found = json.find(key);
        if (found == json.end() || !found->is_number()) {
            return false;
        }
        out = found->get<double>();
        return std::isfinite(out);
    };
    if (!json.is_object() || !json.contains("source") || !json["source"].is_object()) {
        return std::nullopt;
    }
    const nlohmann::json& source = json["source"];
    Plan plan;
    const std::optional<std::string> path = optionalText(source, "path");
    if (!path || !source.contains("bytes") || !source["bytes"].is_number_integer() ||
        !source.contains("modified") || !source["modified"].is_number_integer() ||
        !json.contains("omittedChapters") || !json["omittedChapters"].is_number_integer()) {
        return std::nullopt;
    }
    plan.source = {*path, source["bytes"].get<int64_t>(), source["modified"].get<int64_t>()};
    plan.omittedChapters = json["omittedChapters"].get<int64_t>();
    if (!number("requestedStart", plan.requestedStart) ||
        !number("requestedEnd", plan.requestedEnd) || !number("start", plan.start) ||
        !number("end", plan.end) || !number("videoDuration", plan.videoDuration) ||
        !json.contains("retainedTracks") ||
        !readTracks(json["retainedTracks"], plan.retainedTracks) ||
        !json.contains("omittedTracks") || !readTracks(json["omittedTracks"], plan.omittedTracks)) {
        return std::nullopt;
    }
    return plan;
}

}  // namespace tessarin::engine
