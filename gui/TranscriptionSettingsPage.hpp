// Settings ▸ Transcription: the API key (saved to the system keyring, checked, removed), the
// roster of models with the active one, the prompt, language and transcript options, where
// transcripts go, and the upload approvals with their withdrawal. A view of
// TranscriptionSettingsModel; every decision is the model's.
#pragma once

#include <QWidget>

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QPlainTextEdit;
class QPushButton;

namespace tessarin::app {
class TranscriptionSettingsModel;
}
namespace tessarin::engine {
class SettingsStore;
}

namespace tessarin::gui {

class TranscriptionSettingsPage : public QWidget {
    Q_OBJECT

public:
    TranscriptionSettingsPage(app::TranscriptionSettingsModel& model,
                              engine::SettingsStore& settings, QWidget* parent = nullptr);

    [[nodiscard]] QLineEdit* keyField() const { return keyField_; }
    [[nodiscard]] QLabel* keyStatus() const { return keyStatus_; }
    [[nodiscard]] QListWidget* rosterList() const { return roster_; }
    [[nodiscard]] QComboBox* activeModelField() const { return activeModel_; }
    [[nodiscard]] QComboBox* formatField() const { return format_; }
    [[nodiscard]] QLabel* audioConsentStatus() const { return audioConsent_; }
    [[nodiscard]] QPushButton* withdrawAudioButton() const { return withdrawAudio_; }
    // Stores `folder` as the transcript folder, as the folder panel's answer does.
    void chooseFolder(const QString& folder);

private:
    [[nodiscard]] QWidget* makeKeyGroup();
    [[nodiscard]] QWidget* makeModelGroup();
    [[nodiscard]] QWidget* makeTextGroup();
    [[nodiscard]] QWidget* makeOutputGroup();
    [[nodiscard]] QWidget* makeConsentGroup();
    void saveOptions();
    void refresh();

    app::TranscriptionSettingsModel& model_;
    engine::SettingsStore& settings_;
    bool showing_ = false;  // set while the fields are filled from the model
    QLineEdit* keyField_ = nullptr;
    QLabel* keyStatus_ = nullptr;
    QLabel* verifyResult_ = nullptr;
    QListWidget* roster_ = nullptr;
    QLineEdit* addField_ = nullptr;
    QLabel* addRejection_ = nullptr;
    QLabel* catalogResult_ = nullptr;
    QComboBox* activeModel_ = nullptr;
    QButtonGroup* promptModes_ = nullptr;
    QPlainTextEdit* customPrompt_ = nullptr;
    QLineEdit* language_ = nullptr;
    QLabel* languageHint_ = nullptr;
    QComboBox* format_ = nullptr;
    QCheckBox* speakers_ = nullptr;
    QPlainTextEdit* vocabulary_ = nullptr;
    QLabel* optionsNote_ = nullptr;
    QLabel* optionsProblem_ = nullptr;
    QButtonGroup* outputModes_ = nullptr;
    QLabel* outputPath_ = nullptr;
    QLabel* audioConsent_ = nullptr;
    QLabel* videoConsent_ = nullptr;
    QPushButton* withdrawAudio_ = nullptr;
    QPushButton* withdrawVideo_ = nullptr;
};

}  // namespace tessarin::gui
