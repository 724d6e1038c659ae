// What the window tests share: an application core over a private configuration home and the
// build's helper folder, event-loop waits, drops and screenshots.
#pragma once

#include <gtest/gtest.h>

#include <QApplication>
#include <QList>
#include <QString>
#include <QTimer>
#include <QUrl>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

#include "app/shell/TessarinApp.hpp"
#include "tests/app/support/AppTestSupport.hpp"

class QWidget;

namespace tessarin::test {

// A TessarinApp over `home`'s settings, with the helper folder's tools (or none), no hardware
// probe and notifications dropped.
// With `recordingRoot`, unfinished takes there are offered at launch.
[[nodiscard]] std::unique_ptr<app::TessarinApp> makeApp(
    const ConfigHome& home, bool withTools = true,
    const std::optional<std::filesystem::path>& recordingRoot = std::nullopt);

// Runs the event loop until `condition` holds; false after `limit`.
[[nodiscard]] bool waitUntil(const std::function<bool()>& condition,
                             std::chrono::milliseconds limit = std::chrono::seconds(60));

// Sends a drag-enter and a drop of `urls` to the middle of `target`.
void dropOn(QWidget* target, const QList<QUrl>& urls);

// Saves `window` as <build>/screenshots/<name>-100.png and, with the interface scale at 200 %
// and the window twice the size, <name>-200.png; the scale is 100 % again afterwards.
void screenshotAtBothScales(QWidget* window, const QString& name);

// Answers the next modal dialog of type T once it is up, from the event loop that runs it.
template <typename T>
void answerNextDialog(std::function<void(T*)> answer) {
    QTimer::singleShot(0, [answer] {
        T* dialog = nullptr;
        ASSERT_TRUE(waitUntil([&] {
            dialog = qobject_cast<T*>(QApplication::activeModalWidget());
            return dialog != nullptr;
        }));
        answer(dialog);
    });
}

}  // namespace tessarin::test
