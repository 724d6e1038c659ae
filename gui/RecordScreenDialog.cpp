#include "gui/RecordScreenDialog.hpp"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QSpinBox>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "gui/AreaPickerOverlay.hpp"

namespace tessarin::gui {

namespace {

QSpinBox* pixelBox(QWidget* parent, const char* name, int value) {
    auto* box = new QSpinBox(parent);
    box->setObjectName(name);
    box->setRange(0, 16384);
    box->setValue(value);
    box->setSuffix(QStringLiteral(" px"));
    return box;
}

}  // namespace

RecordScreenDialog::RecordScreenDialog(const engine::RecordingPreferences& preferences,
                                       QWidget* parent)
    : QDialog(parent), base_(preferences) {
    setObjectName("recordScreenDialog");
    setWindowTitle(tr("Record Screen"));
    const engine::X11Sources sources;
    displays_ = sources.displays();
    windows_ = sources.windows();

    auto* layout = new QVBoxLayout(this);
    auto* form = new QFormLayout;
    mode_ = new QComboBox(this);
    mode_->setObjectName("recordingMode");
    mode_->addItem(tr("Entire display"));
    mode_->addItem(tr("One window"));
    mode_->addItem(tr("An area"));
    form->addRow(tr("Record:"), mode_);

    pages_ = new QStackedWidget(this);
    display_ = new QComboBox(pages_);
    display_->setObjectName("recordingDisplay");
    for (const engine::X11Display& display : displays_) {
        display_->addItem(QStringLiteral("%1 (%2 × %3)")
                              .arg(QString::fromStdString(display.name))
                              .arg(display.bounds.width)
                              .arg(display.bounds.height));
    }
    pages_->addWidget(display_);
    window_ = new QComboBox(pages_);
    window_->setObjectName("recordingWindow");
    for (const engine::X11Window& window : windows_) {
        window_->addItem(window.title.empty() ? tr("Untitled window") : QString::fromStdString(window.title));
    }
    pages_->addWidget(window_);
    auto* areaPage = new QWidget(pages_);
    auto* areaLayout = new QHBoxLayout(areaPage);
    areaLayout->setContentsMargins(0, 0, 0, 0);
    const engine::RecordingRect first =
        displays_.empty() ? engine::RecordingRect{0, 0, 1280, 720} : displays_.front().bounds;
    areaX_ = pixelBox(areaPage, "areaX", static_cast<int>(first.x));
    areaY_ = pixelBox(areaPage, "areaY", static_cast<int>(first.y));
    areaWidth_ = pixelBox(areaPage, "areaWidth", static_cast<int>(first.width / 2));
    areaHeight_ = pixelBox(areaPage, "areaHeight", static_cast<int>(first.height / 2));
    auto* pick = new QPushButton(tr("Pick Area…"), areaPage);
    pick->setObjectName("pickArea");
    for (QWidget* widget : {static_cast<QWidget*>(areaX_), static_cast<QWidget*>(areaY_),
                            static_cast<QWidget*>(areaWidth_), static_cast<QWidget*>(areaHeight_),
                            static_cast<QWidget*>(pick)}) {
        areaLayout->addWidget(widget);
    }
    pages_->addWidget(areaPage);
    form->addRow(QString(), pages_);

    frameRate_ = new QComboBox(this);
    frameRate_->setObjectName("recordingFrameRate");
    frameRate_->addItem(tr("30 frames per second"), 30);
    frameRate_->addItem(tr("60 frames per second"), 60);
    frameRate_->setCurrentIndex(preferences.framesPerSecond == 60 ? 1 : 0);
    form->addRow(tr("Frame rate:"), frameRate_);

    systemAudio_ = new QCheckBox(tr("Record system sound"), this);
    systemAudio_->setObjectName("recordingSystemAudio");
    systemAudio_->setChecked(preferences.systemAudio);
    form->addRow(tr("Sound:"), systemAudio_);
    microphone_ = new QComboBox(this);
    microphone_->setObjectName("recordingMicrophone");
    microphone_->addItem(tr("Microphone Off"), QString());
    microphone_->addItem(tr("Default microphone"), QStringLiteral("default"));
    if (preferences.microphoneID && *preferences.microphoneID != "default") {
        microphone_->addItem(QString::fromStdString(*preferences.microphoneID),
                             QString::fromStdString(*preferences.microphoneID));
    }
    if (preferences.microphoneID) {
        microphone_->setCurrentIndex(
            microphone_->findData(QString::fromStdString(*preferences.microphoneID)));
    }
    form->addRow(tr("Microphone:"), microphone_);

    countdown_ = new QSpinBox(this);
    countdown_->setObjectName("recordingCountdown");
    countdown_->setRange(0, static_cast<int>(engine::RecordingPreferences::kMaximumCountdown));
    countdown_->setValue(static_cast<int>(preferences.countdown));
    countdown_->setSuffix(tr(" s"));
    form->addRow(tr("Countdown:"), countdown_);
    layout->addLayout(form);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Cancel, this);
    record_ = buttons->addButton(tr("Record"), QDialogButtonBox::AcceptRole);
    record_->setObjectName("startRecording");
    record_->setDefault(true);
    layout->addWidget(buttons);

