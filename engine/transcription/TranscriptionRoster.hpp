// The user's list of candidate transcription models: a seeded list plus what the user adds,
// stored in the settings store under "transcription.roster.v1", and the choice of the model a run
// uses ("transcription.activeModelID").
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/transcription/OpenRouterCatalog.hpp"

namespace tessarin::engine {

class SettingsStore;

enum class TranscriptionRosterOrigin { seeded, userAdded };

struct TranscriptionRosterEntry {
    std::string id;
    bool enabled = true;
    TranscriptionRosterOrigin origin = TranscriptionRosterOrigin::seeded;

    bool operator==(const TranscriptionRosterEntry&) const = default;
};

// Which model a run uses: the stored one, the first usable one instead of it, or none.
struct ActiveModelResolution {
    enum class Kind { active, fellBack, none };
    Kind kind = Kind::none;
    std::string id;    // active and fellBack: the model used
    std::string from;  // fellBack: the stored choice that couldn't be used ("" when none was)

    static constexpr std::string_view kNoneText =
        "No transcription model is available. Enable one in Settings ▸ Transcription.";
};

inline constexpr std::array<std::string_view, 14> kSeededModels{
    "microsoft/mai-transcribe-2",     "qwen/qwen3.7-flash",
    "google/gemini-3.6-flash",        "google/gemini-3.5-flash-lite",
    "minimax/minimax-m3",             "xiaomi/mimo-v2.5",
    "bytedance-seed/seed-2.0-lite",   "bytedance-seed/seed-2.0-mini",
    "mistralai/voxtral-mini-transcribe", "fish-audio/transcribe-1",
    "microsoft/mai-transcribe-1.5",   "meta/muse-voice-transcribe-1.0",
    "openai/gpt-transcribe",          "x-ai/grok-stt-1.0"};
inline constexpr std::string_view kDefaultModel = "microsoft/mai-transcribe-2";
inline constexpr std::string_view kDefaultModelName = "MAI-Transcribe 2 · Microsoft";

// Every member reads and writes `defaults` at once (no copy is kept), so several rosters over one
// store agree. Writes throw what SettingsStore throws.
class TranscriptionRoster {
public:
    static constexpr const char* kRosterKey = "transcription.roster.v1";
    static constexpr const char* kActiveKey = "transcription.activeModelID";

    explicit TranscriptionRoster(SettingsStore& defaults) : defaults_(&defaults) {}

    // The stored list with every seeded model it lacks put back (enabled) behind it; the seeded
    // list alone when nothing readable is stored. Entries that can't be read are left out.
    [[nodiscard]] std::vector<TranscriptionRosterEntry> roster() const;

    // Adds `id` (trimmed) as a user model, enabled, when `catalog` lists it with a route that can
    // transcribe. Returns the sentence that refuses it, or nothing when it was added.
    [[nodiscard]] std::optional<std::string> addModel(std::string_view id,
                                                      const std::optional<CatalogSnapshot>& catalog);
    // Removes a user model; seeded ones can only be switched off. False when nothing was removed.
    bool remove(std::string_view id);
    // False when the roster has no such model.
    bool setEnabled(std::string_view id, bool enabled);
    // The seeded list as it ships, followed by the user's models as they were.
    void restoreDefaults();

    // The stored choice when it is in the roster, enabled and able to transcribe; otherwise the
    // first such entry; otherwise none. Without a catalog every enabled entry counts as able.
    [[nodiscard]] ActiveModelResolution resolveActive(
        const std::optional<CatalogSnapshot>& catalog) const;
    void setActiveModel(std::string_view id);

private:
    void store(const std::vector<TranscriptionRosterEntry>& entries);
    SettingsStore* defaults_;
};

}  // namespace tessarin::engine
