#include "gui/GeneralSettingsPage.hpp"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QVBoxLayout>
#include <cmath>

#include "app/destinations/OutputAvailabilityModel.hpp"
#include "app/destinations/OutputDestinationTexts.hpp"
#include "app/settings/FramesSettings.hpp"
#include "app/shell/RemoteSharesModel.hpp"
#include "app/shell/TessarinApp.hpp"
#include "gui/RemoteSharesDialog.hpp"
#include "gui/UIScale.hpp"

namespace tessarin::gui {
namespace {

QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), text.size());
}

// The budget field's lowest value, shown as "Automatic"; every other value is a frame count.
constexpr int kAutomaticBudget = 1;

}  // namespace

GeneralSettingsPage::GeneralSettingsPage(app::TessarinApp& app, QWidget* parent)
    : QWidget(parent),
      app_(app),
      availability_(std::make_unique<app::OutputAvailabilityModel>(app.outputDestination())),
      modes_(new QButtonGroup(this)),
      chooseFolder_(new QPushButton(qs(app::kChooseFolderButton), this)),
      path_(new QLabel(this)),
      status_(new QLabel(this)),
      scale_(new QSpinBox(this)) {
    auto* output = new QGroupBox(tr("Output"), this);
    auto* outputLayout = new QVBoxLayout(output);
    outputLayout->setSpacing(6);
    outputLayout->addWidget(new QLabel(qs(app::kOutputModeLabel), output));
    const std::pair<app::OutputMode, std::string_view> choices[] = {
        {app::OutputMode::sameFolder, app::kSameFolderChoice},
        {app::OutputMode::customFolder, app::kCustomFolderChoice},
        {app::OutputMode::askEachTime, app::kAskEachTimeChoice},
    };
    for (const auto& [mode, text] : choices) {
        auto* radio = new QRadioButton(qs(text), output);
        radio->setObjectName(QString::fromUtf8(app::rawValue(mode).data()));
        modes_->addButton(radio, static_cast<int>(mode));
        outputLayout->addWidget(radio);
    }
    connect(modes_, &QButtonGroup::idClicked, this, [this](int id) {
        const auto mode = static_cast<app::OutputMode>(id);
        // "Custom folder…" without a folder yet means choosing one now; cancelling keeps the
        // mode that was set.
        if (mode == app::OutputMode::customFolder &&
            !app_.settings().contains(app::kOutputFolderBookmarkKey)) {
            const QString folder =
                QFileDialog::getExistingDirectory(this, qs(app::kChooseOutputFolderMessage));
            if (folder.isEmpty()) {
                showMode();
                return;
            }
            chooseFolder(folder);
            return;
        }
        app_.outputDestination().setMode(mode);
        availability_->refresh();
    });

    auto* folderRow = new QHBoxLayout;
    chooseFolder_->setObjectName("chooseFolderButton");
    path_->setObjectName("outputFolderPath");
    path_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    path_->setTextFormat(Qt::PlainText);
    folderRow->addSpacing(24);
    folderRow->addWidget(chooseFolder_);
    folderRow->addWidget(path_, 1);
    outputLayout->addLayout(folderRow);
    auto* remoteRow = new QHBoxLayout;
    auto* remote = new QPushButton(tr("Save to Another Computer…"), output);
    remote->setObjectName("saveToAnotherComputer");
    remoteRow->addSpacing(24);
    remoteRow->addWidget(remote);
    remoteRow->addStretch();
    outputLayout->addLayout(remoteRow);
    connect(remote, &QPushButton::clicked, this, [this] { openRemoteShares(); });
    status_->setObjectName("outputFolderStatus");
    status_->setWordWrap(true);
    outputLayout->addWidget(status_);
    auto* note = new QLabel(qs(app::kOutputSettingsNote), output);
    note->setWordWrap(true);
    note->setForegroundRole(QPalette::PlaceholderText);
    outputLayout->addWidget(note);
    connect(chooseFolder_, &QPushButton::clicked, this, [this] {
        const QString folder =
            QFileDialog::getExistingDirectory(this, qs(app::kChooseOutputFolderMessage));
        if (!folder.isEmpty()) {
            chooseFolder(folder);
        }
    });

    auto* interface = new QGroupBox(tr("Interface"), this);
    auto* interfaceLayout = new QFormLayout(interface);
    interfaceLayout->setFieldGrowthPolicy(QFormLayout::FieldsStayAtSizeHint);
    scale_->setObjectName("uiScale");
    scale_->setRange(100, 200);
    scale_->setSingleStep(10);
    scale_->setSuffix(QStringLiteral(" %"));
    scale_->setValue(static_cast<int>(std::lround(app_.uiScale() * 100)));
    scale_->setToolTip(tr("Text and spacing size; never affects output"));
    interfaceLayout->addRow(tr("Interface scale:"), scale_);
    connect(scale_, &QSpinBox::valueChanged, this, [this](int percent) {
        app_.setUIScale(percent / 100.0);
        applyUIScale(app_.uiScale());
    });

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->setSpacing(14);
    layout->addWidget(output);
    layout->addWidget(makeFramesGroup());
    layout->addWidget(interface);
    layout->addStretch();

    connect(availability_.get(), &app::OutputAvailabilityModel::availabilityChanged, this,
            &GeneralSettingsPage::showAvailability);
    connect(availability_.get(), &app::OutputAvailabilityModel::displayedPathChanged, this,
            &GeneralSettingsPage::showAvailability);
    showMode();
    showAvailability();
    availability_->refresh();
}