    connect(mode_, &QComboBox::currentIndexChanged, pages_, &QStackedWidget::setCurrentIndex);
    connect(mode_, &QComboBox::currentIndexChanged, this, &RecordScreenDialog::updateRecordButton);
    connect(pick, &QPushButton::clicked, this, &RecordScreenDialog::pickArea);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    updateRecordButton();
}

void RecordScreenDialog::updateRecordButton() {
    const int mode = mode_->currentIndex();
    record_->setEnabled((mode == 0 && !displays_.empty()) || (mode == 1 && !windows_.empty()) ||
                        mode == 2);
}

void RecordScreenDialog::setArea(const engine::RecordingRect& area) {
    mode_->setCurrentIndex(2);
    areaX_->setValue(static_cast<int>(area.x));
    areaY_->setValue(static_cast<int>(area.y));
    areaWidth_->setValue(static_cast<int>(area.width));
    areaHeight_->setValue(static_cast<int>(area.height));
}

void RecordScreenDialog::pickArea() {
    QScreen* screen = this->screen() != nullptr ? this->screen() : QGuiApplication::primaryScreen();
    auto* overlay = new AreaPickerOverlay(screen);
    connect(overlay, &AreaPickerOverlay::picked, this, [this](const QRect& area) {
        setArea({area.x(), area.y(), area.width(), area.height()});
        show();
    });
    connect(overlay, &AreaPickerOverlay::cancelled, this, [this] { show(); });
    hide();  // the dialog itself must not be in the way of the picture
    overlay->show();
    overlay->activateWindow();
}

engine::RecordingTarget RecordScreenDialog::target() const {
    engine::RecordingTarget target;
    switch (mode_->currentIndex()) {
        case 1:
            if (window_->currentIndex() >= 0 &&
                static_cast<std::size_t>(window_->currentIndex()) < windows_.size()) {
                const engine::X11Window& window = windows_[static_cast<std::size_t>(window_->currentIndex())];
                target.mode = engine::RecordingMode::window;
                target.windowID = window.id;
                target.applicationPID = window.pid;
                target.title = window.title;
            }
            break;
        case 2: {
            target.mode = engine::RecordingMode::area;
            target.area = engine::RecordingRect{areaX_->value(), areaY_->value(),
                                                areaWidth_->value(), areaHeight_->value()};
            for (const engine::X11Display& display : displays_) {
                const engine::RecordingRect& b = display.bounds;
                if (target.area->x >= b.x && target.area->y >= b.y &&
                    target.area->x < b.x + b.width && target.area->y < b.y + b.height) {
                    target.displayID = display.id;
                    break;
                }
            }
            break;
        }
        default:
            target.mode = engine::RecordingMode::display;
            if (display_->currentIndex() >= 0 &&
                static_cast<std::size_t>(display_->currentIndex()) < displays_.size()) {
                target.displayID = displays_[static_cast<std::size_t>(display_->currentIndex())].id;
                target.title = displays_[static_cast<std::size_t>(display_->currentIndex())].name;
            }
    }
    return target;
}

engine::RecordingPreferences RecordScreenDialog::preferences() const {
    engine::RecordingPreferences preferences = base_;
    preferences.framesPerSecond = frameRate_->currentData().toInt();
    preferences.systemAudio = systemAudio_->isChecked();
    const QString microphone = microphone_->currentData().toString();
    preferences.microphoneID = microphone.isEmpty() ? std::nullopt
                                                    : std::optional(microphone.toStdString());
    preferences.countdown = countdown_->value();
    return preferences;
}

}  // namespace tessarin::gui
