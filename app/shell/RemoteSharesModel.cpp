#include "app/shell/RemoteSharesModel.hpp"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace tessarin::app {

RemoteSharesModel::RemoteSharesModel(QObject* parent)
    : RemoteSharesModel(engine::makeAvahiBrowser(), engine::makeGioMounter(), parent) {}

RemoteSharesModel::RemoteSharesModel(std::unique_ptr<engine::SMBBrowsing> browser,
                                     std::shared_ptr<engine::ShareMounting> mounter,
                                     QObject* parent)
    : QObject(parent),
      browser_(std::move(browser)),
      mounter_(std::move(mounter)),
      handoff_(std::make_shared<MainThreadHandoff>(
          this, "deliver", engine::Logger("com.tessarin.app", "shares"))) {}

RemoteSharesModel::~RemoteSharesModel() {
    stop();
    handoff_->detach();
    (void)handoff_->waitUntilIdle(std::chrono::seconds(10));
}

void RemoteSharesModel::start() {
    if (started_ || stopped_) {
        return;
    }
    started_ = true;
    std::weak_ptr<MainThreadHandoff> handoff = handoff_;
    browser_->start(
        [this, handoff](std::vector<engine::DiscoveredHost> hosts) {
            if (auto alive = handoff.lock()) {
                alive->post([this, hosts = std::move(hosts)] {
                    if (!stopped_) {
                        hosts_ = hosts;
                        emit changed();
                    }
                });
            }
        },
        [this, handoff](std::string text) {
            if (auto alive = handoff.lock()) {
                alive->post([this, text = QString::fromStdString(text)] {
                    if (!stopped_) {
                        error_ = text;
                        emit changed();
                    }
                });
            }
        });
}

void RemoteSharesModel::stop() {
    if (stopped_) {
        return;
    }
    stopped_ = true;
    if (started_) {
        browser_->stop();
    }
    if (mounting_) {
        mounter_->cancel();
    }
}

void RemoteSharesModel::pick(const engine::DiscoveredHost& host) {
    if (mounting_ || stopped_) {
        return;
    }
    mounting_ = true;
    error_.clear();
    emit changed();
    handoff_->start([this, host, mounter = mounter_] {
        QString url;
        std::optional<engine::RemoteShareError> failure;
        try {
            url = QString::fromStdString(mounter->mount(host));
        } catch (const engine::RemoteShareError& error) {
            failure = error;
        } catch (const std::exception&) {
            failure = engine::RemoteShareError{};
        }
        return MainThreadHandoff::Completion([this, url, failure] {
            mounting_ = false;
            if (stopped_) {
                return;
            }
            // A cancellation by the user is no error.
            const bool cancelled = failure && failure->kind == engine::RemoteShareError::Kind::other &&
                                   failure->status == -1;
            if (failure && !cancelled) {
                error_ = QString::fromStdString(failure->message());
            }
            emit changed();
            if (!failure) {
                emit mounted(url);
            }
        });
    });
}

QString RemoteSharesModel::mountedSharesFolder() {
    const QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (runtime.isEmpty()) {
        return {};
    }
    const QString gvfs = QDir(runtime).filePath(QStringLiteral("gvfs"));
    return QFileInfo(gvfs).isDir() ? gvfs : QString();
}

void RemoteSharesModel::deliver() {
    for (const MainThreadHandoff::Completion& completion : handoff_->take()) {
        completion();
    }
}

}  // namespace tessarin::app
