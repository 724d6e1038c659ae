// The upload notice shown before the first transcription of a kind: what is sent, to whom, what
// they may keep, and how to withdraw. "Upload and Transcribe" approves; anything else does not.
#pragma once

#include <QDialog>

#include "engine/transcription/TranscriptionError.hpp"

class QPushButton;

namespace tessarin::gui {

class ConsentSheet : public QDialog {
    Q_OBJECT

public:
    ConsentSheet(engine::TranscriptionConsentKind kind, QWidget* parent = nullptr);

    [[nodiscard]] QPushButton* approveButton() const { return approve_; }
    [[nodiscard]] engine::TranscriptionConsentKind kind() const { return kind_; }

private:
    engine::TranscriptionConsentKind kind_;
    QPushButton* approve_;
};

}  // namespace tessarin::gui
