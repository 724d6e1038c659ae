#include "gui/DesktopPage.hpp"

#include <QApplication>
#include <QCheckBox>
#include <QClipboard>
#include <QDesktopServices>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QStringList>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>

#include "app/shell/TessarinApp.hpp"

namespace tessarin::gui {

namespace {

QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QLabel* note(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setWordWrap(true);
    return label;
}

constexpr const char* kReportHelp =
    "Reproduce the problem, then click. Copies a plain-text support report (app + system + "
    "file-manager action state, helper versions/hashes, attached Thunderbolt/USB4 accessories, "
    "recent errors and a recent log excerpt) to the clipboard. No paths, file names or keys.";

}  // namespace

DesktopPage::DesktopPage(app::TessarinApp& app, QWidget* parent)
    : QWidget(parent),
      app_(app),
      actionRows_(new QLabel(this)),
      actionHealth_(new QLabel(this)),
      actionOutcome_(new QLabel(this)),
      automaticUpdates_(new QCheckBox(tr("Automatically check for updates"), this)),
      updateStatus_(new QLabel(this)),
      cliStatus_(new QLabel(this)),
      copyReport_(new QPushButton(tr("Copy Support Report"), this)) {
    auto* layout = new QVBoxLayout(this);

    auto* actions = new QGroupBox(tr("File-manager actions"), this);
    auto* actionsLayout = new QVBoxLayout(actions);
    actionsLayout->addWidget(note(
        tr("“Convert with Tessarin” in the right-click menu of Nautilus, Dolphin and Nemo."),
        actions));
    actionRows_->setTextFormat(Qt::PlainText);
    actionRows_->setObjectName("actionRows");
    actionsLayout->addWidget(actionRows_);
    actionHealth_->setWordWrap(true);
    actionsLayout->addWidget(actionHealth_);
    actionOutcome_->setWordWrap(true);
    actionsLayout->addWidget(actionOutcome_);
    auto* actionButtons = new QHBoxLayout;
    auto* install = new QPushButton(tr("Enable All"), actions);
    auto* repair = new QPushButton(tr("Repair"), actions);
    auto* remove = new QPushButton(tr("Remove"), actions);
    actionButtons->addWidget(install);
    actionButtons->addWidget(repair);
    actionButtons->addWidget(remove);
    actionButtons->addStretch(1);
    actionsLayout->addLayout(actionButtons);
    actionsLayout->addWidget(note(qs(engine::kActionRestartHint), actions));
    app::FileManagerActionsModel& model = app_.fileManagerActions();
    connect(install, &QPushButton::clicked, this, [this, &model] {
        const auto answer = QMessageBox::question(
            this, tr("Enable All"),
            tr("Enable All overrides the file-manager actions you've turned off. Continue?"),
            QMessageBox::Yes | QMessageBox::Cancel, QMessageBox::Cancel);
        if (answer == QMessageBox::Yes) {
            model.install();
        }
    });
    connect(repair, &QPushButton::clicked, &model, &app::FileManagerActionsModel::run);
    connect(remove, &QPushButton::clicked, &model, &app::FileManagerActionsModel::remove);
    connect(&model, &app::FileManagerActionsModel::changed, this, &DesktopPage::showActions);
    // The follow-up of "Enable All": nothing restarts a file manager, so the hint says how.
    connect(&model, &app::FileManagerActionsModel::enableAllFinished, this,
            [this, &model](bool allActive, const QString& text) {
                auto* result = new QMessageBox(
                    allActive ? QMessageBox::Information : QMessageBox::Warning, tr("Enable All"),
                    text, QMessageBox::Ok, this);
                result->setObjectName("enableAllResult");
                result->setInformativeText(allActive ? qs(engine::kActionRestartHint)
                                                     : model.lastOutcome());
                result->setAttribute(Qt::WA_DeleteOnClose);
                result->open();
            });

    auto* cli = new QGroupBox(tr("Command-line tool"), this);
    auto* cliLayout = new QVBoxLayout(cli);
    cliStatus_->setWordWrap(true);
    cliStatus_->setObjectName("cliStatus");
    cliLayout->addWidget(cliStatus_);
    auto* cliButtons = new QHBoxLayout;
    auto* cliInstall = new QPushButton(tr("Install Command-Line Tool…"), cli);
    auto* cliAllUsers = new QPushButton(tr("Install for all users…"), cli);
    cliAllUsers->setToolTip(qs(engine::kAllUsersHelp));
    cliButtons->addWidget(cliInstall);
    cliButtons->addWidget(cliAllUsers);
    cliButtons->addStretch(1);
    cliLayout->addLayout(cliButtons);
    cliLayout->addWidget(note(qs(engine::kAllUsersHelp), cli));
    app::DesktopServices& services = app_.desktopServices();
    connect(cliInstall, &QPushButton::clicked, this,
            [&services] { services.installCommandLineTool(false); });
    connect(cliAllUsers, &QPushButton::clicked, this,
            [&services] { services.installCommandLineTool(true); });
    connect(&services, &app::DesktopServices::cliInstallFinished, this,
            [this](const QString& text, bool ok) {
                showCommandLineTool();
                if (ok) {
                    cliStatus_->setText(text);
                } else {
                    QMessageBox::warning(this, tr("Command-line tool"), text);
                }
            });

    auto* updates = new QGroupBox(tr("Updates"), this);
    auto* updatesLayout = new QVBoxLayout(updates);
    automaticUpdates_->setChecked(services.automaticUpdateChecks());
    updatesLayout->addWidget(automaticUpdates_);
    updatesLayout->addWidget(note(tr("Off by default. When on, Tessarin reads its release list "
                                     "once at start; nothing is downloaded or installed."),
                                  updates));
    auto* check = new QPushButton(tr("Check for Updates…"), updates);
    updatesLayout->addWidget(check, 0, Qt::AlignLeft);
    updateStatus_->setWordWrap(true);
    updateStatus_->setOpenExternalLinks(true);
    updatesLayout->addWidget(updateStatus_);
    connect(automaticUpdates_, &QCheckBox::toggled, this,
            [&services](bool on) { services.setAutomaticUpdateChecks(on); });
    connect(check, &QPushButton::clicked, this, [this, &services] {
        updateStatus_->setText(tr("Checking for updates…"));
        services.checkForUpdates();
    });
    connect(&services, &app::DesktopServices::updateChecked, this,
            [this](const QString& text, const QString& url, bool, bool) {
                updateStatus_->setText(url.isEmpty() ? text.toHtmlEscaped()
                                                     : QStringLiteral("%1 <a href=\"%2\">%2</a>")
                                                           .arg(text.toHtmlEscaped(),
                                                                url.toHtmlEscaped()));
            });

    auto* support = new QGroupBox(tr("Support"), this);
    auto* supportLayout = new QVBoxLayout(support);
    copyReport_->setToolTip(tr(kReportHelp));
    supportLayout->addWidget(copyReport_, 0, Qt::AlignLeft);
    supportLayout->addWidget(note(tr(kReportHelp), support));
    connect(copyReport_, &QPushButton::clicked, this, [this, &services] {
        copyReport_->setEnabled(false);
        copyReport_->setText(tr(app::DesktopServices::kCollecting));
        services.buildReport();
    });
    connect(&services, &app::DesktopServices::reportReady, this, [this](const QString& report) {
        QApplication::clipboard()->setText(report);
        copyReport_->setText(tr(app::DesktopServices::kCopied));
        QTimer::singleShot(2000, this, [this] {
            copyReport_->setText(tr("Copy Support Report"));
            copyReport_->setEnabled(true);
        });
    });

    layout->addWidget(actions);
    layout->addWidget(cli);
    layout->addWidget(updates);
    layout->addWidget(support);
    layout->addStretch(1);
    showActions();
    showCommandLineTool();
    model.refresh();
}

void DesktopPage::showActions() {
    const app::FileManagerActionsModel& model = app_.fileManagerActions();
    QString rows;
    // One line an action: its state once when all three file managers agree, else each one's.
    for (const engine::ActionStatus& row : model.rows()) {
        const bool same = std::all_of(row.files.begin(), row.files.end(),
                                      [&](const engine::ActionFileStatus& file) {
                                          return file.state == row.files.front().state;
                                      });
        QStringList parts;
        for (const engine::ActionFileStatus& file : row.files) {
            parts << (same ? qs(engine::fileManagerTitle(file.manager))
                           : QStringLiteral("%1 — %2").arg(
                                 qs(engine::fileManagerTitle(file.manager)),
                                 QString::fromStdString(engine::actionFileStateText(file.state))));
        }
        rows += same && !row.files.empty()
                    ? QStringLiteral("%1: %2 (%3)\n")
                          .arg(QString::fromStdString(row.displayName),
                               QString::fromStdString(
                                   engine::actionFileStateText(row.files.front().state)),
                               parts.join(QStringLiteral(", ")))
                    : QStringLiteral("%1: %2\n").arg(QString::fromStdString(row.displayName),
                                                     parts.join(QStringLiteral("; ")));
    }
    actionRows_->setText(model.busy() && rows.isEmpty() ? tr("Checking…") : rows.trimmed());
    actionHealth_->setText(model.healthText());
    actionOutcome_->setText(model.lastOutcome());
}

void DesktopPage::showCommandLineTool() {
    cliStatus_->setText(
        QString::fromStdString(engine::cliInstallerStatusText(app_.desktopServices().cliInstaller())));
}

}  // namespace tessarin::gui
