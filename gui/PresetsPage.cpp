#include "gui/PresetsPage.hpp"

#include <QHBoxLayout>
#include <QListWidget>
#include <QToolButton>
#include <QVBoxLayout>
#include <algorithm>

#include "app/settings/PresetStore.hpp"
#include "engine/model/Preset.hpp"
#include "gui/PresetEditor.hpp"

namespace tessarin::gui {
namespace {

constexpr int kIDRole = Qt::UserRole;
constexpr int kIsCustomRole = Qt::UserRole + 1;

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

}  // namespace

PresetsPage::PresetsPage(app::PresetStore& store, QWidget* parent)
    : QWidget(parent),
      store_(store),
      list_(new QListWidget(this)),
      editor_(new PresetEditor(store, this)),
      add_(new QToolButton(this)),
      delete_(new QToolButton(this)) {
    list_->setObjectName("presetList");
    // The list is as wide as its longest name at any interface scale.
    list_->setSizeAdjustPolicy(QAbstractScrollArea::AdjustToContents);
    list_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    list_->setAccessibleName(tr("Presets"));
    add_->setText(QStringLiteral("+"));
    add_->setObjectName("addPresetButton");
    add_->setAccessibleName(tr("Add preset"));
    add_->setToolTip(tr("Add a custom preset"));
    delete_->setText(QStringLiteral("−"));
    delete_->setObjectName("deletePresetButton");
    delete_->setAccessibleName(tr("Delete preset"));
    delete_->setToolTip(tr("Delete the selected custom preset"));

    auto* listButtons = new QHBoxLayout;
    listButtons->setSpacing(2);
    listButtons->addWidget(add_);
    listButtons->addWidget(delete_);
    listButtons->addStretch();
    auto* left = new QVBoxLayout;
    left->setSpacing(4);
    left->addWidget(list_, 1);
    left->addLayout(listButtons);

    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->setSpacing(16);
    layout->addLayout(left);
    layout->addWidget(editor_, 1);

    connect(list_, &QListWidget::currentRowChanged, this, &PresetsPage::showSelected);
    connect(add_, &QToolButton::clicked, this, &PresetsPage::addCustom);
    connect(delete_, &QToolButton::clicked, this, &PresetsPage::deleteSelected);
    connect(&store_, &app::PresetStore::overridesChanged, this, &PresetsPage::reload);
    connect(&store_, &app::PresetStore::customsChanged, this, &PresetsPage::reload);
    reload();
    list_->setCurrentRow(0);
}

void PresetsPage::reload() {
    const QListWidgetItem* current = list_->currentItem();
    const QString selected = current ? current->data(kIDRole).toString() : QString();
    const QSignalBlocker blocker(list_);
    list_->clear();
    for (const engine::Preset& preset : engine::Preset::builtins()) {
        QString text = qs(preset.displayName);
        if (store_.hasOverride(preset.id)) {
            text += QStringLiteral(" (edited)");
        }
        auto* item = new QListWidgetItem(text, list_);
        item->setData(kIDRole, qs(preset.id));
        item->setData(kIsCustomRole, false);
    }
    for (const presets::CustomPreset& custom : store_.customs()) {
        QString text = qs(custom.name);
        if (app::PresetStore::isReadOnly(custom)) {
            text += QStringLiteral(" (read-only)");
        }
        auto* item = new QListWidgetItem(text, list_);
        item->setData(kIDRole, qs(custom.id));
        item->setData(kIsCustomRole, true);
    }
    for (int row = 0; row < list_->count(); ++row) {
        if (list_->item(row)->data(kIDRole).toString() == selected) {
            list_->setCurrentRow(row);
        }
    }
    const QListWidgetItem* now = list_->currentItem();
    delete_->setEnabled(now != nullptr && now->data(kIsCustomRole).toBool());
}

bool PresetsPage::select(const std::string& id) {
    for (int row = 0; row < list_->count(); ++row) {
        if (list_->item(row)->data(kIDRole).toString() == qs(id)) {
            list_->setCurrentRow(row);
            return true;
        }
    }
    return false;
}

void PresetsPage::showSelected() {
    const QListWidgetItem* item = list_->currentItem();
    const bool isCustom = item != nullptr && item->data(kIsCustomRole).toBool();
    delete_->setEnabled(isCustom);
    if (item == nullptr) {
        editor_->clear();
        return;
    }
    const std::string id = item->data(kIDRole).toString().toStdString();
    if (!isCustom) {
        editor_->editBuiltin(id);
        return;
    }
    const auto& customs = store_.customs();
    const auto found = std::find_if(customs.begin(), customs.end(),
                                    [&](const presets::CustomPreset& c) { return c.id == id; });
    if (found != customs.end()) {
        editor_->editCustom(*found);
    }
}

void PresetsPage::addCustom() {
    const presets::CustomPreset custom = store_.addCustom();
    select(custom.id);
}

void PresetsPage::deleteSelected() {
    const QListWidgetItem* item = list_->currentItem();
    if (item == nullptr || !item->data(kIsCustomRole).toBool()) {
        return;
    }
    const int row = list_->currentRow();
    store_.deleteCustom(item->data(kIDRole).toString().toStdString());
    list_->setCurrentRow(std::min(row, list_->count() - 1));
}

}  // namespace tessarin::gui
