// The registrar of file-manager actions: installs, checks, repairs and removes the Nautilus
// scripts, Dolphin service menus and Nemo actions of the eight helper actions (ActionFiles.hpp).
//
//   ActionRegistrar registrar({dataHome(), helperFolder / "tessarin-action"}, settings);
//   registrar.repair();                        // at launch: restores what drifted
//   for (const ActionStatus& row : registrar.status()) { … }
//
// A file is "elected" when it is installed and ours, "active" when the file manager will show it:
// ours, unchanged, executable where that file manager needs it, and its helper can run. A file at
// our place without our marker is foreign: it is never overwritten or removed, only reported. A
// file of another Tessarin copy whose helper still exists belongs to that copy and is left alone;
// one whose helper is gone (a replaced install) is ours to repair. A file the user deleted after
// Tessarin wrote it is "disabled": repair() honours that, install() overrides it.
//
// The ids written are remembered in the setting `quickActionSeededGrants` ("nautilus/h264"…).
// Operations of all registrars of the process run one at a time. Blocking file work; call from a
// background thread. Nothing here kills a file manager: the texts ask for a restart instead.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "engine/desktop/ActionFiles.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::engine {

enum class ActionFileState {
    active,         // ours, as written, shown by the file manager
    edited,         // ours, but its text or mode changed (repair rewrites it)
    notRegistered,  // no file
    disabled,       // removed by the user after Tessarin wrote it
    elsewhere,      // another Tessarin copy's, whose helper still exists
    foreign,        // not made by Tessarin
};

struct ActionFileStatus {
    FileManager manager = FileManager::nautilus;
    std::filesystem::path file;
    ActionFileState state = ActionFileState::notRegistered;
    std::optional<std::filesystem::path> otherHelper;  // for `elsewhere`
    [[nodiscard]] bool elected() const {
        return state == ActionFileState::active || state == ActionFileState::edited;
    }
    [[nodiscard]] bool active() const { return state == ActionFileState::active; }
};

// The row text of a file's state in the settings page and the CLI: "Active in the file manager",
// "Elected, not active in the file manager", "Not registered", "Disabled", "Another copy of
// Tessarin owns this", "A file Tessarin didn't make has this name; it was left untouched".
[[nodiscard]] std::string actionFileStateText(ActionFileState state);
// "active", "edited", "not-registered", "disabled", "elsewhere", "foreign" (for --json).
[[nodiscard]] std::string actionFileStateWord(ActionFileState state);

struct ActionStatus {
    std::string name;         // the helper action, "h264"…
    std::string displayName;  // its menu text
    std::vector<ActionFileStatus> files;  // one per file manager, in kFileManagers order
};

// What needs attention: the "manager/name" ids that are not active (foreign files and files of
// another copy included), of `total` files.
struct ActionHealth {
    std::vector<std::string> needsAttention;
    int total = 0;
};
[[nodiscard]] ActionHealth actionHealth(const std::vector<ActionStatus>& rows);
// The banner text, empty when nothing needs attention: "1 of {n} Tessarin file-manager actions
// isn't active, so it's missing from the right-click menu." or "{k} of {n} … aren't active, so
// they're missing from the right-click menu."
[[nodiscard]] std::string actionHealthText(const ActionHealth& health);

// The note of the settings page and the CLI after a change.
inline constexpr std::string_view kActionRestartHint =
    "The file-manager actions live in ~/.local/share (nautilus/scripts, kio/servicemenus, "
    "nemo/actions). If a file manager's menu is stale after an update, restart it (for "
    "example `nautilus -q`).";

struct ActionChangeOutcome {
    int written = 0;
    int removed = 0;
    std::vector<std::filesystem::path> foreign;   // files kept because they aren't ours
    std::vector<std::filesystem::path> failed;    // files that could not be written or removed
};

class ActionRegistrar {
public:
    static constexpr std::string_view kSeededKey = "quickActionSeededGrants";
    static constexpr std::string_view kLastRunVersionKey = "lastRunAppVersion";

    struct Paths {
        std::filesystem::path dataHome;  // $XDG_DATA_HOME
        std::filesystem::path helper;    // the absolute path of tessarin-action
    };

    // The settings store must outlive the registrar.
    ActionRegistrar(Paths paths, SettingsStore& settings);

    [[nodiscard]] std::vector<ActionStatus> status() const;
    // Writes every file that is missing, edited or a replaced install's, overriding user removals.
    ActionChangeOutcome install();
    // The same, but a file the user removed stays removed.
    ActionChangeOutcome repair();
    // Removes the files that are ours (a replaced install's too) and forgets them.
    ActionChangeOutcome remove();
    // Compares `version` with the setting `lastRunAppVersion` and stores it; logs "app version
    // {old} → {new}" and, when it changed, that a full repair runs. True when it changed.
    bool noteAppVersion(std::string_view version);

    [[nodiscard]] const Paths& paths() const { return paths_; }

private:
    [[nodiscard]] std::vector<ActionStatus> statusLocked() const;
    ActionChangeOutcome write(bool honourUserRemovals);

    Paths paths_;
    SettingsStore& settings_;
};

}  // namespace tessarin::engine
