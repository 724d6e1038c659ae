// The action chips: one per effective preset, then the fixed actions. Clicking a chip selects
// its action in the queue (clicking the selected one clears the choice); a chip that can't run
// here is drawn muted and, when clicked, shows its reason in the line below instead of being
// selected.
#pragma once

#include <QWidget>
#include <vector>

#include "app/queue/ActionCatalog.hpp"

class QGridLayout;
class QLabel;
class QToolButton;

namespace tessarin::app {
class QueueModel;
}

namespace tessarin::gui {

class ActionChips : public QWidget {
    Q_OBJECT

public:
    explicit ActionChips(app::QueueModel& queue, QWidget* parent = nullptr);

    // Replaces the chips with `catalog`, in its order.
    void setCatalog(std::vector<app::ActionDescriptor> catalog);

    [[nodiscard]] QToolButton* chip(const app::ActionID& id) const;
    // The line under the chips: the selected action's help, or a muted chip's reason.
    [[nodiscard]] QString detailText() const;

private:
    void chipClicked(std::size_t index);
    // Checked states, tooltips and the detail line, from the queue's selection and staging.
    void refresh();

    app::QueueModel& queue_;
    std::vector<app::ActionDescriptor> catalog_;
    std::vector<QToolButton*> chips_;
    QGridLayout* grid_;
    QLabel* detail_;
    QString shownReason_;
};

}  // namespace tessarin::gui
