#include "tests/app/queue/QueueTestSupport.hpp"

#include <QCoreApplication>
#include <QTest>
#include <algorithm>
#include <fstream>

namespace tessarin::test {

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    return QTest::qWaitFor(done, static_cast<int>(limit.count()));
}

QList<QUrl> urlsOf(const std::vector<std::filesystem::path>& paths) {
    QList<QUrl> urls;
    urls.reserve(static_cast<qsizetype>(paths.size()));
    for (const std::filesystem::path& path : paths) {
        urls.push_back(QUrl::fromLocalFile(QString::fromStdString(path.string())));
    }
    return urls;
}

std::vector<std::filesystem::path> emptyVideos(const std::filesystem::path& folder,
                                               std::size_t count, const std::string& stem) {
    std::filesystem::create_directories(folder);
    std::vector<std::filesystem::path> paths;
    for (std::size_t i = 0; i < count; ++i) {
        paths.push_back(folder / (stem + "-" + std::to_string(i) + ".mp4"));
        std::ofstream(paths.back()).put('\0');
    }
    return paths;
}

std::filesystem::path copyClip(const std::filesystem::path& clip,
                               const std::filesystem::path& destination) {
    std::filesystem::create_directories(destination.parent_path());
    std::filesystem::copy_file(clip, destination);
    return destination;
}

app::IntakeOptions withAction(app::ActionID action) {
    app::IntakeOptions options;
    options.action = std::move(action);
    return options;
}

app::IntakeOptions startRequested() {
    app::IntakeOptions options;
    options.startRequested = true;
    return options;
}

app::IntakeOptions external() {
    app::IntakeOptions options;
    options.isExternal = true;
    return options;
}

std::size_t countIn(const app::QueueModel& queue, app::QueueItem::StateKind kind) {
    return static_cast<std::size_t>(
        std::count_if(queue.items().begin(), queue.items().end(),
                      [kind](const app::QueueItem& item) { return item.state.kind == kind; }));
}

}  // namespace tessarin::test
