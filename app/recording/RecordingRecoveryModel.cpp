#include "app/recording/RecordingRecoveryModel.hpp"

#include <nlohmann/json.hpp>

#include "app/support/MainThreadHandoff.hpp"
#include "engine/log/Log.hpp"
#include "engine/recording/RecordingPreferences.hpp"

namespace tessarin::app {

namespace fs = std::filesystem;

namespace {

const engine::Logger& recoveryLog() {
    static const engine::Logger logger("com.tessarin.app", "recording");
    return logger;
}

QString messageOf(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const engine::RecordingError& error) {
        return QString::fromStdString(error.message());
    } catch (const engine::TakeFolderInvalid&) {
        return QStringLiteral("This folder is no longer an unfinished recording.");
    } catch (const std::exception& error) {
        return QStringLiteral("The recording files could not be read: %1")
            .arg(QString::fromLocal8Bit(error.what()));
    }
}

// Asks xdg-user-dir when no folder is stored, so it is called on worker threads.
fs::path storedDestination(const engine::SettingsStore& settings) {
    nlohmann::json stored = nlohmann::json::object();
    if (const auto text = settings.dataValue(engine::RecordingPreferences::kSettingsKey)) {
        stored = nlohmann::json::parse(*text, nullptr, false);
    }
    return engine::recordingDestination(engine::recordingPreferencesFromJson(stored));
}

}  // namespace

RecordingRecoveryModel::RecordingRecoveryModel(std::shared_ptr<engine::SettingsStore> settings,
                                               fs::path root, std::optional<engine::Tools> tools,
                                               QObject* parent)
    : QObject(parent),
      settings_(std::move(settings)),
      root_(std::move(root)),
      tools_(std::move(tools)),
      handoff_(std::make_shared<MainThreadHandoff>(this, "deliverBackgroundResults",
                                                   recoveryLog())) {}

RecordingRecoveryModel::~RecordingRecoveryModel() {
    handoff_->detach();
    (void)handoff_->waitUntilIdle(std::chrono::seconds(30));
}

bool RecordingRecoveryModel::waitForBackgroundWork(std::chrono::milliseconds limit) {
    return handoff_->waitUntilIdle(limit);
}

void RecordingRecoveryModel::deliverBackgroundResults() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

fs::path RecordingRecoveryModel::destinationFolder() const {
    return storedDestination(*settings_);
}

engine::RecordingWork RecordingRecoveryModel::work() const {
    engine::RecordingWork work;
    work.tools = *tools_;
    return work;
}

void RecordingRecoveryModel::setTakes(std::vector<engine::UnfinishedTake> takes) {
    takes_ = std::move(takes);
    std::vector<std::string> paths;
    for (const engine::UnfinishedTake& take : takes_) {
        paths.push_back(take.directory.string());
    }
    try {
        if (settings_->stringListValue(kUnfinishedTakesKey).value_or(std::vector<std::string>{}) !=
            paths) {
            settings_->setStringList(kUnfinishedTakesKey, paths);
        }
    } catch (const std::exception&) {
        recoveryLog().error("event=\"unfinished takes not saved\"");
    }
    emit takesChanged();
}

void RecordingRecoveryModel::scan() {
    if (!tools_ || busy_) {
        return;
    }
    busy_ = true;
    handoff_->start([this, root = root_, settings = settings_, work = work()] {
        std::vector<std::string> stillThere;
        for (const std::string& folder :
             settings->stringListValue(kCleanupDirectoriesKey).value_or(std::vector<std::string>{})) {
            if (!engine::RecordingFiles::removeLeftOver(folder)) {
                stillThere.push_back(folder);
            }
        }
        try {
            if (settings->stringListValue(kCleanupDirectoriesKey).value_or(stillThere) != stillThere) {
                settings->setStringList(kCleanupDirectoriesKey, stillThere);
            }
        } catch (const std::exception&) {
            recoveryLog().error("event=\"cleanup list not saved\"");
        }
        std::vector<engine::UnfinishedTake> found;
        try {
            found = engine::findUnfinishedTakes(root, storedDestination(*settings), &work);
        } catch (const std::exception&) {
            recoveryLog().error("event=\"recording root scan failed\"");
        }
        return MainThreadHandoff::Completion([this, found = std::move(found)]() mutable {
            busy_ = false;
            recoveryLog().notice(engine::KeyValues()
                                     .add("event", "unfinishedTakes")
                                     .add("count", static_cast<int64_t>(found.size()))
                                     .str());
            setTakes(std::move(found));
        });
    });
}

void RecordingRecoveryModel::recover(const fs::path& directory) {
    if (!tools_ || busy_) {
        return;
    }
    busy_ = true;
    handoff_->start([this, directory, settings = settings_, work = work()] {
        std::exception_ptr failure;
        engine::RecoveredTake done;
        try {
            done = engine::recoverTake(directory, storedDestination(*settings), work);
            if (done.leftOver) {
                std::vector<std::string> folders =
                    settings->stringListValue(kCleanupDirectoriesKey).value_or(std::vector<std::string>{});
                folders.push_back(done.leftOver->string());
                settings->setStringList(kCleanupDirectoriesKey, folders);
            }
        } catch (...) {
            failure = std::current_exception();
        }
        return MainThreadHandoff::Completion([this, failure, done] {
            busy_ = false;
            if (failure) {
                emit failed(messageOf(failure));
            } else {
                emit recovered(QString::fromStdString(done.summary),
                               QString::fromStdString(done.published.string()));
            }
            scan();
        });
    });
}

void RecordingRecoveryModel::discard(const fs::path& directory) {
    if (busy_) {
        return;
    }
    busy_ = true;
    handoff_->start([this, directory] {
        std::exception_ptr failure;
        try {
            engine::discardTake(directory);
        } catch (...) {
            failure = std::current_exception();
        }
        return MainThreadHandoff::Completion([this, failure] {
            busy_ = false;
            if (failure) {
                emit failed(messageOf(failure));
            } else {
                emit discarded();
            }
            scan();
        });
    });
}

void RecordingRecoveryModel::postpone() {
    postponed_ = true;
}

}  // namespace tessarin::app
