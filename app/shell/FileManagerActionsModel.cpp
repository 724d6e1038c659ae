#include "app/shell/FileManagerActionsModel.hpp"

#include <fmt/format.h>

#include "engine/desktop/StaleActionProcesses.hpp"

namespace tessarin::app {

FileManagerActionsModel::FileManagerActionsModel(std::shared_ptr<engine::SettingsStore> settings,
                                                 std::filesystem::path helper,
                                                 std::filesystem::path dataHome, QObject* parent)
    : QObject(parent),
      settings_(std::move(settings)),
      paths_{std::move(dataHome), std::move(helper)},
      handoff_(std::make_shared<MainThreadHandoff>(
          this, "deliver", engine::Logger("com.tessarin.app", "registrar"))) {}

FileManagerActionsModel::~FileManagerActionsModel() {
    handoff_->detach();
    (void)handoff_->waitUntilIdle(std::chrono::seconds(10));
}

void FileManagerActionsModel::run() {
    start(Operation::repair);
}
void FileManagerActionsModel::refresh() {
    start(Operation::status);
}
void FileManagerActionsModel::install() {
    start(Operation::install);
}
void FileManagerActionsModel::remove() {
    start(Operation::remove);
}

QString FileManagerActionsModel::healthText() const {
    return QString::fromStdString(engine::actionHealthText(engine::actionHealth(rows_)));
}

void FileManagerActionsModel::start(Operation operation) {
    ++pending_;
    emit changed();
    handoff_->start([this, operation, settings = settings_, paths = paths_] {
        engine::ActionRegistrar registrar(paths, *settings);
        engine::ActionChangeOutcome outcome;
        switch (operation) {
            case Operation::status: break;
            case Operation::repair:
                (void)registrar.noteAppVersion(TESSARIN_VERSION);
                outcome = registrar.repair();
                engine::endStaleActionProcesses(paths.helper);
                break;
            case Operation::install: outcome = registrar.install(); break;
            case Operation::remove: outcome = registrar.remove(); break;
        }
        std::string text;
        if (!outcome.foreign.empty()) {
            text += fmt::format(
                "{} file(s) with Tessarin's names weren't made by Tessarin and were left "
                "untouched. ",
                outcome.foreign.size());
        }
        if (!outcome.failed.empty()) {
            text += fmt::format("{} file(s) couldn't be changed. ", outcome.failed.size());
        }
        if (operation != Operation::status && (outcome.written > 0 || outcome.removed > 0)) {
            text += engine::kActionRestartHint;
        }
        return MainThreadHandoff::Completion(
            [this, operation, rows = registrar.status(), text = QString::fromStdString(text)] {
                rows_ = rows;
                lastOutcome_ = text;
                --pending_;
                emit changed();
                if (operation == Operation::install) {
                    const bool allActive = engine::actionHealth(rows_).needsAttention.empty();
                    emit enableAllFinished(allActive, QString::fromUtf8(allActive ? kAllActive
                                                                                  : kNotConfirmed));
                }
            });
    });
}

void FileManagerActionsModel::deliver() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

}  // namespace tessarin::app
