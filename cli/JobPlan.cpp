#include "cli/JobPlan.hpp"

#include "engine/clips/ClipListFile.hpp"
#include "engine/clips/ClipSelection.hpp"

namespace tessarin::cli {

namespace {

using engine::ClipSelection;

std::vector<engine::Trim> trimsOf(const std::vector<ClipSelection>& clips) {
    std::vector<engine::Trim> trims;
    for (const ClipSelection& clip : clips) {
        trims.push_back(clip.trim());
    }
    return trims;
}

}  // namespace

void checkRangeOptions(const RangeOptions& ranges, std::size_t fileCount) {
    if (ranges.trim && !ranges.segments.empty()) {
        throw UsageError("Use either --trim or --segment, not both.");
    }
    if (ranges.clipList && (ranges.trim || !ranges.segments.empty())) {
        throw UsageError("Use --clip-list without --trim and --segment.");
    }
    if (ranges.clipList && fileCount != 1) {
        throw UsageError("A clip list belongs to one video: give --clip-list with one FILE.");
    }
    if (ranges.join && ranges.segments.empty() && !ranges.clipList) {
        throw UsageError("--join needs at least one --segment or a --clip-list.");
    }
}

void loadClipList(RangeOptions& ranges, const std::vector<std::filesystem::path>& files) {
    checkRangeOptions(ranges, files.size());
    if (ranges.clipList) {
        ranges.listedClips = engine::ClipListFile::read(*ranges.clipList, files.front());
    }
}

// --trim takes the --segment form without a name.
engine::Trim parseTrim(const std::string& text) {
    try {
        const ClipSelection clip = ClipSelection::fromSegment(text);
        if (!clip.name().empty()) {
            throw UsageError("Use START,END for --trim (a name belongs to --segment).");
        }
        if (clip.trim().isEmpty()) {
            throw UsageError("--trim needs a start, an end or both.");
        }
        return clip.trim();
    } catch (const ClipSelection::Invalid& invalid) {
        throw UsageError(std::string("--trim ") + text + ": " + invalid.what());
    }
}

std::vector<ClipSelection> parseSegments(const RangeOptions& ranges) {
    if (ranges.clipList) {
        return ranges.listedClips;
    }
    const std::vector<std::string>& segments = ranges.segments;
    if (segments.size() > ClipSelection::kClipLimit) {
        throw UsageError(
            std::string(ClipSelection::Invalid::message(ClipSelection::Invalid::Kind::count)));
    }
    std::vector<ClipSelection> clips;
    for (const std::string& segment : segments) {
        try {
            clips.push_back(ClipSelection::fromSegment(segment));
        } catch (const ClipSelection::Invalid& invalid) {
            throw UsageError("--segment " + segment + ": " + invalid.what());
        }
    }
    return clips;
}

std::vector<PlannedJob> planConversions(const engine::Preset& preset,
                                        const std::vector<std::filesystem::path>& files,
                                        const RangeOptions& ranges) {
    checkRangeOptions(ranges, files.size());
    if (ranges.join && *ranges.join != "keep" && *ranges.join != "remove") {
        throw UsageError("--join takes keep or remove.");
    }
    std::vector<PlannedJob> jobs;
    if (ranges.segments.empty() && !ranges.clipList) {
        engine::Preset trimmed = preset;
        if (ranges.trim) {
            trimmed.options.trim = parseTrim(*ranges.trim);
        }
        for (const auto& file : files) {
            jobs.push_back({file, engine::MediaTask::convert(trimmed), preset.id});
        }
        return jobs;
    }
    const std::vector<ClipSelection> clips = parseSegments(ranges);
    for (const auto& file : files) {
        if (ranges.join) {
            // The job turns removed ranges into kept ones against the source's duration.
            jobs.push_back(
                {file, engine::MediaTask::join(preset, trimsOf(clips), *ranges.join == "remove"),
                 preset.id + " join"});
            continue;
        }
        for (std::size_t index = 0; index < clips.size(); ++index) {
            jobs.push_back(
                {file, engine::taskForClip(engine::MediaTask::convert(preset), clips[index], index),
                 preset.id + " clip " + std::to_string(index + 1)});
        }
    }
    return jobs;
}

std::vector<PlannedJob> planAudioExtractions(const std::string& codec,
                                             const std::vector<std::filesystem::path>& files,
                                             const std::optional<std::string>& trim) {
    static const std::vector<std::pair<std::string, engine::AudioExtractionCodec>> kCodecs = {
        {"aac", engine::AudioExtractionCodec::aac},
        {"wav", engine::AudioExtractionCodec::pcmS16LE},
        {"flac", engine::AudioExtractionCodec::flac},
    };
    const auto found = std::find_if(kCodecs.begin(), kCodecs.end(),
                                    [&](const auto& row) { return row.first == codec; });
    if (found == kCodecs.end()) {
        throw UsageError("--codec takes aac, wav or flac.");
    }
    engine::AudioExtractionOptions options =
        engine::AudioExtractionOptions::make(found->second, 192);
    if (trim) {
        options.trim = parseTrim(*trim);
    }
    std::vector<PlannedJob> jobs;
    for (const auto& file : files) {
        jobs.push_back({file, engine::MediaTask::extractAudio(options), "audio " + codec});
    }
    return jobs;
}

}  // namespace tessarin::cli
