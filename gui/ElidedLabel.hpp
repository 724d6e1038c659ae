// A one-line label that shortens its text with "…" to the width it gets, instead of asking for
// the width of the whole text; the full text stays in its tooltip. Rows use it so that a long
// name never widens the window.
#pragma once

#include <QLabel>

namespace tessarin::gui {

class ElidedLabel : public QLabel {
    Q_OBJECT

public:
    explicit ElidedLabel(Qt::TextElideMode mode, QWidget* parent = nullptr);

    void setFullText(const QString& text);
    [[nodiscard]] const QString& fullText() const { return fullText_; }
    // Whether the text shown now is shortened.
    [[nodiscard]] bool isElided() const;

    [[nodiscard]] QSize minimumSizeHint() const override;
    [[nodiscard]] QSize sizeHint() const override;

protected:
    void resizeEvent(QResizeEvent* event) override;

private:
    void refresh();

    Qt::TextElideMode mode_;
    QString fullText_;
};

}  // namespace tessarin::gui
