// Intake of a folder tree of 30,000 entries holding 1,000 videos: the time from intake() to the
// last row added, and the main thread's longest stall meanwhile, measured by a 1 ms timer whose
// late ticks show how long the event loop was kept from running. A timed program, not a
// Google Benchmark: one intake is one measurement.
//
//   tessarin_queue_intake_bench [runs]
#include <fmt/format.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

#include "app/queue/QueueModel.hpp"

namespace fs = std::filesystem;
using tessarin::app::QueueModel;

namespace {

// 100 folders of 10 subfolders; 1,000 videos and the rest other files: 29,999 entries, which
// with the dropped folder itself is the whole budget of one batch.
void makeTree(const fs::path& root) {
    std::size_t entries = 0;
    std::size_t videos = 0;
    for (int top = 0; top < 100; ++top) {
        const fs::path folder = root / fmt::format("folder-{:03}", top);
        fs::create_directories(folder);
        ++entries;
        for (int sub = 0; sub < 10; ++sub) {
            const fs::path inner = folder / fmt::format("sub-{}", sub);
            fs::create_directory(inner);
            ++entries;
            for (int file = 0; file < 28; ++file) {
                const bool video = videos < 1000 && file == 0;
                const fs::path path =
                    inner / fmt::format("file-{:02}.{}", file, video ? "mp4" : "txt");
                std::ofstream(path).put('x');
                videos += video ? 1 : 0;
                ++entries;
            }
        }
    }
    for (std::size_t i = entries; i < 29'999; ++i) {
        std::ofstream(root / fmt::format("extra-{}.txt", i)).put('x');
    }
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;

    const fs::path root =
        fs::temp_directory_path() / fmt::format("tessarin-intake-bench-{}", ::getpid());
    makeTree(root / "tree");

    std::vector<double> totals;
    std::vector<double> stalls;
    for (int run = 0; run < runs; ++run) {
        QueueModel queue(
            tessarin::engine::Tools{"/nonexistent", "/nonexistent", "/nonexistent", {}});
        QElapsedTimer sinceTick;
        qint64 longestStall = 0;
        QTimer ticker;
        ticker.setInterval(1);
        QObject::connect(&ticker, &QTimer::timeout, [&] {
            longestStall = std::max(longestStall, sinceTick.nsecsElapsed());
            sinceTick.restart();
        });
        // A batch of 1,000 asks for confirmation; the measurement ends with the rows added.
        QObject::connect(&queue, &QueueModel::pendingIntakeChanged, [&] {
            if (queue.pendingIntake()) {
                queue.confirmPendingIntake();
            }
        });
        ticker.start();
        sinceTick.start();
        QElapsedTimer total;
        total.start();
        {
            // The intake call itself runs on the main thread and counts as a stall too.
            QElapsedTimer call;
            call.start();
            queue.intake({QUrl::fromLocalFile(QString::fromStdString((root / "tree").string()))},
                         {});
            longestStall = std::max(longestStall, call.nsecsElapsed());
            sinceTick.restart();
        }
        while (queue.items().size() < 1000) {
            if (queue.intakeNotice()) {
                fmt::print(stderr, "intake refused: {}\n", *queue.intakeNotice());
                return 1;
            }
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
        }
        totals.push_back(static_cast<double>(total.nsecsElapsed()) / 1e6);
        stalls.push_back(static_cast<double>(longestStall) / 1e6);
    }
    fs::remove_all(root);

    std::sort(totals.begin(), totals.end());
    std::sort(stalls.begin(), stalls.end());
    fmt::print("intake of 30,000 entries / 1,000 videos, {} runs\n", runs);
    fmt::print("  intake to last row: median {:.1f} ms (min {:.1f}, max {:.1f})\n",
               totals[totals.size() / 2], totals.front(), totals.back());
    fmt::print("  longest main-thread stall: median {:.2f} ms (max {:.2f})\n",
               stalls[stalls.size() / 2], stalls.back());
    return 0;
}
