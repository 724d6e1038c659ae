// What a frame export checks in its staging folder before anything is named, the manifest built
// from it, and the contact sheets drawn over it.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "engine/frames/FrameExtractionJob.hpp"
#include "engine/frames/internal/FrameJobPlan.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

constexpr double kTimeTolerance = 0.000001;

bool hasSignature(int fd, FrameImageFormat format) {
    static constexpr unsigned char kJpeg[] = {0xFF, 0xD8, 0xFF};
    static constexpr unsigned char kPng[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    const unsigned char* expected = format == FrameImageFormat::jpeg ? kJpeg : kPng;
    const std::size_t size = format == FrameImageFormat::jpeg ? sizeof kJpeg : sizeof kPng;
    unsigned char head[8] = {};
    const ssize_t got = ::pread(fd, head, size, 0);
    return got == static_cast<ssize_t>(size) && std::equal(head, head + size, expected);
}

// Flushes to the disk; where a full flush is refused, a plain one.
bool flushFile(int fd) {
    if (::fsync(fd) == 0) {
        return true;
    }
    return (errno == EINVAL || errno == ENOTSUP) && ::fdatasync(fd) == 0;
}

// The size of a written picture, from its header: JPEG's start-of-frame or PNG's IHDR.
std::optional<std::pair<int64_t, int64_t>> pictureSize(int fd, FrameImageFormat format) {
    std::vector<unsigned char> bytes(1 << 16);
    const ssize_t got = ::pread(fd, bytes.data(), bytes.size(), 0);
    if (got <= 0) {
        return std::nullopt;
    }
    bytes.resize(static_cast<std::size_t>(got));
    const auto be16 = [&](std::size_t at) { return (bytes[at] << 8) | bytes[at + 1]; };
    if (format == FrameImageFormat::png) {
        if (bytes.size() < 24) {
            return std::nullopt;
        }
        const auto be32 = [&](std::size_t at) {
            return (int64_t{bytes[at]} << 24) | (bytes[at + 1] << 16) | (bytes[at + 2] << 8) |
                   bytes[at + 3];
        };
        return std::pair{be32(16), be32(20)};
    }
    std::size_t at = 2;
    while (at + 9 < bytes.size()) {
        if (bytes[at] != 0xFF) {
            return std::nullopt;
        }
        const unsigned char marker = bytes[at + 1];
        if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 &&
            marker != 0xCC) {
            return std::pair{int64_t{be16(at + 7)}, int64_t{be16(at + 5)}};
        }
        at += 2 + static_cast<std::size_t>(be16(at + 2));
    }
    return std::nullopt;
}

}  // namespace

