// Everything the queue can do to a file is an action: one per effective preset, then the fixed
// actions. The window shows them as chips, queue rows show their names, logs their tokens.
// Plain values and pure functions: safe from any thread.
#pragma once

#include <compare>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "engine/clips/FastCut.hpp"
#include "engine/encoders/EncoderCapabilityPolicy.hpp"
#include "engine/encoders/HardwareEncoderProbe.hpp"
#include "engine/frames/FrameExtractionOptions.hpp"
#include "engine/job/JoinedFastCut.hpp"
#include "engine/model/AudioExtractionOptions.hpp"
#include "engine/model/Preset.hpp"

namespace tessarin::app {

// preset(id), extractAudio, fastCut, transcribe or frames.
struct ActionID {
    enum class Kind { preset, extractAudio, fastCut, transcribe, frames };

    Kind kind = Kind::extractAudio;
    std::string presetID;  // for `preset` only

    [[nodiscard]] static ActionID preset(std::string id) { return {Kind::preset, std::move(id)}; }
    [[nodiscard]] static ActionID extractAudio() { return {Kind::extractAudio, {}}; }
    [[nodiscard]] static ActionID fastCut() { return {Kind::fastCut, {}}; }
    [[nodiscard]] static ActionID transcribe() { return {Kind::transcribe, {}}; }
    [[nodiscard]] static ActionID frames() { return {Kind::frames, {}}; }

    [[nodiscard]] bool isPreset() const { return kind == Kind::preset; }
    auto operator<=>(const ActionID&) const = default;
};

// What a queue item is to do, built from an action when it is assigned.
struct JobKind {
    struct Convert {
        engine::Preset preset;
        bool operator==(const Convert&) const = default;
    };
    // Ranges kept in one video, or (`removing`) taken out of it.
    struct Join {
        engine::Preset preset;
        std::vector<engine::Trim> ranges;
        bool removing = false;
        bool operator==(const Join&) const = default;
    };
    struct ExtractAudio {
        engine::AudioExtractionOptions options;
        bool operator==(const ExtractAudio&) const = default;
    };
    struct FastCut {
        engine::Trim trim;
        // The plan the user reviewed; the job refuses when the file or its boundaries no
        // longer match it. Absent, the job plans on its own.
        std::optional<engine::FastCut::Plan> plan;
        bool operator==(const FastCut&) const = default;
    };
    // Reviewed fast cuts of one file joined into one output without re-encoding, in output
    // order; each piece's job refuses as a single fast cut does.
    struct FastCutJoin {
        std::vector<engine::JoinedFastCut::Piece> pieces;
        bool operator==(const FastCutJoin&) const = default;
    };
    // The transcription and frame-export jobs are made by the queue's job factories, which read
    // what they need (model, destination) when the item starts.
    struct Transcribe {
        bool operator==(const Transcribe&) const = default;
    };
    // `options.trim` is the item's trim, fixed when the action is assigned; the other options
    // are taken from the settings again when the item starts, so a row exports with the choices
    // of that moment.
    struct Frames {
        engine::FrameExtractionOptions options;
        bool operator==(const Frames&) const = default;
    };

    std::variant<Convert, Join, ExtractAudio, FastCut, FastCutJoin, Transcribe, Frames> value;

    // The preset of a convert or join, else nothing.
    [[nodiscard]] const engine::Preset* preset() const;
    bool operator==(const JobKind&) const = default;
};

struct ActionDescriptor {
    ActionID id;
    std::string chipName;
    std::string displayName;
    std::string help;
    std::string accessibilityLabel;
    std::string rowSubtitle;
    // Set when the action can't be started here; shown in its place.
    std::optional<std::string> disabledReason;

    bool operator==(const ActionDescriptor&) const = default;
};

// What decides whether an action can run on this machine now.
struct ActionAvailability {
    engine::EncoderCapabilityPolicy encoderPolicy;
    engine::HardwareEncoderSupport hardware;
    bool transcriptionModelUsable = false;
    bool framesAvailable = false;
};

inline constexpr const char* kNoTranscriptionModelSentence =
    "Review your transcription model in Settings ▸ Transcription. Choose a replacement or "
    "refresh the model list.";
inline constexpr const char* kFramesUnavailableSentence =
    "Frame export is not available in this version.";

// The short name of a preset's chip: a fixed table for the built-ins by id, the display name
// for every other preset (custom ones, and the VP9 preset on purpose).
[[nodiscard]] std::string chipName(const engine::Preset& preset);

// The descriptor of a preset.
[[nodiscard]] ActionDescriptor presetDescriptor(const engine::Preset& preset,
                                                const ActionAvailability& availability);
// The descriptor of a fixed action (not `preset`).
[[nodiscard]] ActionDescriptor fixedDescriptor(ActionID::Kind kind,
                                               const ActionAvailability& availability);

// The chips in order: one per preset in the order given, then the fixed actions.
[[nodiscard]] std::vector<ActionDescriptor> catalog(std::span<const engine::Preset> presets,
                                                    const ActionAvailability& availability);

// The descriptor of `id` among `presets` and the fixed actions; nothing for an unknown preset.
[[nodiscard]] std::optional<ActionDescriptor> descriptor(const ActionID& id,
                                                         std::span<const engine::Preset> presets,
                                                         const ActionAvailability& availability);

// The chip's tooltip: the plain help without staged files or with a disabled reason, otherwise
// the help followed by whom the chip applies to.
[[nodiscard]] std::string help(const ActionDescriptor& descriptor, bool selected,
                               std::size_t stagedCount);

// For logs: a preset's id, else "action.extract-audio", "action.fast-cut", "action.transcribe",
// "action.frames".
[[nodiscard]] std::string logToken(const ActionID& id);

// The job an action makes, given its preset (for `preset`) and the batch trim: a preset with a
// trim converts that range; frames carry the trim in default options, which the queue replaces
// from the settings when the item starts. Nothing for a preset action without a preset.
[[nodiscard]] std::optional<JobKind> jobKind(const ActionID& id,
                                             const std::optional<engine::Preset>& preset,
                                             const engine::Trim& trim);

// Queue-row texts of a job kind: the verb while it runs and the word when it is done.
[[nodiscard]] std::string runningLabel(const JobKind& kind);
[[nodiscard]] std::string doneLabel(const JobKind& kind);
// Titles of the desktop notification when a job of this kind ends: "Conversion finished",
// "Transcription failed"….
[[nodiscard]] std::string finishedNotificationTitle(const JobKind& kind);
[[nodiscard]] std::string failedNotificationTitle(const JobKind& kind);

}  // namespace tessarin::app
