// The area that takes dropped files and folders, with the "Add Files…" button inside it.
#pragma once

#include <QFrame>
#include <QList>
#include <QUrl>

class QLabel;
class QPushButton;

namespace tessarin::gui {

class DropZone : public QFrame {
    Q_OBJECT

public:
    explicit DropZone(QWidget* parent = nullptr);

    [[nodiscard]] QPushButton* addFilesButton() const { return addFiles_; }

signals:
    // Local files and folders only; other URLs in a drop are left out.
    void urlsDropped(const QList<QUrl>& urls);
    void addFilesRequested();

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void setHighlighted(bool highlighted);

    QLabel* prompt_;
    QPushButton* addFiles_;
};

}  // namespace tessarin::gui
