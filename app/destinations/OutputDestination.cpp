#include "app/destinations/OutputDestination.hpp"

#include <condition_variable>
#include <exception>
#include <stdexcept>
#include <thread>
#include <utility>

#include "app/destinations/OutputDestinationTexts.hpp"
#include "app/destinations/internal/FolderIdentity.hpp"
#include "engine/log/Log.hpp"

namespace tessarin::app {
namespace {

using Resolver = OutputDestinationRefreshState::Resolver;

const engine::Logger& log() {
    static const engine::Logger logger("com.tessarin.app", "destinations");
    return logger;
}

struct StoredBookmark {
    std::optional<std::string> data;
    uint64_t generation = 0;
    Resolver resolver;
};

StoredBookmark readStoredBookmark(const engine::SettingsStore& defaults,
                                  OutputDestinationRefreshState& state) {
    std::lock_guard lock(state.lock);
    StoredBookmark stored{defaults.dataValue(kOutputFolderBookmarkKey), state.generation,
                          state.resolver};
    if (!stored.resolver) {
        stored.resolver = [](std::string_view data) { return FolderBookmark::resolve(data); };
    }
    return stored;
}

// Makes a new bookmark of `folder` and stores it with its path, unless a folder was chosen
// since `generation` was read.
void storeRemadeBookmark(engine::SettingsStore& defaults, OutputDestinationRefreshState& state,
                         const std::filesystem::path& folder, uint64_t generation) {
    try {
        const FolderBookmark fresh = FolderBookmark::make(folder);
        std::lock_guard lock(state.lock);
        if (state.generation != generation) {
            log().info(engine::KeyValues()
                           .add("event", "stale bookmark not stored: a folder was chosen since")
                           .str());
            return;
        }
        defaults.update([&](nlohmann::json& object) {
            object[kOutputFolderBookmarkKey] = nlohmann::json::parse(fresh.data());
            object[kOutputFolderPathKey] = fresh.path().string();
        });
    } catch (const std::exception& error) {
        log().error(engine::KeyValues()
                        .add("event", "stale bookmark not remade")
                        .add("error", error.what())
                        .str());
    }
}

}  // namespace

struct OutputDestination::Background {
    std::mutex mutex;
    std::condition_variable idle;
    int running = 0;  // guarded by mutex

    void finished() {
        std::lock_guard lock(mutex);
        if (--running == 0) {
            idle.notify_all();
        }
    }
};

OutputDestination::OutputDestination(std::shared_ptr<engine::SettingsStore> defaults,
                                     std::shared_ptr<OutputDestinationRefreshState> state)
    : defaults_(std::move(defaults)),
      state_(std::move(state)),
      background_(std::make_shared<Background>()) {
    if (!defaults_ || !state_) {
        throw std::invalid_argument("OutputDestination needs a settings store and a state");
    }
}

OutputDestination::Resolution OutputDestination::resolve(
    std::optional<std::filesystem::path> override) const {
    switch (mode()) {
        case OutputMode::sameFolder:
            return Resolution::sameFolder();
        case OutputMode::askEachTime:
            return override ? Resolution::inFolder(std::move(*override)) : Resolution::sameFolder();
        case OutputMode::customFolder:
            break;
    }
    const StoredBookmark stored = readStoredBookmark(*defaults_, *state_);
    if (!stored.data) {
        return Resolution::unavailable(std::string(kNoOutputFolderSentence));
    }
    const std::optional<ResolvedBookmark> resolved = stored.resolver(*stored.data);
    if (!resolved) {
        return Resolution::unavailable(std::string(kOutputFolderUnavailableSentence));
    }
    if (resolved->stale) {
        storeRemadeBookmark(*defaults_, *state_, resolved->path, stored.generation);
    }
    return Resolution::inFolder(resolved->path);
}

OutputDestination::DestinationResolver OutputDestination::destinationResolver() const {
    return [self = *this](std::optional<std::filesystem::path> override) {
        return self.resolve(std::move(override));
    };
}

void OutputDestination::refreshBookmark() {
    StoredBookmark stored = readStoredBookmark(*defaults_, *state_);
    if (!stored.data) {
        return;
    }
    std::function<void()> check = [defaults = defaults_, state = state_,
                                   stored = std::move(stored)] {
        try {
            if (const std::optional<ResolvedBookmark> resolved = stored.resolver(*stored.data)) {
                if (resolved->stale) {
                    storeRemadeBookmark(*defaults, *state, resolved->path, stored.generation);
                }
            } else {
                log().notice(engine::KeyValues()
                                 .add("event", "output folder not available at launch")
                                 .str());
            }
        } catch (const std::exception& error) {
            log().error(engine::KeyValues()
                            .add("event", "bookmark refresh failed")
                            .add("error", error.what())
                            .str());
        }
    };
    {
        std::lock_guard lock(background_->mutex);
        ++background_->running;
    }
    try {
        std::thread([background = background_, check = std::move(check)]() mutable {
            check();
            // What the check holds dies here, before anyone waiting is told it has ended.
            check = nullptr;
            background->finished();
        }).detach();
    } catch (const std::exception& error) {
        log().error(engine::KeyValues()
                        .add("event", "bookmark refresh not started")
                        .add("error", error.what())
                        .str());
        background_->finished();
    }
}

std::optional<std::string> OutputDestination::chooseFolder(const std::filesystem::path& folder) {
    try {
        const FolderBookmark bookmark = FolderBookmark::make(folder);
        const nlohmann::json bookmarkValue = nlohmann::json::parse(bookmark.data());
        std::lock_guard lock(state_->lock);
        ++state_->generation;
        defaults_->update([&](nlohmann::json& object) {
            object[kOutputFolderBookmarkKey] = bookmarkValue;
            object[kOutputFolderPathKey] = bookmark.path().string();
            object[kOutputModeKey] = rawValue(OutputMode::customFolder);
        });
        return std::nullopt;
    } catch (const std::exception& error) {
        log().error(engine::KeyValues()
                        .add("event", "folder choice not saved")
                        .add("error", error.what())
                        .str());
        return std::string(kFolderChoiceFailedSentence);
    }
}

void OutputDestination::setMode(OutputMode mode) {
    defaults_->setString(kOutputModeKey, rawValue(mode));
}

OutputMode OutputDestination::mode() const {
    return outputModeFromRaw(defaults_->stringValue(kOutputModeKey).value_or(""));
}

OutputDestination::FolderCheck OutputDestination::checkFolder() const {
    const StoredBookmark stored = readStoredBookmark(*defaults_, *state_);
    if (!stored.data) {
        return {};
    }
    if (const std::optional<ResolvedBookmark> resolved = stored.resolver(*stored.data)) {
        if (destinations_internal::lookUpFolder(resolved->path).identity) {
            return {resolved->path, true};
        }
    }
    if (std::optional<std::string> shown = defaults_->stringValue(kOutputFolderPathKey)) {
        return {std::filesystem::path(std::move(*shown)), false};
    }
    if (const std::optional<FolderBookmark> bookmark = FolderBookmark::fromData(*stored.data)) {
        return {bookmark->path(), false};
    }
    return {};
}

bool OutputDestination::waitForBackgroundWork(std::chrono::milliseconds limit) const {
    std::unique_lock lock(background_->mutex);
    return background_->idle.wait_for(lock, limit, [this] { return background_->running == 0; });
}

}  // namespace tessarin::app
