#include "gui/ActionChips.hpp"

#include <QGridLayout>
#include <QLabel>
#include <QToolButton>
#include <QVBoxLayout>

#include "app/queue/QueueModel.hpp"
#include "gui/UIScale.hpp"

namespace tessarin::gui {
namespace {

// Seven chips a row keeps the ten built-ins and the fixed actions in two calm rows.
constexpr int kChipsPerRow = 7;

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

}  // namespace

ActionChips::ActionChips(app::QueueModel& queue, QWidget* parent)
    : QWidget(parent), queue_(queue), grid_(new QGridLayout), detail_(new QLabel(this)) {
    setObjectName("actionChips");
    grid_->setContentsMargins(0, 0, 0, 0);
    grid_->setHorizontalSpacing(6);
    grid_->setVerticalSpacing(6);

    detail_->setObjectName("chipDetail");
    detail_->setWordWrap(true);
    detail_->setForegroundRole(QPalette::PlaceholderText);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(6);
    layout->addLayout(grid_);
    layout->addWidget(detail_);

    connect(&queue_, &app::QueueModel::selectedActionChanged, this, &ActionChips::refresh);
    connect(&queue_, &app::QueueModel::itemsChanged, this, &ActionChips::refresh);
}

void ActionChips::setCatalog(std::vector<app::ActionDescriptor> catalog) {
    for (QToolButton* chip : chips_) {
        grid_->removeWidget(chip);
        chip->deleteLater();
    }
    chips_.clear();
    catalog_ = std::move(catalog);
    shownReason_.clear();
    for (std::size_t index = 0; index < catalog_.size(); ++index) {
        const app::ActionDescriptor& descriptor = catalog_[index];
        auto* chip = new QToolButton(this);
        chip->setObjectName(qs("chip:" + app::logToken(descriptor.id)));
        chip->setText(qs(descriptor.chipName));
        chip->setAccessibleName(qs(descriptor.accessibilityLabel));
        chip->setCheckable(true);
        chip->setToolButtonStyle(Qt::ToolButtonTextOnly);
        chip->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
        chip->setFocusPolicy(Qt::StrongFocus);
        if (descriptor.disabledReason) {
            // Muted but still focusable and clickable, so that its reason can be read.
            QPalette muted = chip->palette();
            muted.setColor(QPalette::ButtonText, muted.color(QPalette::PlaceholderText));
            chip->setPalette(muted);
            chip->setProperty("unavailable", true);
        }
        connect(chip, &QToolButton::clicked, this, [this, index] { chipClicked(index); });
        grid_->addWidget(chip, static_cast<int>(index) / kChipsPerRow,
                         static_cast<int>(index) % kChipsPerRow);
        chips_.push_back(chip);
    }
    scaleWidgetTree(this);
    refresh();
}

QToolButton* ActionChips::chip(const app::ActionID& id) const {
    for (std::size_t index = 0; index < catalog_.size(); ++index) {
        if (catalog_[index].id == id) {
            return chips_[index];
        }
    }
    return nullptr;
}

QString ActionChips::detailText() const {
    return detail_->text();
}

void ActionChips::chipClicked(std::size_t index) {
    const app::ActionDescriptor& descriptor = catalog_[index];
    if (descriptor.disabledReason) {
        shownReason_ = qs(*descriptor.disabledReason);
        refresh();
        return;
    }
    shownReason_.clear();
    const bool alreadySelected = queue_.selectedActionID() == descriptor.id;
    queue_.setSelectedActionID(alreadySelected ? std::nullopt
                                               : std::optional<app::ActionID>(descriptor.id));
    refresh();
}

void ActionChips::refresh() {
    const std::size_t staged = queue_.stagedCount();
    const std::optional<app::ActionID>& selected = queue_.selectedActionID();
    QString selectedHelp;
    for (std::size_t index = 0; index < catalog_.size(); ++index) {
        const app::ActionDescriptor& descriptor = catalog_[index];
        const bool isSelected = selected == descriptor.id;
        QToolButton* chip = chips_[index];
        chip->setChecked(isSelected);
        chip->setToolTip(qs(app::help(descriptor, isSelected, staged)));
        if (isSelected) {
            selectedHelp = qs(descriptor.disabledReason.value_or(descriptor.help));
        }
    }
    detail_->setText(shownReason_.isEmpty() ? selectedHelp : shownReason_);
}

}  // namespace tessarin::gui
