// What the user chose for transcription, as kept in the settings store: the prompt, the language
// hint and the extra transcript options. Shared by the window's settings and the command line, so
// both read and write the same keys the same way. Bad stored values read as the defaults.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "engine/transcription/TranscriptionOptions.hpp"

namespace tessarin::engine {

class SettingsStore;

enum class TranscriptionPromptMode { builtIn, custom };
[[nodiscard]] std::string_view rawValue(TranscriptionPromptMode mode);

struct TranscriptionPreferences {
    static constexpr const char* kOptionsKey = "transcription.options.v1";
    static constexpr const char* kPromptModeKey = "transcription.promptMode";
    static constexpr const char* kCustomPromptKey = "transcription.customPrompt";
    static constexpr const char* kLanguageKey = "transcription.language";

    // What the settings say about the options for other models than the one that takes them.
    static constexpr std::string_view kPlainTextOnlyText =
        "This model saves plain text. Subtitles, speaker labels and names are available with "
        "MAI-Transcribe 2.";
    static constexpr std::string_view kOptionsKeptText =
        "Your MAI 2 options are kept and will apply when you switch back.";
    static constexpr std::string_view kSpeakerPartsText =
        "Long recordings are transcribed in parts. Speaker numbers restart in each part, so the "
        "same number may refer to a different person.";

    TranscriptionPromptMode promptMode = TranscriptionPromptMode::builtIn;
    std::string customPrompt;
    std::optional<std::string> language;  // absent: the model detects it
    TranscriptionOptions options;

    [[nodiscard]] static TranscriptionPreferences load(const SettingsStore& defaults);
    // Writes every field (an absent language removes its key). Throws what the store throws.
    void save(SettingsStore& defaults) const;

    // The instruction for chat routes: the custom prompt when chosen and not blank; otherwise
    // nothing, which means the built-in prompt.
    [[nodiscard]] std::optional<std::string> instruction() const;
    // The options a run with `modelID` applies: all of them with the model that takes them,
    // plain text without extras for every other model (what is stored stays as it is).
    [[nodiscard]] TranscriptionOptions effectiveOptions(std::string_view modelID) const;
};

// A language hint as typed: trimmed, lower-case letters and "-" only, 2 to 12 characters
// ("en", "pt-br"); nothing for anything else, which means detection.
[[nodiscard]] std::optional<std::string> normalizedLanguage(std::string_view text);

// The options as stored (`format`, `speakers`, `vocabulary`); nothing when `text` isn't that.
[[nodiscard]] std::optional<TranscriptionOptions> optionsFromJSONText(std::string_view text);
[[nodiscard]] std::string optionsJSONText(const TranscriptionOptions& options);

}  // namespace tessarin::engine
