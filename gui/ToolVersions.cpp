#include "gui/ToolVersions.hpp"

#include <QMetaObject>

#include "engine/process/ProcessRunner.hpp"

namespace tessarin::gui {
namespace {

// A version query that hangs (a wedged binary) must not keep the About page waiting forever.
constexpr double kQueryTimeoutSeconds = 10.0;

QString ask(engine::ProcessRunner& runner, const std::filesystem::path& tool,
            const std::string& flag) {
    try {
        const engine::ProcessResult result = runner.run(tool, {flag}, /*captureStdout=*/true,
                                                        /*mergeStderr=*/true, kQueryTimeoutSeconds);
        if (const auto line = versionLine(result.stdoutData.value_or(std::string()))) {
            return QString::fromStdString(*line);
        }
    } catch (const engine::LaunchError&) {
    }
    return QObject::tr("not available");
}

}  // namespace

std::optional<std::string> versionLine(const std::string& output) {
    std::string line = output.substr(0, output.find('\n'));
    if (const auto copyright = line.find(" Copyright"); copyright != std::string::npos) {
        line.erase(copyright);
    }
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) {
        line.pop_back();
    }
    if (line.empty()) {
        return std::nullopt;
    }
    return line;
}

ToolVersions::ToolVersions(QObject* parent) : QObject(parent) {}

ToolVersions::~ToolVersions() {
    if (ffmpegRunner_) {
        ffmpegRunner_->cancel(0.5);
        gifsicleRunner_->cancel(0.5);
    }
    if (worker_.joinable()) {
        worker_.join();
    }
}

void ToolVersions::query(const std::optional<engine::Tools>& tools) {
    if (!tools) {
        emit versionsReady(tr("not found"), tr("not found"));
        return;
    }
    if (worker_.joinable()) {
        return;  // one query per page is enough: the tools don't change while it is open
    }
    ffmpegRunner_ = std::make_shared<engine::ProcessRunner>();
    gifsicleRunner_ = std::make_shared<engine::ProcessRunner>();
    worker_ = std::thread([this, ffmpeg = tools->ffmpeg, gifsicle = tools->gifsicle,
                           ffmpegRunner = ffmpegRunner_, gifsicleRunner = gifsicleRunner_] {
        const QString ffmpegVersion = ask(*ffmpegRunner, ffmpeg, "-version");
        const QString gifsicleVersion = ask(*gifsicleRunner, gifsicle, "--version");
        // The destructor joins this thread, so `this` is alive while the call is posted; a call
        // still queued when the object goes is discarded with it.
        QMetaObject::invokeMethod(
            this,
            [this, ffmpegVersion, gifsicleVersion] {
                emit versionsReady(ffmpegVersion, gifsicleVersion);
            },
            Qt::QueuedConnection);
    });
}

}  // namespace tessarin::gui
