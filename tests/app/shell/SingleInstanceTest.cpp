// One window per user: a second instance in the same runtime folder forwards to the first over
// a real local socket, and an oversized forward is dropped.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QSignalSpy>
#include <atomic>
#include <thread>

#include "app/shell/SingleInstance.hpp"
#include "tests/app/queue/QueueTestSupport.hpp"
#include "tests/app/support/AppTestSupport.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::app {
namespace {

TEST(SingleInstance, ALaterInstanceForwardsToTheFirstAndTakesOverWhenItIsGone) {
    test::ensureCoreApplication();
    test::TempDir dir;
    const std::filesystem::path folder = dir / "tessarin";
    auto first = std::make_unique<SingleInstance>(folder);
    ASSERT_EQ(first->claim(), SingleInstance::Role::primary);
    ASSERT_TRUE(first->listen());
    struct stat status {};
    ASSERT_EQ(::stat(folder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    QSignalSpy received(first.get(), &SingleInstance::received);

    SingleInstance second(folder);
    ASSERT_EQ(second.claim(), SingleInstance::Role::secondary);
    const QList<QUrl> urls{QUrl::fromLocalFile(QStringLiteral("/videos/a b.mp4")),
                           QUrl(QStringLiteral("tessarin://convert?preset=mp4-h264&file=%2Fv.mp4"))};
    ASSERT_TRUE(second.forward(urls, std::chrono::seconds(5)));
    ASSERT_TRUE(test::waitFor([&] { return received.count() == 1; }, std::chrono::seconds(10)));
    EXPECT_EQ(received.at(0).at(0).value<QList<QUrl>>(), urls);
    // Nothing to forward: the first raises its window.
    ASSERT_TRUE(second.forward({}, std::chrono::seconds(5)));
    ASSERT_TRUE(test::waitFor([&] { return received.count() == 2; }, std::chrono::seconds(10)));
    EXPECT_TRUE(received.at(1).at(0).value<QList<QUrl>>().isEmpty());

    // More than 4 MiB is dropped whole.
    QList<QUrl> flood;
    const QString longName = QStringLiteral("/") + QString(4000, QLatin1Char('x'));
    for (int i = 0; i < 1200; ++i) {
        flood.push_back(QUrl::fromLocalFile(longName + QString::number(i)));
    }
    std::atomic<bool> done = false;
    bool sent = true;
    std::thread sender([&] {
        sent = second.forward(flood, std::chrono::seconds(10));
        done = true;
    });
    EXPECT_TRUE(test::waitFor([&] { return done.load(); }, std::chrono::seconds(20)));
    sender.join();
    EXPECT_FALSE(sent) << "the first closed the connection past 4 MiB";
    QCoreApplication::processEvents();
    EXPECT_EQ(received.count(), 2);

    first.reset();
    SingleInstance third(folder);
    EXPECT_EQ(third.claim(), SingleInstance::Role::primary);
    EXPECT_TRUE(third.listen());
}

}  // namespace
}  // namespace tessarin::app
