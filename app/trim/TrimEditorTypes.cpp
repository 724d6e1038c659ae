#include "app/trim/TrimEditorTypes.hpp"

#include <cmath>

namespace tessarin::app {

std::string_view exportModeTitle(ClipExportMode mode) {
    switch (mode) {
        case ClipExportMode::separate:
            return "Separate clips";
        case ClipExportMode::keep:
            return "Keep ranges in one video";
        case ClipExportMode::remove:
            return "Remove ranges from video";
    }
    return "Separate clips";
}

ClipDraft ClipDraft::from(const engine::ClipSelection& clip) {
    return {clip.id(), clip.trim().start.value_or(""), clip.trim().end.value_or(""), clip.name()};
}

engine::Trim ClipDraft::trim() const {
    return {start.empty() ? std::nullopt : std::optional(start),
            end.empty() ? std::nullopt : std::optional(end)};
}

std::string editorTimeText(double seconds) {
    const int64_t microseconds = std::llround(std::max(seconds, 0.0) * 1'000'000.0);
    std::string text = engine::microsecondText(microseconds);
    // The pattern "\.?0+$" on text that always holds a full stop and six digits.
    while (text.back() == '0') {
        text.pop_back();
    }
    if (text.back() == '.') {
        text.pop_back();
    }
    return text;
}

}  // namespace tessarin::app