GeneralSettingsPage::~GeneralSettingsPage() = default;

QWidget* GeneralSettingsPage::makeFramesGroup() {
    using Options = engine::FrameExtractionOptions;
    app::FramesSettings& frames = app_.framesSettings();
    auto* group = new QGroupBox(tr("Frames"), this);
    group->setObjectName("framesGroup");
    auto* form = new QFormLayout(group);
    form->setFieldGrowthPolicy(QFormLayout::FieldsStayAtSizeHint);

    framesModes_ = new QButtonGroup(group);
    auto* modes = new QVBoxLayout;
    modes->setSpacing(4);
    const std::pair<engine::FrameSelectionMode, QString> choices[] = {
        {engine::FrameSelectionMode::changes, QStringLiteral("Where the picture changes")},
        {engine::FrameSelectionMode::interval, QStringLiteral("Evenly spaced")},
    };
    for (const auto& [mode, text] : choices) {
        auto* radio = new QRadioButton(text, group);
        radio->setObjectName(QStringLiteral("framesMode:") + qs(engine::rawValue(mode)));
        framesModes_->addButton(radio, static_cast<int>(mode));
        modes->addWidget(radio);
    }
    form->addRow(tr("Take frames:"), modes);
    connect(framesModes_, &QButtonGroup::idClicked, this,
            [&frames](int id) { frames.setMode(static_cast<engine::FrameSelectionMode>(id)); });

    framesBudget_ = new QSpinBox(group);
    framesBudget_->setObjectName("framesBudget");
    framesBudget_->setRange(kAutomaticBudget, static_cast<int>(Options::kMaximumFrames));
    framesBudget_->setSpecialValueText(QStringLiteral("Automatic"));
    framesBudget_->setKeyboardTracking(false);
    framesBudget_->setToolTip(
        tr("The most frames saved from one video; Automatic takes about one per 5 seconds"));
    form->addRow(tr("Frame budget:"), framesBudget_);
    connect(framesBudget_, &QSpinBox::valueChanged, this, [&frames](int value) {
        frames.setMaxFrames(value == kAutomaticBudget ? std::nullopt
                                                      : std::optional<int64_t>(value));
    });

    framesMaxSize_ = new QSpinBox(group);
    framesMaxSize_->setObjectName("framesMaxSize");
    framesMaxSize_->setRange(static_cast<int>(Options::kMinimumSize),
                             static_cast<int>(Options::kMaximumSize));
    framesMaxSize_->setSuffix(QStringLiteral(" px"));
    framesMaxSize_->setKeyboardTracking(false);
    framesMaxSize_->setToolTip(tr("The long edge of the saved pictures; none is enlarged"));
    form->addRow(tr("Maximum size:"), framesMaxSize_);
    connect(framesMaxSize_, &QSpinBox::valueChanged, this,
            [&frames](int value) { frames.setMaxSize(value); });

    framesFormat_ = new QComboBox(group);
    framesFormat_->setObjectName("framesFormat");
    framesFormat_->addItem(QStringLiteral("JPEG"),
                           static_cast<int>(engine::FrameImageFormat::jpeg));
    framesFormat_->addItem(QStringLiteral("PNG"), static_cast<int>(engine::FrameImageFormat::png));
    form->addRow(tr("Format:"), framesFormat_);
    connect(framesFormat_, &QComboBox::currentIndexChanged, this, [this, &frames](int index) {
        frames.setFormat(
            static_cast<engine::FrameImageFormat>(framesFormat_->itemData(index).toInt()));
    });

    contactSheets_ = new QCheckBox(QStringLiteral("Contact sheets"), group);
    contactSheets_->setObjectName("framesContactSheets");
    contactSheets_->setToolTip(tr("Grids of the frames with their times, for a quick look"));
    form->addRow(QString(), contactSheets_);
    connect(contactSheets_, &QCheckBox::toggled, this,
            [&frames](bool checked) { frames.setContactSheet(checked); });

    connect(&frames, &app::FramesSettings::changed, this, &GeneralSettingsPage::showFrames);
    showFrames();
    return group;
}

