// The test main of the window tests: starts a private Xvfb server (unless only listing the
// tests), makes the QApplication on it, runs the tests, and stops the server.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QApplication>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" const char* __lsan_default_suppressions();

// Fontconfig, the X libraries and Qt's platform plugin keep caches for the process's life.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig\nleak:libX11\nleak:libxcb\nleak:libQt6XcbQpa\nleak:libQt6Gui\n"
           "leak:libQt6DBus\nleak:libdbus-1\nleak:libglib-2.0\n";
}

namespace {

// Runs Xvfb on the first free display, which it reports on a pipe; the server's pid, or -1.
pid_t startXvfb() {
    int report[2];
    if (pipe(report) != 0) {
        return -1;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(report[0]);
        const std::string fd = std::to_string(report[1]);
        execl("/usr/bin/Xvfb", "Xvfb", "-displayfd", fd.c_str(), "-nolisten", "tcp", "-screen", "0",
              "2400x1800x24", "-nocursor", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(report[1]);
    std::string display;
    char c = 0;
    while (pid > 0 && read(report[0], &c, 1) == 1 && c != '\n') {
        display += c;
    }
    close(report[0]);
    if (pid < 0 || display.empty()) {
        return -1;
    }
    setenv("DISPLAY", (":" + display).c_str(), 1);
    return pid;
}

bool listingOnly(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--gtest_list_tests") == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (listingOnly(argc, argv)) {
        return RUN_ALL_TESTS();
    }
    const pid_t xvfb = startXvfb();
    if (xvfb < 0) {
        fprintf(stderr, "could not start Xvfb (install the xvfb package)\n");
        return 1;
    }
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    unsetenv("WAYLAND_DISPLAY");
    // No session bus in CI: the window must work without one.
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
    int result = 1;
    {
        QApplication application(argc, argv);
        result = RUN_ALL_TESTS();
    }
    kill(xvfb, SIGTERM);
    waitpid(xvfb, nullptr, 0);
    return result;
}
