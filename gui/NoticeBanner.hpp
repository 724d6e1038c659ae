// The queue's notice: the lines gathered by intake and start, shown until dismissed.
#pragma once

#include <QFrame>

class QLabel;
class QToolButton;

namespace tessarin::gui {

class NoticeBanner : public QFrame {
    Q_OBJECT

public:
    explicit NoticeBanner(QWidget* parent = nullptr);

    // Shows `text`, or hides the banner when it is empty.
    void setText(const QString& text);
    [[nodiscard]] QString text() const;

signals:
    void dismissed();

private:
    QLabel* label_;
    QToolButton* dismiss_;
};

}  // namespace tessarin::gui
