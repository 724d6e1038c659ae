// The file-manager actions as the window shows them: the rows of the registrar, the banner text,
// and the operations, each run on a worker thread with its result published on the main thread.
// At launch, run() repairs what drifted (honouring the user's removals) and ends helpers left
// over from a replaced install.
#pragma once

#include <QObject>
#include <QString>
#include <filesystem>
#include <memory>
#include <vector>

#include "app/support/MainThreadHandoff.hpp"
#include "engine/desktop/ActionRegistrar.hpp"

namespace tessarin::app {

class FileManagerActionsModel : public QObject {
    Q_OBJECT

public:
    // `helper` is the tessarin-action of this copy; `dataHome` where the action files go.
    FileManagerActionsModel(std::shared_ptr<engine::SettingsStore> settings,
                            std::filesystem::path helper, std::filesystem::path dataHome,
                            QObject* parent = nullptr);
    ~FileManagerActionsModel() override;

    void run();      // repair and the stale-helper scan
    void refresh();  // status only
    void install();  // every action, overriding the user's removals
    void remove();

    [[nodiscard]] const std::vector<engine::ActionStatus>& rows() const { return rows_; }
    // The banner text, empty when every action is active.
    [[nodiscard]] QString healthText() const;
    // The outcome of the last change: foreign files kept, files that failed. Empty when none.
    [[nodiscard]] const QString& lastOutcome() const { return lastOutcome_; }
    [[nodiscard]] bool busy() const { return pending_ > 0; }

    static constexpr const char* kRestartHint = engine::kActionRestartHint.data();

    // What "Enable All" says once it is done: every action active (the restart hint follows),
    // or some still not active.
    static constexpr const char* kAllActive =
        "All file-manager actions are active. Restart the file manager to refresh its menu now.";
    static constexpr const char* kNotConfirmed =
        "Tessarin set up the file-manager actions but the file managers won't show all of them. "
        "See which ones in Settings ▸ Desktop ▸ File-manager actions.";

signals:
    void changed();
    // "Enable All" ended: `allActive`, and kAllActive or kNotConfirmed.
    void enableAllFinished(bool allActive, const QString& text);

private slots:
    void deliver();

private:
    enum class Operation { status, repair, install, remove };
    void start(Operation operation);

    std::shared_ptr<engine::SettingsStore> settings_;
    engine::ActionRegistrar::Paths paths_;
    std::vector<engine::ActionStatus> rows_;
    QString lastOutcome_;
    int pending_ = 0;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
