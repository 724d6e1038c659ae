#include "app/queue/ActionCatalog.hpp"

#include <array>
#include <string_view>
#include <utility>

#include "engine/encoders/PresetAvailability.hpp"
#include "engine/job/ConversionJob.hpp"

namespace tessarin::app {

namespace {

constexpr std::string_view kRecommendedPresetID = "mp4-h264";
constexpr std::string_view kRecommendation =
    "Recommended for screen recordings, uploads, and everyday sharing";

struct FixedAction {
    ActionID::Kind kind;
    const char* chipName;
    const char* displayName;
    const char* help;
    const char* accessibilityLabel;
    const char* logToken;
};

constexpr std::array<FixedAction, 4> kFixedActions{{
    {ActionID::Kind::extractAudio, "Audio (M4A)", "Audio · Extract to M4A (AAC)",
     "Extract the audio track as an M4A (AAC) file", "Extract audio to M4A",
     "action.extract-audio"},
    {ActionID::Kind::fastCut, "Fast cut", "Fast cut · H.264 MP4 without re-encoding",
     "Cut without re-encoding. Supports one trim range from MP4 or MOV with H.264 video and "
     "optional AAC audio; uses the first video and audio tracks and snaps outward to keyframes.",
     "Fast cut H.264 MP4 without re-encoding", "action.fast-cut"},
    {ActionID::Kind::transcribe, "Transcript", "Transcript · Speech to text",
     "Transcribe the speech in this video to a text or subtitle file", "Transcribe speech to text",
     "action.transcribe"},
    {ActionID::Kind::frames, "Frames", "Frames · Still images for AI tools",
     "Save still images where the screen changes, contact sheets and a frames.json list, for AI "
     "tools that can't watch video",
     "Export still frames for AI tools", "action.frames"},
}};

constexpr std::array<std::pair<std::string_view, std::string_view>, 9> kChipNames{{
    {"mp4-h264", "H.264"},
    {"mp4-h264-half", "H.264 ½"},
    {"mp4-h265", "H.265"},
    {"mp4-h265-half", "H.265 ½"},
    {"gif-small", "GIF ⅓"},
    {"gif-full", "GIF"},
    {"mp4-av1", "AV1"},
    {"mp4-h264-vt", "H.264 ⚡"},
    {"mp4-h265-vt", "H.265 ⚡"},
}};

// Row and notification texts by JobKind case, in the order of its variant.
struct KindTexts {
    const char* running;
    const char* done;
    const char* finishedTitle;
    const char* failedTitle;
};
constexpr std::array<KindTexts, 7> kKindTexts{{
    {"Converting", "Converted", "Conversion finished", "Conversion failed"},
    {"Converting", "Converted", "Conversion finished", "Conversion failed"},
    {"Extracting audio", "Extracted", "Conversion finished", "Conversion failed"},
    {"Cutting without re-encoding", "Fast cut", "Conversion finished", "Conversion failed"},
    {"Cutting without re-encoding", "Fast cut", "Conversion finished", "Conversion failed"},
    {"Transcribing", "Transcribed", "Transcription finished", "Transcription failed"},
    {"Exporting frames", "Frames exported", "Conversion finished", "Frame export failed"},
}};
static_assert(kKindTexts.size() == std::variant_size_v<decltype(JobKind::value)>);

const FixedAction& fixedAction(ActionID::Kind kind) {
    for (const FixedAction& action : kFixedActions) {
        if (action.kind == kind) {
            return action;
        }
    }
    // A preset id is not a fixed action; callers handle it before coming here.
    std::abort();
}

std::optional<std::string> fixedDisabledReason(ActionID::Kind kind,
                                               const ActionAvailability& availability) {
    switch (kind) {
        case ActionID::Kind::transcribe:
            if (!availability.transcriptionModelUsable) {
                return kNoTranscriptionModelSentence;
            }
            break;
        case ActionID::Kind::frames:
            if (!availability.framesAvailable) {
                return kFramesUnavailableSentence;
            }
            break;
        case ActionID::Kind::extractAudio:
        case ActionID::Kind::fastCut:
        case ActionID::Kind::preset:
            break;
    }
    return std::nullopt;
}

}  // namespace

const engine::Preset* JobKind::preset() const {
    if (const auto* convert = std::get_if<Convert>(&value)) {
        return &convert->preset;
    }
    if (const auto* join = std::get_if<Join>(&value)) {
        return &join->preset;
    }
    return nullptr;
}

std::string chipName(const engine::Preset& preset) {
    for (const auto& [id, chip] : kChipNames) {
        if (preset.id == id) {
            return std::string(chip);
        }
    }
    return preset.displayName;
}

ActionDescriptor presetDescriptor(const engine::Preset& preset,
                                  const ActionAvailability& availability) {
    const bool recommended = preset.id == kRecommendedPresetID;
    ActionDescriptor descriptor{
        .id = ActionID::preset(preset.id),
        .chipName = chipName(preset),
        .displayName = preset.displayName,
        .help = recommended ? preset.displayName + ". " + std::string(kRecommendation)
                            : preset.displayName,
        .accessibilityLabel = preset.displayName,
        .rowSubtitle = {},
        .disabledReason =
            engine::presetDisabledReason(preset, availability.encoderPolicy, availability.hardware),
    };
    descriptor.rowSubtitle =
        recommended ? "H.264 compatible MP4. " + std::string(kRecommendation) : descriptor.chipName;
    return descriptor;
}

ActionDescriptor fixedDescriptor(ActionID::Kind kind, const ActionAvailability& availability) {
    const FixedAction& action = fixedAction(kind);
    return ActionDescriptor{
        .id = ActionID{kind, {}},
        .chipName = action.chipName,
        .displayName = action.displayName,
        .help = action.help,
        .accessibilityLabel = action.accessibilityLabel,
        .rowSubtitle = action.displayName,
        .disabledReason = fixedDisabledReason(kind, availability),
    };
}

std::vector<ActionDescriptor> catalog(std::span<const engine::Preset> presets,
                                      const ActionAvailability& availability) {
    std::vector<ActionDescriptor> descriptors;
    descriptors.reserve(presets.size() + kFixedActions.size());
    for (const engine::Preset& preset : presets) {
        descriptors.push_back(presetDescriptor(preset, availability));
    }
    for (const FixedAction& action : kFixedActions) {
        descriptors.push_back(fixedDescriptor(action.kind, availability));
    }
    return descriptors;
}

std::optional<ActionDescriptor> descriptor(const ActionID& id,
                                           std::span<const engine::Preset> presets,
                                           const ActionAvailability& availability) {
    if (!id.isPreset()) {
        return fixedDescriptor(id.kind, availability);
    }
    for (const engine::Preset& preset : presets) {
        if (preset.id == id.presetID) {
            return presetDescriptor(preset, availability);
        }
    }
    return std::nullopt;
}

std::string help(const ActionDescriptor& descriptor, bool selected, std::size_t stagedCount) {
    if (stagedCount == 0 || descriptor.disabledReason) {
        return descriptor.help;
    }
    if (!selected) {
        return descriptor.help + ". Applies to the videos waiting for an action";
    }
    const std::string videos =
        stagedCount == 1 ? std::string("1 video") : std::to_string(stagedCount) + " videos";
    return descriptor.help + ". Chosen for the " + videos + " waiting for an action";
}

std::string logToken(const ActionID& id) {
    if (id.isPreset()) {
        return id.presetID;
    }
    return fixedAction(id.kind).logToken;
}

std::optional<JobKind> jobKind(const ActionID& id, const std::optional<engine::Preset>& preset,
                               const engine::Trim& trim) {
    switch (id.kind) {
        case ActionID::Kind::preset: {
            if (!preset) {
                return std::nullopt;
            }
            engine::Preset trimmed = *preset;
            if (!trim.isEmpty()) {
                trimmed.options.trim = trim;
            }
            return JobKind{JobKind::Convert{std::move(trimmed)}};
        }
        case ActionID::Kind::extractAudio: {
            engine::AudioExtractionOptions options;
            options.trim = trim;
            return JobKind{JobKind::ExtractAudio{std::move(options)}};
        }
        case ActionID::Kind::fastCut:
            return JobKind{JobKind::FastCut{trim, std::nullopt}};
        case ActionID::Kind::transcribe:
            return JobKind{JobKind::Transcribe{}};
        case ActionID::Kind::frames: {
            engine::FrameExtractionOptions options;
            options.trim = trim;
            return JobKind{JobKind::Frames{std::move(options)}};
        }
    }
    return std::nullopt;
}

std::string runningLabel(const JobKind& kind) {
    return kKindTexts[kind.value.index()].running;
}

std::string doneLabel(const JobKind& kind) {
    return kKindTexts[kind.value.index()].done;
}

std::string finishedNotificationTitle(const JobKind& kind) {
    return kKindTexts[kind.value.index()].finishedTitle;
}

std::string failedNotificationTitle(const JobKind& kind) {
    return kKindTexts[kind.value.index()].failedTitle;
}

}  // namespace tessarin::app
