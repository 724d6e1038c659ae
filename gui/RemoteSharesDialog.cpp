#include "gui/RemoteSharesDialog.hpp"

#include <QDialogButtonBox>
#include <QLabel>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

#include "app/shell/RemoteSharesModel.hpp"

namespace tessarin::gui {
namespace {

QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

}  // namespace

RemoteSharesDialog::RemoteSharesDialog(QWidget* parent, app::RemoteSharesModel* model)
    : QDialog(parent),
      model_(model != nullptr ? model : new app::RemoteSharesModel),
      hosts_(new QListWidget(this)),
      empty_(new QLabel(qs(engine::kSheetEmpty), this)),
      error_(new QLabel(this)) {
    model_->setParent(this);
    setWindowTitle(qs(engine::kSheetTitle));
    auto* text = new QLabel(qs(engine::kSheetText), this);
    text->setWordWrap(true);
    hosts_->setObjectName("remoteHosts");
    empty_->setObjectName("remoteHostsEmpty");
    empty_->setWordWrap(true);
    error_->setObjectName("remoteSharesError");
    error_->setWordWrap(true);
    error_->setStyleSheet(QStringLiteral("color: palette(highlight);"));
    auto* buttons = new QDialogButtonBox(this);
    buttons->addButton(QStringLiteral("Cancel"), QDialogButtonBox::RejectRole);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(text);
    layout->addWidget(hosts_, 1);
    layout->addWidget(empty_);
    layout->addWidget(error_);
    layout->addWidget(buttons);

    connect(hosts_, &QListWidget::itemActivated, this, [this](QListWidgetItem* item) {
        const int row = hosts_->row(item);
        if (row >= 0 && static_cast<size_t>(row) < model_->hosts().size()) {
            model_->pick(model_->hosts()[static_cast<size_t>(row)]);
        }
    });
    connect(model_, &app::RemoteSharesModel::changed, this, &RemoteSharesDialog::showState);
    connect(model_, &app::RemoteSharesModel::mounted, this, [this](const QString& url) {
        // Closed first, so that the folder panel that follows isn't stacked on it.
        accept();
        emit shareMounted(url);
    });
    showState();
    model_->start();
}

RemoteSharesDialog::~RemoteSharesDialog() = default;

void RemoteSharesDialog::done(int result) {
    model_->stop();
    QDialog::done(result);
}

void RemoteSharesDialog::showState() {
    hosts_->clear();
    for (const engine::DiscoveredHost& host : model_->hosts()) {
        hosts_->addItem(QString::fromStdString(host.name));
    }
    hosts_->setEnabled(!model_->mounting());
    empty_->setVisible(model_->hosts().empty());
    error_->setText(model_->error());
    error_->setVisible(!model_->error().isEmpty());
}

}  // namespace tessarin::gui
