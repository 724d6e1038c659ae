// Cuts without re-encoding. A copy can only begin on a keyframe, so a cut is planned first: its
// boundaries move outward to keyframes (the start earlier, the end later, so nothing selected is
// lost), the user reviews the plan, and the export carries out exactly that plan, refusing when
// the file or the boundaries changed since. ConversionJob runs the copy of a `fastCut` task.
//
//   ProcessRunner probeRunner;
//   MediaInfo info = MediaProbe::probe(source, tools, policy, probeRunner, 30, true);
//   FastCut::Plan plan = FastCut::plan(source, Trim{"7", "13"}, info, tools);
//   std::string review = FastCut::summary(plan);  // "Selected 7.000–13.000 s · planned ..."
//
// Plain values and blocking functions for a background thread; nothing is retained.
#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/model/Preset.hpp"
#include "engine/probe/MediaInfo.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::engine {

class FastCut {
public:
    // An exact stamp of a file: equal only when path, size and modification time all are.
    struct SourceStamp {
        std::string path;
        int64_t bytes = 0;
        int64_t modifiedNanoseconds = 0;  // since the epoch

        // The stamp of `file` now, or nothing when it can't be read. Follows symbolic links.
        [[nodiscard]] static std::optional<SourceStamp> of(const std::filesystem::path& file);

        bool operator==(const SourceStamp&) const = default;
    };

    // The reviewed, keyframe-aligned boundaries of one copy, in seconds on the video's timeline.
    struct Plan {
        SourceStamp source;
        double requestedStart = 0;
        double requestedEnd = 0;
        double start = 0;
        double end = 0;
        double videoDuration = 0;
        std::vector<MediaTrack> retainedTracks;  // the first video and the first audio track
        std::vector<MediaTrack> omittedTracks;   // every other track, in source order
        int64_t omittedChapters = 0;

        // Keeps the whole source: starts at 0 and ends at the video's length.
        [[nodiscard]] bool keepsWholeVideo() const;

        bool operator==(const Plan&) const = default;
    };

    // Why a file can't be cut; what() is the sentence shown with it.
    class Failure : public std::exception {
    public:
        enum class Kind { unsupported, range, boundary, changed };

        explicit Failure(Kind kind) noexcept : kind_(kind) {}

        [[nodiscard]] Kind kind() const noexcept { return kind_; }
        [[nodiscard]] const char* what() const noexcept override;

        bool operator==(const Failure& other) const noexcept { return kind_ == other.kind_; }

    private:
        Kind kind_;
    };

    // How far a boundary may move from what was asked.
    static constexpr double kMaximumShiftSeconds = 30.0;

    // Throws Failure(unsupported) unless `info` is H.264 video with AAC or no audio in an MP4 or
    // MOV container whose timeline and video start at zero, with a known, positive length.
    static void checkEligible(const MediaInfo& info);

    // Plans the cut of `trim` (absent sides: the start or the end of the video) of `source`,
    // whose facts are `info` (with chapters, so that the omitted ones can be counted). Runs
    // ffprobe up to three times, each on a fresh runner that `runnerInstalled` receives first
    // so that another thread can cancel it. Throws Failure, ClipSelection::Invalid for a bad
    // trim text, or KeyframeProbe::Failure.
    [[nodiscard]] static Plan plan(
        const std::filesystem::path& source, const Trim& trim, const MediaInfo& info,
        const Tools& tools,
        const std::function<void(std::shared_ptr<ProcessRunner>)>& runnerInstalled = {});

    // ffmpeg's arguments for the copy of `plan` into `output`, progress on standard output.
    [[nodiscard]] static std::vector<std::string> copyArguments(
        const Plan& plan, bool hasAudio, const std::filesystem::path& output);

    // The review's text of a plan: the selected and planned ranges, what is added on each side,
    // and the tracks kept and left out.
    [[nodiscard]] static std::string summary(const Plan& plan);
    // "Keeps: video (h264); audio (aac)", and what is left out.
    [[nodiscard]] static std::string retainedDescription(const Plan& plan);
    // The job's note of a plan it is about to copy.
    [[nodiscard]] static std::string jobNote(const Plan& plan);

    // The plan as JSON with the field names above, and back. fromJson returns nothing for a
    // document that isn't a plan; it never throws but std::bad_alloc.
    [[nodiscard]] static nlohmann::json toJson(const Plan& plan);
    [[nodiscard]] static std::optional<Plan> fromJson(const nlohmann::json& json);
};

}  // namespace tessarin::engine
