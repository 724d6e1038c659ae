// One running window per user: the first launch claims a lock in the runtime folder and listens
// on a private local socket there; a later launch finds the lock taken and forwards its files and
// links to the first, then ends. A forward with nothing in it asks the first to raise its window.
//
//   SingleInstance instance(*SingleInstance::standardFolder());
//   if (instance.claim() == SingleInstance::Role::secondary) {   // before any QApplication
//       return instance.forward(urls, std::chrono::seconds(5)) ? 0 : 1;
//   }
//   QApplication qt(argc, argv);
//   instance.listen();
//   QObject::connect(&instance, &SingleInstance::received, ...);
//
// Same user only: the folder is mode 0700 and the socket 0600. A message is the URLs as UTF-8
// text, one a line, at most 4 MiB and 5 seconds per connection.
//
// Threads: main thread only. claim() and forward() need no application object, so that a
// second launch can forward without a display; listen() and received() need the event loop.
#pragma once

#include <QList>
#include <QObject>
#include <QUrl>
#include <chrono>
#include <filesystem>
#include <optional>

class QLocalServer;

namespace tessarin::app {

class SingleInstance : public QObject {
    Q_OBJECT

public:
    enum class Role {
        primary,    // this process listens; others forward to it
        secondary,  // another instance holds the lock
        alone,      // nothing could be set up here; run without forwarding
    };

    // $XDG_RUNTIME_DIR/tessarin; nothing when XDG_RUNTIME_DIR isn't an absolute path.
    [[nodiscard]] static std::optional<std::filesystem::path> standardFolder();

    explicit SingleInstance(std::filesystem::path folder, QObject* parent = nullptr);
    ~SingleInstance() override;

    // Takes the lock ("g"): primary when it was free, secondary when another process holds it.
    // Decided once; later calls return the same role.
    Role claim();
    // Primary: listens on "gui" (whatever stood there is a left-over of a crashed run, since
    // the lock is ours). False, and the role becomes `alone`, when it can't.
    bool listen();
    // Secondary: hands `urls` to the primary over a plain Unix-domain socket; true when they
    // were all written. Retries the connection until `limit`, since the primary takes the lock
    // before it listens.
    [[nodiscard]] bool forward(const QList<QUrl>& urls, std::chrono::milliseconds limit) const;

signals:
    // A later launch forwarded these (empty: it had nothing, raise the window).
    void received(const QList<QUrl>& urls);

private:
    void accept();

    std::filesystem::path folder_;
    int lockFd_ = -1;
    QLocalServer* server_ = nullptr;
    std::optional<Role> role_;
};

}  // namespace tessarin::app
