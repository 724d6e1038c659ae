// The main window over a fresh application and settings folder, shown and exposed, with a
// folder for the test's media; teardown waits for the queue's background work.
#pragma once

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QTest>
#include <QUrl>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "app/shell/TessarinApp.hpp"
#include "gui/MainWindow.hpp"
#include "tests/gui/GuiTestSupport.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::test {

class WindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        core_ = makeApp(home_);
        window_ = std::make_unique<gui::MainWindow>(*core_);
        window_->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window_.get()));
    }

    void TearDown() override {
        core_->prepareForQuit();
        EXPECT_TRUE(core_->queue().waitForBackgroundWork(std::chrono::seconds(30)));
        QTest::qWait(20);
        window_.reset();
        core_.reset();
    }

    // Clicks the shown, enabled button `name` inside `parent`.
    static void click(QWidget* parent, const char* name) {
        auto* button = parent->findChild<QAbstractButton*>(name);
        ASSERT_NE(button, nullptr) << name;
        ASSERT_TRUE(button->isVisible() && button->isEnabled()) << name;
        QTest::mouseClick(button, Qt::LeftButton);
    }

    // A copy of `clip` in this test's folder, so that outputs land there.
    QUrl stage(const std::filesystem::path& clip, const std::string& name) {
        const std::filesystem::path copy = media_.path() / name;
        std::filesystem::copy_file(clip, copy);
        return QUrl::fromLocalFile(QString::fromStdString(copy.string()));
    }

    ConfigHome home_;
    TempDir media_;
    std::unique_ptr<app::TessarinApp> core_;
    std::unique_ptr<gui::MainWindow> window_;
};

}  // namespace tessarin::test
