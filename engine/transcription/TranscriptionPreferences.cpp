#include "engine/transcription/TranscriptionPreferences.hpp"

#include <nlohmann/json.hpp>

#include "engine/settings/SettingsStore.hpp"

namespace tessarin::engine {

namespace {

using nlohmann::json;

bool isBlank(std::string_view text) {
    return text.find_first_not_of(" \t\r\n\f\v") == std::string_view::npos;
}

}  // namespace

std::string_view rawValue(TranscriptionPromptMode mode) {
    return mode == TranscriptionPromptMode::custom ? "custom" : "builtIn";
}

std::optional<std::string> normalizedLanguage(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        return std::nullopt;
    }
    std::string code(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
    if (code.size() < 2 || code.size() > 12) {
        return std::nullopt;
    }
    for (char& c : code) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        } else if (!((c >= 'a' && c <= 'z') || c == '-')) {
            return std::nullopt;
        }
    }
    if (code.front() == '-' || code.back() == '-') {
        return std::nullopt;
    }
    return code;
}

std::optional<TranscriptionOptions> optionsFromJSONText(std::string_view text) {
    const json document = json::parse(text, nullptr, false);
    if (!document.is_object()) {
        return std::nullopt;
    }
    TranscriptionOptions options;
    if (const auto format = document.find("format");
        format != document.end() && format->is_string()) {
        options.format = transcriptFormat(format->get<std::string>()).value_or(TranscriptFormat::text);
    }
    if (const auto speakers = document.find("speakers");
        speakers != document.end() && speakers->is_boolean()) {
        options.speakers = speakers->get<bool>();
    }
    if (const auto vocabulary = document.find("vocabulary");
        vocabulary != document.end() && vocabulary->is_string()) {
        options.vocabulary = vocabulary->get<std::string>();
    }
    return options;
}

std::string optionsJSONText(const TranscriptionOptions& options) {
    return json{{"format", rawValue(options.format)},
                {"speakers", options.speakers},
                {"vocabulary", options.vocabulary}}
        .dump();
}

TranscriptionPreferences TranscriptionPreferences::load(const SettingsStore& defaults) {
    TranscriptionPreferences preferences;
    if (defaults.stringValue(kPromptModeKey) == "custom") {
        preferences.promptMode = TranscriptionPromptMode::custom;
    }
    preferences.customPrompt = defaults.stringValue(kCustomPromptKey).value_or("");
    if (const auto language = defaults.stringValue(kLanguageKey)) {
        preferences.language = normalizedLanguage(*language);
    }
    if (const auto stored = defaults.dataValue(kOptionsKey)) {
        preferences.options = optionsFromJSONText(*stored).value_or(TranscriptionOptions{});
    }
    return preferences;
}

void TranscriptionPreferences::save(SettingsStore& defaults) const {
    defaults.update([&](json& object) {
        object[kPromptModeKey] = rawValue(promptMode);
        object[kCustomPromptKey] = customPrompt;
        if (language) {
            object[kLanguageKey] = *language;
        } else {
            object.erase(kLanguageKey);
        }
        object[kOptionsKey] = json::parse(optionsJSONText(options));
    });
}

std::optional<std::string> TranscriptionPreferences::instruction() const {
    if (promptMode == TranscriptionPromptMode::custom && !isBlank(customPrompt)) {
        return customPrompt;
    }
    return std::nullopt;
}

TranscriptionOptions TranscriptionPreferences::effectiveOptions(std::string_view modelID) const {
    if (lowercasedText(modelID) == kMaiTranscribe2) {
        return options;
    }
    return TranscriptionOptions{};
}

}  // namespace tessarin::engine
