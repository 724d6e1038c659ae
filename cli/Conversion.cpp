#include "cli/Conversion.hpp"

#include <sys/stat.h>

#include <system_error>

#include "engine/ffmpeg/FFmpegCommandBuilder.hpp"
#include "engine/log/Log.hpp"
#include "engine/model/TimeText.hpp"
#include "engine/probe/MediaProbe.hpp"
#include "engine/progress/ProgressParser.hpp"
#include "engine/publish/OutputNames.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/publish/Publish.hpp"
#include "engine/publish/Sweeps.hpp"

namespace tessarin::cli {

namespace fs = std::filesystem;
using engine::JobFailure;

namespace {

const engine::Logger& logger() {
    static const engine::Logger instance("com.tessarin.cli", "convert");
    return instance;
}

// The private work folder and everything in it go away on every path out.
class WorkFolder {
public:
    WorkFolder() : path_(engine::temporaryRoot() / engine::newWorkFolderName()) {
        try {
            engine::makePrivateFolder(path_);
        } catch (const std::system_error& error) {
            throw JobFailure(
                "workdir", std::nullopt,
                "could not create a private work folder (" + error.code().message() + ")");
        }
    }
    ~WorkFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

    [[nodiscard]] const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

engine::MediaInfo probeSource(const fs::path& file, const engine::Tools& tools,
                              Interruption& interruption, const std::string& step) {
    auto runner = std::make_shared<engine::ProcessRunner>();
    interruption.watch(runner);
    try {
        return engine::MediaProbe::probe(file, tools, engine::MediaInputPolicy::unrestricted,
                                         *runner);
    } catch (const engine::MediaProbeError& error) {
        if (error.kind == engine::MediaProbeError::Kind::cancelled) {
            throw JobFailure::cancelled(step);
        }
        if (error.kind == engine::MediaProbeError::Kind::ffprobeFailed) {
            throw JobFailure(step, error.exitCode, error.stderrText);
        }
        throw JobFailure(step, std::nullopt, error.what());
    }
}

// Runs one tool to the end; a progress block moves the bar between `low` and `high`.
void runTool(const fs::path& executable, const std::vector<std::string>& arguments,
             const std::string& step, Interruption& interruption,
             std::optional<double> expectedSeconds, double low, double high,
             const std::function<void(double)>& onProgress) {
    auto runner = std::make_shared<engine::ProcessRunner>();
    interruption.watch(runner);
    engine::ProgressParser parser;
    engine::ProcessRunner::RawOptions options;
    options.stdoutHandler = [&](std::string_view chunk) {
        for (const engine::ProgressSnapshot& snapshot : parser.feed(chunk)) {
            if (const auto fraction =
                    engine::ProgressParser::fraction(snapshot, expectedSeconds, low, high)) {
                onProgress(*fraction);
            }
        }
    };
    engine::ProcessResult result;
    try {
        result = runner->runRaw(executable, arguments, options);
    } catch (const engine::LaunchError& error) {
        throw JobFailure(step, std::nullopt,
                         executable.filename().string() + " could not start: " + error.what());
    }
    if (result.wasCancelled) {
        throw JobFailure::cancelled(step);
    }
    if (result.exitCode != 0) {
        throw JobFailure(step, result.exitCode,
                         result.stderrTail.empty() ? executable.filename().string() + " failed"
                                                   : result.stderrTail);
    }
}

// The finished file must be a readable video of some length before anyone sees it.
void verifyOutput(const fs::path& output, const engine::Tools& tools, Interruption& interruption) {
    const engine::MediaInfo info = probeSource(output, tools, interruption, "verify");
    if (!info.videoCodec || !info.durationSeconds || *info.durationSeconds <= 0) {
        throw JobFailure::sentence("verify", "The converted file has no video; nothing was saved.");
    }
}

}  // namespace

fs::path convert(const ConversionRequest& request, Interruption& interruption,
                 const std::function<void(double)>& onProgress) {
    struct stat status {};
    if (::stat(request.source.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw JobFailure::sentence("source", "The file does not exist or is not a regular file.");
    }
    const engine::ConversionOptions& options = request.preset.options;
    const engine::MediaInfo info =
        probeSource(request.source, request.tools, interruption, "probe");
    if (!info.videoCodec) {
        throw JobFailure::sentence("probe", "The file has no video stream to convert.");
    }
    if (const auto failure =
            engine::validateTrim(options.trim.start, options.trim.end, info.durationSeconds)) {
        throw *failure;
    }
    // The length the output should have: the trimmed range, or the whole source.
    std::optional<double> expected = info.durationSeconds;
    if (const auto trimmed = engine::FFmpegCommandBuilder::duration(options.trim, std::nullopt)) {
        expected = engine::parseTimeSeconds(*trimmed);
    }

    // What a crashed earlier run left behind, once it is old enough that no live run owns it.
    engine::sweepTemporaryDirectory(engine::temporaryRoot());
    engine::sweepOutputFolder(engine::outputFolder(request.source, request.outputDirectory));

    WorkFolder work;
    const std::string finalName = request.source.stem().string() + request.preset.filenameSuffix +
                                  "." + request.preset.fileExtension;
    const fs::path output = work.path() / finalName;
    const engine::AudioPlan audio = engine::AudioPlan::forSource(info.hasAudio, info.audioCodec);
    logger().info(engine::logLine({{"event", "start"},
                                   {"preset", request.preset.id},
                                   {"extension", request.source.extension().string()}}));

    using Builder = engine::FFmpegCommandBuilder;
    switch (options.format.kind) {
        case engine::OutputFormat::Kind::mp4:
            runTool(request.tools.ffmpeg,
                    Builder::mp4Arguments(request.source, output, options, audio, std::nullopt,
                                          info.videoCodec, request.hardware),
                    "encode", interruption, expected, 0, 1, onProgress);
            break;
        case engine::OutputFormat::Kind::webm:
            runTool(request.tools.ffmpeg,
                    Builder::webmArguments(request.source, output, options, audio, std::nullopt,
                                           info.videoCodec),
                    "encode", interruption, expected, 0, 1, onProgress);
            break;
        case engine::OutputFormat::Kind::gif: {
            const fs::path palette = work.path() / "palette.png";
            const fs::path rendered = work.path() / ("render-" + finalName);
            runTool(request.tools.ffmpeg,
                    Builder::gifPaletteArguments(request.source, palette, options, std::nullopt,
                                                 info.videoCodec),
                    "palette", interruption, expected, 0, 0.3, onProgress);
            runTool(request.tools.ffmpeg,
                    Builder::gifRenderArguments(request.source, palette,
                                                options.optimizeGif ? rendered : output, options,
                                                std::nullopt, info.videoCodec),
                    "encode", interruption, expected, 0.3, 0.9, onProgress);
            if (options.optimizeGif) {
                runTool(request.tools.gifsicle,
                        Builder::gifsicleArguments(rendered, output, options), "optimize",
                        interruption, std::nullopt, 0.9, 1, onProgress);
            }
            break;
        }
    }
    verifyOutput(output, request.tools, interruption);
    onProgress(1.0);

    const fs::path published = engine::publishUnderFreeName(
        output, request.source,
        engine::OutputNaming{request.preset.filenameSuffix, request.preset.fileExtension},
        request.outputDirectory, [&] { return interruption.interrupted(); });
    logger().info(engine::logLine({{"event", "done"}, {"preset", request.preset.id}}));
    return published;
}

}  // namespace tessarin::cli
