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
#include "engine/recording/FrameCrcScan.hpp"
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

namespace {

// Reads one framecrc listing; nothing when it can't be read to its end.
std::optional<SegmentScan> readListing(const fs::path& listing) {
    std::ifstream in(listing);
    FrameCrcScan reader;
    std::string line;
    while (std::getline(in, line)) {
        reader.addLine(line);
    }
    if (!in.eof()) {
        return std::nullopt;
    }
    return SegmentScan{reader.videoStreams(), reader.audioStreams(), reader.videoSeconds()};
}

// Writes the concat demuxer's list of `segments` as a hidden work file in `folder`. Segment names
// are plain ("segment-00001.mp4"), so the demuxer's safe mode accepts them.
fs::path writeConcatList(const fs::path& folder, const std::vector<RecordingSegment>& segments) {
    const fs::path list = folder / (".tessarin-concat-" + Uuid::random().text() + ".txt");
    std::ofstream out(list);
    for (const RecordingSegment& segment : segments) {
        out << "file '" << segment.path.filename().string() << "'\n";
    }
    out.close();
    if (!out) {
        ::unlink(list.c_str());
        throw posixError(EIO, "concat list");
    }
    return list;
}

struct RunOutcome {
    bool succeeded = false;
    std::vector<std::optional<SegmentScan>> scans;  // when succeeded and scans were asked for
};

// One ffmpeg run: with `joined`, the concat demuxer copies `segments` into it (input 0); with
// `scan`, each segment is also an input of its own, copied without decoding into a framecrc
// listing. Work files are removed on every way out.
RunOutcome runJoinAndScan(const fs::path& folder, const std::vector<RecordingSegment>& segments,
                          const std::optional<fs::path>& joined, bool scan,
                          const RecordingWork& work) {
    std::vector<fs::path> workFiles;
    const auto removeWorkFiles = [&workFiles] {
        for (const fs::path& file : workFiles) {
            ::unlink(file.c_str());
        }
    };
    std::vector<std::string> arguments = {"-nostdin", "-hide_banner", "-v", "error", "-y"};
    std::vector<std::string> outputs;
    std::size_t input = 0;
    if (joined) {
        workFiles.push_back(writeConcatList(folder, segments));
        arguments.insert(arguments.end(), {"-f", "concat", "-i", workFiles.back().string()});
        outputs.insert(outputs.end(), {"-map", "0", "-c", "copy", "-f", "mp4", joined->string()});
        ++input;
    }
    std::vector<fs::path> listings;
    if (scan) {
        const std::string stem = ".tessarin-scan-" + Uuid::random().text() + "-";
        for (const RecordingSegment& segment : segments) {
            arguments.insert(arguments.end(), {"-i", segment.path.string()});
            listings.push_back(folder / (stem + std::to_string(listings.size()) + ".txt"));
            workFiles.push_back(listings.back());
            outputs.insert(outputs.end(), {"-map", std::to_string(input++), "-c", "copy", "-f",
                                           "framecrc", listings.back().string()});
        }
    }
    arguments.insert(arguments.end(), outputs.begin(), outputs.end());
    const auto runner = watchedRunner(work);
    ProcessResult result;
    try {
        const double perSegment =
            (scan ? kPacketScanTimeout : 0) + (joined ? kJoinTimeoutPerSegment : 0);
        result = runner->run(work.tools.ffmpeg, arguments, false, false,
                             perSegment * static_cast<double>(segments.size()));
    } catch (const LaunchError&) {
        removeWorkFiles();
        return {};
    }
    if (result.wasCancelled && !result.timedOut) {
        removeWorkFiles();
        throw posixError(ECANCELED, "join");
    }
    RunOutcome outcome;
    outcome.succeeded = !result.timedOut && result.exitCode == 0;
    if (outcome.succeeded) {
        for (const fs::path& listing : listings) {
            outcome.scans.push_back(readListing(listing));
        }
    }
    removeWorkFiles();
    return outcome;
}

}  // namespace

std::vector<std::optional<SegmentScan>> scanSegments(const fs::path& folder,
                                                     const std::vector<RecordingSegment>& segments,
                                                     const RecordingWork& work) {
    std::vector<std::optional<SegmentScan>> scans;
    for (std::size_t start = 0; start < segments.size(); start += kSegmentsPerScan) {
        if (work.isCancelled && work.isCancelled()) {
            throw posixError(ECANCELED, "scan");
        }
        const std::vector<RecordingSegment> batch(
            segments.begin() + static_cast<std::ptrdiff_t>(start),
            segments.begin() + static_cast<std::ptrdiff_t>(std::min(start + kSegmentsPerScan,
                                                                    segments.size())));
        const RunOutcome outcome = runJoinAndScan(folder, batch, std::nullopt, true, work);
        if (outcome.succeeded) {
            scans.insert(scans.end(), outcome.scans.begin(), outcome.scans.end());
            continue;
        }
        for (const RecordingSegment& segment : batch) {
            scans.push_back(scanSegment(segment.path, work));
        }
    }
    return scans;
}

JoinOutcome concatenateSegments(const fs::path& folder, const std::vector<RecordingSegment>& segments,
                                const fs::path& output, const RecordingWork& work) {
    const bool together = segments.size() <= kSegmentsPerScan;
    RunOutcome run = runJoinAndScan(folder, segments, output, together, work);
    JoinOutcome outcome;
    outcome.joined = run.succeeded;
    // A run that failed as a whole says nothing of any one segment: they are scanned apart.
    outcome.scans = together && run.succeeded ? std::move(run.scans)
                                              : scanSegments(folder, segments, work);
    return outcome;
}

}  // namespace tessarin::engine
