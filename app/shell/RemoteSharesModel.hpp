// The window's list of computers sharing files on the local network, and mounting the one the
// user picks. Browsing results arrive on Avahi's thread and the mount blocks a worker thread;
// both are handed to the main thread, where they are dropped once stop() was called, so a mount
// that ends after the dialog closed changes nothing.
#pragma once

#include <QObject>
#include <QString>
#include <memory>
#include <vector>

#include "app/support/MainThreadHandoff.hpp"
#include "engine/desktop/RemoteShares.hpp"

namespace tessarin::app {

class RemoteSharesModel : public QObject {
    Q_OBJECT

public:
    // Avahi's browser and `gio mount`.
    explicit RemoteSharesModel(QObject* parent = nullptr);
    RemoteSharesModel(std::unique_ptr<engine::SMBBrowsing> browser,
                      std::shared_ptr<engine::ShareMounting> mounter, QObject* parent = nullptr);
    ~RemoteSharesModel() override;

    void start();  // when the dialog opens
    void stop();   // when it closes: browsing stops and a mount in progress is cancelled
    void pick(const engine::DiscoveredHost& host);

    [[nodiscard]] const std::vector<engine::DiscoveredHost>& hosts() const { return hosts_; }
    [[nodiscard]] bool mounting() const { return mounting_; }
    // The sentence to show, empty when none.
    [[nodiscard]] const QString& error() const { return error_; }

    // Where the folder panel opens after a mount: gvfs's folder of mounted shares when there is
    // one ($XDG_RUNTIME_DIR/gvfs), else empty.
    [[nodiscard]] static QString mountedSharesFolder();

signals:
    void changed();
    void mounted(const QString& url);

private slots:
    void deliver();

private:
    std::unique_ptr<engine::SMBBrowsing> browser_;
    std::shared_ptr<engine::ShareMounting> mounter_;
    std::vector<engine::DiscoveredHost> hosts_;
    bool mounting_ = false;
    bool stopped_ = false;
    bool started_ = false;
    QString error_;
    std::shared_ptr<MainThreadHandoff> handoff_;
};

}  // namespace tessarin::app
