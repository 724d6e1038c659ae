// The values the trim editor works with: drafts of clips as typed, the export mode, what the
// queue passes in, the unit of undo, and what Apply hands back to the row.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/clips/ClipSelection.hpp"
#include "engine/clips/Uuid.hpp"
#include "engine/model/Preset.hpp"

namespace tessarin::app {

enum class ClipExportMode { separate, keep, remove };

// "Separate clips", "Keep ranges in one video", "Remove ranges from video".
[[nodiscard]] std::string_view exportModeTitle(ClipExportMode mode);

// One clip as the user typed it. An empty start means "Beginning", an empty end "End of video".
struct ClipDraft {
    engine::Uuid id = engine::Uuid::random();
    std::string start;
    std::string end;
    std::string name;

    [[nodiscard]] static ClipDraft from(const engine::ClipSelection& clip);
    [[nodiscard]] engine::Trim trim() const;

    bool operator==(const ClipDraft&) const = default;
};

// What the queue passes in when it opens the editor for one row.
struct TrimEditorRequest {
    engine::Uuid id = engine::Uuid::random();
    std::filesystem::path source;
    std::optional<engine::Uuid> itemID;
    std::optional<engine::Trim> initialTrim;
    std::optional<std::vector<engine::ClipSelection>> initialClips;
    ClipExportMode initialMode = ClipExportMode::separate;
    std::optional<engine::Trim> batchTrim;
    std::optional<std::string> batchStartText;
    std::optional<std::string> batchEndText;
};

// The unit of undo.
struct TrimEditorSnapshot {
    std::vector<ClipDraft> clips;
    std::size_t selected = 0;
    ClipExportMode exportMode = ClipExportMode::separate;
    bool inheritBatch = false;  // use the batch trim instead of a file trim

    bool operator==(const TrimEditorSnapshot&) const = default;
};

// How the undo history reaches the editor's current state.
struct TrimEditorUndoTarget {
    std::function<TrimEditorSnapshot()> read;
    std::function<void(const TrimEditorSnapshot&)> write;
};

// What Apply hands to the row.
struct TrimEditorResult {
    bool inheritBatch = false;
    std::optional<engine::Trim> trim;
    std::optional<double> duration;
    std::optional<std::vector<engine::ClipSelection>> clips;
    ClipExportMode mode = ClipExportMode::separate;
};

// Seconds as microsecond text without trailing zeros: 12.5 -> "12.5", 3 -> "3".
[[nodiscard]] std::string editorTimeText(double seconds);

}  // namespace tessarin::app
