// A notice above the queue, shown until dismissed: the lines gathered by intake and start, and
// the window's other notices with the buttons they offer.
#pragma once

#include <QFrame>

class QHBoxLayout;
class QLabel;
class QPushButton;
class QToolButton;

namespace tessarin::gui {

class NoticeBanner : public QFrame {
    Q_OBJECT

public:
    explicit NoticeBanner(QWidget* parent = nullptr);

    // Shows `text`, or hides the banner when it is empty.
    void setText(const QString& text);
    [[nodiscard]] QString text() const;
    // A button before "Dismiss", for what the notice offers to do.
    QPushButton* addButton(const QString& text, const QString& objectName);

signals:
    void dismissed();

private:
    QLabel* label_;
    QToolButton* dismiss_;
    QHBoxLayout* layout_;
};

}  // namespace tessarin::gui
