// The review before a fast cut, as a window-modal sheet over the main window: one row per file
// with its plan or the sentence saying why it can't be cut (and a way back to a conversion
// preset), the planning line while plans come in, the whole-video switch, the banner of an
// outdated review, and Cancel and Export.
//
// Threads: main thread only. It owns the review it shows; closing the sheet in any way closes
// the review, which stops its planning.
#pragma once

#include <QDialog>
#include <map>
#include <memory>

#include "app/queue/FastCutReview.hpp"

class QCheckBox;
class QFrame;
class QLabel;
class QPushButton;
class QVBoxLayout;

namespace tessarin::gui {

class FastCutReviewDialog : public QDialog {
    Q_OBJECT

public:
    // Takes `review`, which has no parent yet, and shows it.
    FastCutReviewDialog(std::unique_ptr<app::FastCutReview> review, QWidget* parent = nullptr);

    [[nodiscard]] app::FastCutReview& review() const { return *review_; }
    [[nodiscard]] QPushButton* exportButton() const { return export_; }
    // The text shown for one file: its plan, failure or planning state.
    [[nodiscard]] QString rowText(const engine::Uuid& id) const;

public slots:
    // Closes the review, then the sheet.
    void reject() override;

private:
    struct Row {
        QLabel* status;
        QPushButton* chooseConversion;
    };

    void refresh();

    app::FastCutReview* review_;
    std::map<engine::Uuid, Row> rows_;
    QVBoxLayout* rowsLayout_;
    QWidget* busy_;
    QCheckBox* acceptWholeFile_;
    QFrame* changed_;
    QPushButton* export_;
};

}  // namespace tessarin::gui
