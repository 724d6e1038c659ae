// The whole way in from a file manager: the real window (tessarin-gui) runs on this test's
// private X server, the real helper hands it two clips, and both are converted; a second launch
// of the window forwards its file to the first and ends.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

#include "engine/intake/HandoffMessages.hpp"
#include "gui/IntakePrompts.hpp"
#include "gui/MainWindow.hpp"
#include "tests/app/intake/HandoffTestSupport.hpp"
#include "tests/gui/GuiTestSupport.hpp"
#include "tests/support/TempDir.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::test {
namespace {

namespace fs = std::filesystem;

bool eventually(const std::function<bool()>& condition, std::chrono::seconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

std::string readAll(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(HandoffWindow, TheHelperHandsTwoFilesToTheRunningWindowAndBothRowsStart) {
    TempDir dir;
    const fs::path runtime = dir / "run";
    fs::create_directory(runtime);
    fs::permissions(runtime, fs::perms::owner_all, fs::perm_options::replace);
    const std::map<std::string, std::string> environment{
        {"XDG_RUNTIME_DIR", runtime.string()},
        {"XDG_CONFIG_HOME", (dir / "config").string()},
        {"XDG_STATE_HOME", (dir / "state").string()},
        // The window sets up file-manager actions at launch: in a private folder.
        {"XDG_DATA_HOME", (dir / "data").string()},
        // Never fall back on starting another window: the handoff itself must succeed.
        {"TESSARIN_GUI", "/bin/false"},
    };
    std::vector<fs::path> clips;
    for (const char* name : {"a.mp4", "b.mp4", "c.mp4"}) {
        fs::create_directories(dir / "in");
        fs::copy_file(testClip(TestClip::h264Aac), dir / "in" / name);
        clips.push_back(dir / "in" / name);
    }

    // The window, in the background.
    const std::string program = std::string(TESSARIN_BIN_DIR) + "/tessarin-gui";
    const pid_t window = startProgram({program}, environment);
    ASSERT_GT(window, 0);
    const fs::path socket = runtime / "tessarin" / "s";
    const fs::path log = dir / "state" / "tessarin" / "tessarin.log";
    EXPECT_TRUE(eventually([&] { return fs::is_socket(socket); }, std::chrono::seconds(60)));

    const fs::path helper = fs::path(TESSARIN_HELPER_DIR) / "tessarin-action";
    EXPECT_EQ(runProgram({helper.string(), "h264", clips[0].string(), clips[1].string()},
                         environment),
              0);
    EXPECT_TRUE(eventually(
        [&] {
            return fs::exists(dir / "in" / "a-h264_crf33.mp4") &&
                   fs::exists(dir / "in" / "b-h264_crf33.mp4");
        },
        std::chrono::seconds(90)));
    const std::string text = readAll(log);
    EXPECT_NE(text.find("authenticated IPC delivery reached app"), std::string::npos);
    EXPECT_NE(text.find("action=mp4-h264 files=2 candidates=2 trusted=true provenance=ok"),
              std::string::npos);

    // A second launch hands its file to the first window, which stages it, and ends with 0;
    // it needs no display for that.
    std::map<std::string, std::string> headless = environment;
    headless["DISPLAY"] = "";
    EXPECT_EQ(runProgram({program, clips[2].string()}, headless, std::chrono::seconds(60)), 0);
    EXPECT_TRUE(eventually(
        [&] { return readAll(log).find("received 1 plain file URL(s)") != std::string::npos; },
        std::chrono::seconds(20)));
    EXPECT_NE(readAll(log).find("forwarded launch"), std::string::npos);

    ::kill(window, SIGTERM);
    int status = 0;
    ::waitpid(window, &status, 0);
}

TEST(HandoffWindow, ALinkWithoutATokenAsksInTheWindowBeforeItsFileIsAdded) {
    ConfigHome home;
    TempDir dir;
    const std::unique_ptr<app::TessarinApp> core = makeApp(home);
    gui::MainWindow window(*core);
    gui::connectIntakePrompts(core->urlIntake(), window);
    window.show();
    const fs::path clip = dir / "clip one.mp4";
    std::ofstream(clip) << "x";
    const QUrl link(QString::fromStdString("tessarin://convert?preset=gif-full&file=" +
                                           engine::percentEncode(clip.string())));

    QString heading;
    QString text;
    // The question comes from a completion of the event loop, so it is answered by a timer
    // that looks for it from inside the dialog's own loop.
    QTimer answerer;
    QObject::connect(&answerer, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr) {
            return;
        }
        answerer.stop();
        heading = box->text();
        text = box->informativeText();
        for (QAbstractButton* button : box->buttons()) {
            if (button->text() == QStringLiteral("Add")) {
                button->click();
            }
        }
    });
    answerer.start(20);
    core->openURLs({link});
    ASSERT_TRUE(waitUntil([&] { return core->queue().items().size() == 1; }));
    EXPECT_EQ(heading, QString::fromUtf8("Add “clip one.mp4” to Tessarin?"));
    EXPECT_EQ(text, QString::fromUtf8("Preset: GIF · Full size\n\nclip one.mp4"));
    EXPECT_EQ(core->queue().items()[0].descriptor->id, app::ActionID::preset("gif-full"));
    EXPECT_TRUE(core->queue().waitForBackgroundWork(std::chrono::seconds(30)));
}

}  // namespace
}  // namespace tessarin::test