FrameManifest FrameExtractionJob::verify(const Plan& plan, const FrameSelectionResult& selection,
                                         const Extracted& extracted,
                                         const fs::path& staging) const {
    if (FastCut::SourceStamp::of(source_) != plan.stamp) {
        throw JobFailure::sentence("extraction",
                                   "The video changed while frames were being taken. Try again.");
    }
    const std::size_t expected = selection.frames.size();
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(staging)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    bool exact = names.size() == expected;
    for (std::size_t i = 0; exact && i < names.size(); ++i) {
        exact = names[i] == scratchFrameFileName(static_cast<int64_t>(i + 1), options_.format);
    }
    if (!exact) {
        throw JobFailure::sentence(
            "verify",
            fmt::format("ffmpeg wrote {} files where {} were expected.", names.size(), expected));
    }

    FrameManifest manifest;
    manifest.source.name = source_.filename().string();
    manifest.source.bytes = plan.stamp.bytes;
    manifest.source.modified =
        roundedToMicroseconds(static_cast<double>(plan.stamp.modifiedNanoseconds) / 1e9);
    manifest.source.durationSeconds = roundedToMicroseconds(plan.length);
    manifest.source.width = plan.info.width.value_or(0);
    manifest.source.height = plan.info.height.value_or(0);
    manifest.source.videoCodec = plan.info.videoCodec;
    manifest.window = {roundedToMicroseconds(plan.start), roundedToMicroseconds(plan.end)};
    manifest.decodedUntil = roundedToMicroseconds(plan.start + selection.decodedUntil);
    manifest.settings = {options_.mode, plan.maxFrames, options_.maxSize, options_.format,
                         FrameAnalysisSettings{}};
    manifest.summary = {selection.candidates, static_cast<int64_t>(expected),
                        selection.prunedByBudget};

    for (std::size_t i = 0; i < expected; ++i) {
        const fs::path file = staging / names[i];
        const int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            throw JobFailure::sentence("verify", "A frame could not be read back.");
        }
        struct CloseOnExit {
            int fd;
            ~CloseOnExit() { ::close(fd); }
        } closer{fd};
        struct stat status {};
        const std::string_view kind = options_.format == FrameImageFormat::jpeg ? "JPEG" : "PNG";
        const std::optional<std::pair<int64_t, int64_t>> size = pictureSize(fd, options_.format);
        if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size < 1 ||
            !hasSignature(fd, options_.format) || !size) {
            throw JobFailure::sentence(
                "verify", fmt::format("A frame is empty or not a valid {} image.", kind));
        }
        if (!flushFile(fd)) {
            throw JobFailure::sentence("verify", "A frame could not be saved to the drive.");
        }
        const FrameSelectionResult::Selected& selected = selection.frames[i];
        FrameManifest::Frame frame;
        frame.index = static_cast<int64_t>(i + 1);
        frame.time = roundedToMicroseconds(plan.start + selected.frame.time);
        frame.file = frameFileName(frame.index, frame.time, options_.format);
        frame.pts = extracted.frames[i].pts;
        frame.timeBase = extracted.timeBase;
        frame.width = size->first;
        frame.height = size->second;
        frame.reason = selected.reason;
        frame.changedCells = selected.changedCells;
        frame.holdsUntil = roundedToMicroseconds(plan.start + selected.holdsUntil);
        frame.followingSpanPruned = selected.followingSpanPruned;
        if (!(plan.start - kTimeTolerance <= frame.time &&
              frame.time <= frame.holdsUntil + kTimeTolerance &&
              frame.holdsUntil <= plan.end + kTimeTolerance)) {
            throw JobFailure::sentence(
                "verify", "A frame's time fell outside the requested range. Nothing was saved.");
        }
        manifest.frames.push_back(std::move(frame));
    }
    return manifest;
}

void FrameExtractionJob::drawContactSheets(FrameManifest& manifest, const fs::path& staging,
                                           const Callbacks& callbacks) const {
    if (manifest.frames.empty()) {
        return;
    }
    const double aspect = static_cast<double>(manifest.frames.front().height) /
                          static_cast<double>(std::max<int64_t>(manifest.frames.front().width, 1));
    const std::vector<ContactSheet::Range> ranges =
        ContactSheet::batches(static_cast<int64_t>(manifest.frames.size()));
    std::vector<FrameManifest::Sheet> sheets;
    std::vector<fs::path> written;
    try {
        for (std::size_t k = 0; k < ranges.size(); ++k) {
            std::vector<ContactSheet::Tile> tiles;
            for (int64_t index = ranges[k].first; index <= ranges[k].last; ++index) {
                const FrameManifest::Frame& frame =
                    manifest.frames[static_cast<std::size_t>(index - 1)];
                tiles.push_back({staging / frame.file, frame.index, frame.time});
            }
            const std::vector<unsigned char> jpeg = contactSheetOverride
                                                        ? contactSheetOverride(tiles, aspect)
                                                        : ContactSheet::render(tiles, aspect);
            const std::string name = ranges.size() == 1
                                         ? std::string("contact-sheet.jpg")
                                         : fmt::format("contact-sheet-{:02d}.jpg", k + 1);
            const fs::path path = staging / name;
            const int fd =
                ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
            if (fd < 0) {
                throw ContactSheet::Failure(ContactSheet::Failure::Kind::encoding, "create");
            }
            written.push_back(path);
            const bool complete =
                ::write(fd, jpeg.data(), jpeg.size()) == static_cast<ssize_t>(jpeg.size()) &&
                flushFile(fd);
            ::close(fd);
            if (!complete) {
                throw ContactSheet::Failure(ContactSheet::Failure::Kind::encoding, "write");
            }
            sheets.push_back({name, ranges[k].first, ranges[k].last});
        }
    } catch (const std::exception&) {
        // Sheets are a convenience: without them the export still stands.
        for (const fs::path& path : written) {
            std::error_code ignored;
            fs::remove(path, ignored);
        }
        manifest.warnings.push_back(FrameWarning::contactSheetSkipped);
        if (callbacks.onWarning) {
            callbacks.onWarning(FrameWarning::contactSheetSkipped);
        }
        return;
    }
    manifest.contactSheets = std::move(sheets);
}

}  // namespace tessarin::engine
