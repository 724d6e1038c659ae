// The versions of the helper folder's ffmpeg and gifsicle, for the About page: each asked with
// its version flag through the engine's process runner on a worker thread.
#pragma once

#include <QObject>
#include <QString>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "engine/process/Tools.hpp"

namespace tessarin::engine {
class ProcessRunner;
}

namespace tessarin::gui {

// The first line of a tool's version output ("ffmpeg version 5.1.6-0+deb12u1 Copyright…"),
// without the copyright; nothing for empty output.
[[nodiscard]] std::optional<std::string> versionLine(const std::string& output);

class ToolVersions : public QObject {
    Q_OBJECT

public:
    explicit ToolVersions(QObject* parent = nullptr);
    // Stops a running query (its children are cancelled) and waits for its thread.
    ~ToolVersions() override;

    // Starts the query; versionsReady follows on this object's (the main) thread. Without tools
    // it reports both as missing at once.
    void query(const std::optional<engine::Tools>& tools);

signals:
    void versionsReady(const QString& ffmpeg, const QString& gifsicle);

private:
    std::thread worker_;
    std::shared_ptr<engine::ProcessRunner> ffmpegRunner_;
    std::shared_ptr<engine::ProcessRunner> gifsicleRunner_;
};

}  // namespace tessarin::gui