void GeneralSettingsPage::showFrames() {
    const app::FramesSettings& frames = app_.framesSettings();
    if (QAbstractButton* button = framesModes_->button(static_cast<int>(frames.mode()))) {
        button->setChecked(true);
    }
    // Showing the stored choices must not store them again.
    const QSignalBlocker budget(framesBudget_);
    const QSignalBlocker size(framesMaxSize_);
    const QSignalBlocker format(framesFormat_);
    const QSignalBlocker sheets(contactSheets_);
    framesBudget_->setValue(static_cast<int>(frames.maxFrames().value_or(kAutomaticBudget)));
    framesMaxSize_->setValue(static_cast<int>(frames.maxSize()));
    framesFormat_->setCurrentIndex(framesFormat_->findData(static_cast<int>(frames.format())));
    contactSheets_->setChecked(frames.contactSheet());
}

RemoteSharesDialog* GeneralSettingsPage::openRemoteShares(app::RemoteSharesModel* model) {
    auto* dialog = new RemoteSharesDialog(this, model);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    // The mounted share is handed to the folder panel, opened where gvfs shows mounted shares.
    connect(dialog, &RemoteSharesDialog::shareMounted, this, [this] {
        const QString folder = QFileDialog::getExistingDirectory(
            this, qs(app::kChooseOutputFolderMessage), app::RemoteSharesModel::mountedSharesFolder());
        if (!folder.isEmpty()) {
            chooseFolder(folder);
        }
    });
    dialog->open();
    return dialog;
}

void GeneralSettingsPage::chooseFolder(const QString& folder) {
    if (const auto sentence = availability_->chooseFolder(folder.toStdString())) {
        QMessageBox::warning(this, tr("Output folder"), QString::fromStdString(*sentence));
    }
    showMode();
}

void GeneralSettingsPage::showMode() {
    const app::OutputMode mode = app_.outputDestination().mode();
    if (QAbstractButton* button = modes_->button(static_cast<int>(mode))) {
        button->setChecked(true);
    }
    const bool custom = mode == app::OutputMode::customFolder;
    chooseFolder_->setEnabled(true);
    path_->setEnabled(custom);
    status_->setVisible(custom && !status_->text().isEmpty());
}

void GeneralSettingsPage::showAvailability() {
    using Availability = app::OutputAvailabilityModel::Availability;
    const auto& path = availability_->displayedPath();
    path_->setText(path ? QString::fromStdString(*path) : tr("No folder chosen"));
    QString status;
    if (availability_->availability() == Availability::checking) {
        status = tr("Checking…");
    } else if (const auto sentence = availability_->statusSentence()) {
        status = qs(*sentence);
    }
    status_->setText(status);
    status_->setVisible(app_.outputDestination().mode() == app::OutputMode::customFolder &&
                        !status.isEmpty());
}

}  // namespace tessarin::gui
