// Where results go: next to the original, in one chosen folder, or (for window drops) a folder
// asked for at each drop. A queue item's destination is resolved once, at intake, and travels
// with the item.
//
//   OutputDestination destinations(defaults);
//   destinations.refreshBookmark();                      // at launch; returns at once
//   queue.setDestinationResolver(destinations.destinationResolver());
//   if (auto sentence = destinations.chooseFolder(pickedFolder)) { showAlert(*sentence); }
//
// The chosen folder is kept as a FolderBookmark under "outputFolderBookmark", with its path
// under "outputFolderPath" for display. Reads and writes of the bookmark happen under the lock
// of an OutputDestinationRefreshState, whose generation every choice raises, so that a check
// that began before a choice can never write the old folder back over it.
//
// Threads: an OutputDestination is a small handle (copies share the store, the state and the
// background work) and every member may be called from any thread. resolve() and chooseFolder()
// look at the file system and may block briefly; they never mount anything (see
// FolderBookmark).
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "app/destinations/FolderBookmark.hpp"
#include "app/destinations/OutputMode.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::app {

inline constexpr std::string_view kOutputModeKey = "outputMode";
inline constexpr std::string_view kOutputFolderBookmarkKey = "outputFolderBookmark";
inline constexpr std::string_view kOutputFolderPathKey = "outputFolderPath";

// Shared by everything that reads or writes the output folder's bookmark.
struct OutputDestinationRefreshState {
    // From bookmark data to the folder and its stale flag; nothing when it can't be resolved.
    // Runs without the lock held, on whichever thread resolves; must not throw.
    using Resolver = std::function<std::optional<ResolvedBookmark>(std::string_view data)>;

    std::mutex lock;
    // Empty: FolderBookmark::resolve. Tests put their own here.
    Resolver resolver;  // guarded by lock
    // Raised by every folder choice.
    uint64_t generation = 0;  // guarded by lock
};

class OutputDestination {
public:
    // What a queue item gets at intake: a folder, a sentence saying why the chosen folder can't
    // be used (the item then fails at its start with it), or "next to the original".
    struct Resolution {
        enum class Kind { folder, unavailable, sameFolder };

        Kind kind = Kind::sameFolder;
        std::filesystem::path folder;  // for `folder`
        std::string sentence;          // for `unavailable`

        [[nodiscard]] static Resolution inFolder(std::filesystem::path folder) {
            return {Kind::folder, std::move(folder), {}};
        }
        [[nodiscard]] static Resolution unavailable(std::string sentence) {
            return {Kind::unavailable, {}, std::move(sentence)};
        }
        [[nodiscard]] static Resolution sameFolder() { return {}; }

        bool operator==(const Resolution&) const = default;
    };

    // The queue's way to ask: resolve() of a copy of this handle.
    using DestinationResolver = std::function<Resolution(std::optional<std::filesystem::path>)>;

    // What the availability check found: the folder to show (the resolved one, or the last
    // known path when it can't be resolved; nothing when no folder was ever chosen) and whether
    // it is there.
    struct FolderCheck {
        std::optional<std::filesystem::path> path;
        bool present = false;

        bool operator==(const FolderCheck&) const = default;
    };

    // `defaults` must not be null (std::invalid_argument).
    explicit OutputDestination(std::shared_ptr<engine::SettingsStore> defaults,
                               std::shared_ptr<OutputDestinationRefreshState> state =
                                   std::make_shared<OutputDestinationRefreshState>());

    // The destination of an item taken in now. `override` is the folder asked for at a window
    // drop; it counts only under askEachTime. For a custom folder: no bookmark gives
    // kNoOutputFolderSentence, one that can't be resolved kOutputFolderUnavailableSentence; a
    // stale one is made again and stored unless a folder was chosen meanwhile. Never throws but
    // std::bad_alloc; a failed re-make or write is logged and the folder is used all the same.
    [[nodiscard]] Resolution resolve(std::optional<std::filesystem::path> override) const;
    [[nodiscard]] DestinationResolver destinationResolver() const;

    // The start-up stale check: reads the stored bookmark now and resolves it (making it again
    // when stale) on a thread of its own. Returns at once; failures are logged.
    void refreshBookmark();

    // Remembers `folder` (an absolute path, as the folder panel hands it) as the custom folder
    // and sets the mode to customFolder, in one write. Nothing when that worked; otherwise
    // kFolderChoiceFailedSentence, and nothing stored has changed. Blocking (a lookup and a
    // settings write).
    [[nodiscard]] std::optional<std::string> chooseFolder(const std::filesystem::path& folder);

    // Stores the mode. Throws what SettingsStore::setString throws.
    void setMode(OutputMode mode);
    [[nodiscard]] OutputMode mode() const;

    // Resolves the stored bookmark (never making it again) and tests that the folder is there.
    // Blocking; for the availability model's worker.
    [[nodiscard]] FolderCheck checkFolder() const;

    [[nodiscard]] const std::shared_ptr<OutputDestinationRefreshState>& state() const {
        return state_;
    }

    // Waits until no refresh started here runs, at most `limit`; true if none does. For orderly
    // shutdown and tests.
    [[nodiscard]] bool waitForBackgroundWork(std::chrono::milliseconds limit) const;

private:
    struct Background;

    std::shared_ptr<engine::SettingsStore> defaults_;
    std::shared_ptr<OutputDestinationRefreshState> state_;
    std::shared_ptr<Background> background_;
};

}  // namespace tessarin::app
