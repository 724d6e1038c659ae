#include "gui/UIScale.hpp"

#include <QApplication>
#include <QFont>
#include <QLayout>
#include <QWidget>
#include <algorithm>
#include <cmath>

namespace tessarin::gui {
namespace {

double scale_ = 1.0;

// The platform font before any scaling; read once so that repeated changes don't compound.
const QFont& baseFont() {
    static const QFont font = QApplication::font();
    return font;
}

double basePointSize() {
    const QFont& font = baseFont();
    return font.pointSizeF() > 0 ? font.pointSizeF() : 10.0;
}

void scaleLayout(QLayout* layout) {
    if (!layout->property("tessarinBaseSpacing").isValid()) {
        layout->setProperty("tessarinBaseSpacing", layout->spacing());
        layout->setProperty("tessarinBaseMargins", QVariant::fromValue(layout->contentsMargins()));
    }
    const int spacing = layout->property("tessarinBaseSpacing").toInt();
    const auto margins = layout->property("tessarinBaseMargins").value<QMargins>();
    if (spacing >= 0) {
        layout->setSpacing(scaled(spacing));
    }
    layout->setContentsMargins(scaled(margins.left()), scaled(margins.top()),
                               scaled(margins.right()), scaled(margins.bottom()));
}

void applyRoleFont(QWidget* widget) {
    const QVariant factor = widget->property("tessarinFontFactor");
    if (!factor.isValid()) {
        return;
    }
    QFont font = QApplication::font();
    font.setPointSizeF(basePointSize() * scale_ * factor.toDouble());
    font.setBold(widget->property("tessarinFontBold").toBool());
    widget->setFont(font);
}

}  // namespace

double currentUIScale() {
    return scale_;
}

int scaled(int pixels) {
    return static_cast<int>(std::lround(pixels * scale_));
}

void scaleWidgetTree(QWidget* root) {
    if (root->layout() != nullptr) {
        scaleLayout(root->layout());
    }
    for (QLayout* layout : root->findChildren<QLayout*>()) {
        scaleLayout(layout);
    }
    applyRoleFont(root);
    for (QWidget* widget : root->findChildren<QWidget*>()) {
        applyRoleFont(widget);
    }
}

void applyUIScale(double scale) {
    const double base = basePointSize();
    scale_ = std::clamp(scale, 1.0, 2.0);
    QFont font = baseFont();
    font.setPointSizeF(base * scale_);
    QApplication::setFont(font);
    for (QWidget* window : QApplication::topLevelWidgets()) {
        scaleWidgetTree(window);
    }
}

void setFontRole(QWidget* widget, double sizeFactor, bool bold) {
    widget->setProperty("tessarinFontFactor", sizeFactor);
    widget->setProperty("tessarinFontBold", bold);
    applyRoleFont(widget);
}

}  // namespace tessarin::gui
