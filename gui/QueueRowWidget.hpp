// One queue row: the file, its action, its state with progress, the job's phase and warning,
// and the buttons that fit its state.
#pragma once

#include <QFrame>
#include <chrono>
#include <optional>

#include "app/queue/QueueModel.hpp"
#include "app/queue/SourceFacts.hpp"

class QLabel;
class QProgressBar;
class QToolButton;

namespace tessarin::gui {

class ElidedLabel;

class QueueRowWidget : public QFrame {
    Q_OBJECT

public:
    explicit QueueRowWidget(const app::QueueItem& item, QWidget* parent = nullptr);

    [[nodiscard]] const engine::Uuid& itemID() const { return id_; }
    // Shows `item`, which must have this row's id.
    void update(const app::QueueItem& item);

    // Shows the source's first frame (a PNG) beside its name.
    void setThumbnail(const std::string& png);

    [[nodiscard]] QString stateText() const;

    // "About 2 min left" from the fraction done and how long the job has run; nothing until
    // the fraction says enough.
    [[nodiscard]] static std::optional<QString> timeLeftText(double fraction,
                                                             std::chrono::seconds elapsed);

signals:
    void trimRequested(const engine::Uuid& id);
    void cancelRequested(const engine::Uuid& id);
    void removeRequested(const engine::Uuid& id);
    void showInFolderRequested(const QString& path);
    void openRequested(const QString& path);

private:
    QToolButton* makeButton(const QString& text, const QString& objectName);

    engine::Uuid id_;
    QString output_;
    QLabel* thumbnail_;
    ElidedLabel* name_;
    ElidedLabel* subtitle_;
    ElidedLabel* facts_;
    QLabel* state_;
    QProgressBar* progress_;
    ElidedLabel* outputName_;
    QLabel* detail_;
    QLabel* warning_;
    QToolButton* trim_;
    QToolButton* cancel_;
    QToolButton* remove_;
    QToolButton* showInFolder_;
    QToolButton* open_;
    // When this row was first seen running, for the time left.
    std::optional<std::chrono::steady_clock::time_point> runningSince_;
};

}  // namespace tessarin::gui
