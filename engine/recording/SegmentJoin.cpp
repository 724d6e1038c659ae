#include "engine/recording/SegmentJoin.hpp"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <fstream>
#include <string>

#include "engine/clips/Uuid.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "engine/recording/internal/Posix.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;
using internal::posixError;

namespace {

constexpr double kPacketScanTimeout = 120;
constexpr double kJoinTimeoutPerSegment = 120;

std::shared_ptr<ProcessRunner> watchedRunner(const RecordingWork& work) {
    auto runner = std::make_shared<ProcessRunner>();
    if (work.watchRunner) {
        work.watchRunner(runner);
    }
    return runner;
}

std::optional<double> parseSeconds(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

int64_t audioTrackCount(const MediaInfo& info) {
    return std::count_if(info.tracks.begin(), info.tracks.end(),
                         [](const MediaTrack& track) { return track.kind == "audio"; });
}

std::optional<MediaInfo> probeJoined(const fs::path& file, const RecordingWork& work) {
    const auto runner = watchedRunner(work);
    try {
        return MediaProbe::probe(file, work.tools, MediaInputPolicy::unrestricted, *runner);
    } catch (const MediaProbeError& error) {
        if (error.kind == MediaProbeError::Kind::cancelled) {
            throw posixError(ECANCELED, "probe");
        }
        return std::nullopt;
    }
}

std::optional<SegmentScan> scanSegment(const fs::path& file, const RecordingWork& work) {
    const auto runner = watchedRunner(work);
    SegmentScan scan;
    bool opened = false;
    std::optional<double> first;
    std::optional<double> end;
    // "packet,<type>,<pts_time>,<duration_time>" per packet, then "stream,<type>" per stream.
    // Only the running bounds are kept, so a take of hours costs no memory.
    const auto onLine = [&](std::string_view line) {
        if (line.starts_with("stream,")) {
            opened = true;
            const std::string_view type = line.substr(7);
            scan.videoStreams += type == "video" ? 1 : 0;
            scan.audioStreams += type == "audio" ? 1 : 0;
            return;
        }
        if (!line.starts_with("packet,video,")) {
            return;
        }
        line.remove_prefix(13);
        const std::size_t comma = line.find(',');
        const std::optional<double> pts = parseSeconds(line.substr(0, comma));
        if (!pts) {
            return;
        }
        double duration = 0;
        if (comma != std::string_view::npos) {
            duration = parseSeconds(line.substr(comma + 1)).value_or(0);
        }
        first = first ? std::min(*first, *pts) : *pts;
        const double packetEnd = *pts + std::max(duration, 0.0);
        end = end ? std::max(*end, packetEnd) : packetEnd;
    };
    ProcessResult result;
    try {
        result = runner->runLines(work.tools.ffprobe,
                                  {"-v", "error", "-show_entries",
                                   "stream=codec_type:packet=codec_type,pts_time,duration_time",
                                   "-of", "csv=p=1", file.string()},
                                  kPacketScanTimeout, std::nullopt, onLine);
    } catch (const LaunchError&) {
        return std::nullopt;
    }
    if (result.wasCancelled && !result.timedOut) {
        throw posixError(ECANCELED, "packet scan");
    }
    // ffprobe reports the damage of a truncated segment as an error after the readable packets;
    // what was read stands.
    if (result.timedOut || !opened) {
        return std::nullopt;
    }
    if (first && end) {
        scan.videoSeconds = *end - *first;
    }
    return scan;
}

bool concatenateSegments(const fs::path& folder, const std::vector<RecordingSegment>& segments,
                         const fs::path& output, const RecordingWork& work) {
    const fs::path list = folder / (".tessarin-concat-" + Uuid::random().text() + ".txt");
    {
        std::ofstream out(list);
        // Segment names are plain ("segment-00001.mp4"), so the demuxer's safe mode accepts them.
        for (const RecordingSegment& segment : segments) {
            out << "file '" << segment.path.filename().string() << "'\n";
        }
        out.close();
        if (!out) {
            ::unlink(list.c_str());
            throw posixError(EIO, "concat list");
        }
    }
    const auto runner = watchedRunner(work);
    ProcessResult result;
    bool launched = true;
    try {
        result = runner->run(
            work.tools.ffmpeg,
            {"-nostdin", "-hide_banner", "-v", "error", "-f", "concat", "-i", list.string(), "-map",
             "0", "-c", "copy", "-f", "mp4", output.string()},
            false, false, kJoinTimeoutPerSegment * static_cast<double>(segments.size()));
    } catch (const LaunchError&) {
        launched = false;
    }
    ::unlink(list.c_str());
    if (launched && result.wasCancelled && !result.timedOut) {
        throw posixError(ECANCELED, "join");
    }
    return launched && !result.timedOut && result.exitCode == 0;
}

}  // namespace tessarin::engine
