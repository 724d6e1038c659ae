#include "tests/gui/GuiTestSupport.hpp"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMimeData>
#include <QPixmap>
#include <QTest>
#include <QWidget>

#include "gui/UIScale.hpp"

namespace tessarin::test {

std::unique_ptr<app::TessarinApp> makeApp(const ConfigHome& home, bool withTools,
                                          const std::optional<std::filesystem::path>& recordingRoot) {
    app::TessarinApp::Environment environment;
    environment.settings = openStore(home.standardFile());
    if (withTools) {
        environment.tools = engine::Tools::fromEnvironment();
        EXPECT_TRUE(environment.tools.has_value()) << "CONVERTER_TOOLS_DIR must name the helpers";
    }
    environment.isApplicationActive = [] { return true; };
    environment.postNotification = [](const std::string&, const std::string&) {};
    environment.recordingRoot = recordingRoot;
    // File-manager actions are set up at launch: in the private folder, for this build's helper.
    environment.actionsDataHome = home.standardFile().parent_path().parent_path() / "data";
    environment.helperFolder = TESSARIN_HELPER_DIR;
    environment.home = home.standardFile().parent_path().parent_path() / "home";
    auto core = std::make_unique<app::TessarinApp>(std::move(environment));
    core->launch();
    return core;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        QTest::qWait(20);
    }
    return true;
}

void dropOn(QWidget* target, const QList<QUrl>& urls) {
    QMimeData data;
    data.setUrls(urls);
    const QPoint middle = target->rect().center();
    QDragEnterEvent enter(middle, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &enter);
    ASSERT_TRUE(enter.isAccepted()) << "the drop zone refused the drag";
    QDropEvent drop(QPointF(middle), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(target, &drop);
}

void screenshotAtBothScales(QWidget* window, const QString& name) {
    const QDir folder(QStringLiteral(TESSARIN_SCREENSHOT_DIR));
    ASSERT_TRUE(folder.mkpath(QStringLiteral(".")));
    const QSize size = window->size();
    for (const int percent : {100, 200}) {
        gui::applyUIScale(percent / 100.0);
        window->resize(size * percent / 100);
        QTest::qWait(50);
        const QString file = folder.filePath(QStringLiteral("%1-%2.png").arg(name).arg(percent));
        ASSERT_TRUE(window->grab().save(file)) << file.toStdString();
    }
    gui::applyUIScale(1.0);
    window->resize(size);
    QTest::qWait(20);
}

}  // namespace tessarin::test
