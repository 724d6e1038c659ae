// Exports stills of one video into a new folder with a manifest, for AI tools. Two ffmpeg passes
// over the same decode: the analysis pass pipes tiny gray frames, paired with the showinfo log,
// into the frame selector; the extraction pass keeps exactly the chosen timestamps and writes
// them at full quality into a private staging folder. Only after every frame has been checked
// does the folder get its public name, by one exclusive rename: nothing partial is ever visible.
//
//   FrameExtractionJob job(source, options, std::nullopt, tools);
//   // elsewhere, any thread: job.cancel();
//   FrameExtractionResult result = job.run({.onProgress = show});
//
// Threads: run() blocks its (background) thread; callbacks run on the job's threads (the
// caller's, or a pipe reader's for progress) and must hop to their own. cancel() is safe from any
// thread at any moment and never waits for a child.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "engine/frames/ContactSheet.hpp"
#include "engine/frames/FrameExtractionOptions.hpp"
#include "engine/frames/FrameManifest.hpp"
#include "engine/model/JobFailure.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "engine/process/Tools.hpp"

namespace tessarin::engine {

enum class FrameExtractionPhase { analyzing, extracting, publishing };

struct FrameExtractionResult {
    std::filesystem::path directory;  // the published folder
    FrameManifest manifest;
};

namespace frames_internal {
class AnalysisStream;
}

class FrameExtractionJob {
public:
    struct Callbacks {
        std::function<void(FrameExtractionPhase)> onPhase;
        std::function<void(FrameWarning)> onWarning;  // each warning once, when it is found
        std::function<void(double)> onProgress;       // 0 to 1
    };

    static constexpr double kCancelGrace = ProcessRunner::kUserCancelGrace;
    static constexpr double kMaximumWindowSeconds = 21'600;
    static constexpr int64_t kDefaultMemoryLimitBytes = 201'326'592;

    // An absent `outputDirectory` means the source's folder. Nothing is touched until run().
    FrameExtractionJob(std::filesystem::path source, FrameExtractionOptions options,
                       std::optional<std::filesystem::path> outputDirectory, Tools tools);
    ~FrameExtractionJob();
    FrameExtractionJob(const FrameExtractionJob&) = delete;
    FrameExtractionJob& operator=(const FrameExtractionJob&) = delete;

    // Runs the export once. Throws JobFailure only, its step one of the phase words "preflight",
    // "probe", "scratch", "trim", "analysis", "extraction", "verify", "publish", "destination"
    // (`wasCancelled` after cancel()). A second call stops the process.
    [[nodiscard]] FrameExtractionResult run(const Callbacks& callbacks = {});

    // Marks the job cancelled for good, stops the running child and the analysis stream.
    void cancel();
    [[nodiscard]] bool isCancelled() const;

    // Test seams, set before run(): the free-space reading, calls between the passes, before
    // publication and right before the exclusive rename, each log line of the analysis, the
    // memory limit of the analysis, and a stand-in for the contact-sheet drawing.
    std::function<std::optional<int64_t>(const std::filesystem::path&)> availableCapacityOverride;
    std::function<void()> betweenPassesHook;
    std::function<void()> prePublishHook;
    std::function<void()> publishClaimHook;
    std::function<void(std::string_view)> analysisLineHook;
    int64_t analysisMemoryLimitBytes = kDefaultMemoryLimitBytes;
    std::function<std::vector<unsigned char>(std::span<const ContactSheet::Tile>, double)>
        contactSheetOverride;

private:
    struct Workspace;
    struct Plan;
    // What the extraction pass wrote, by its log.
    struct Extracted {
        std::vector<ShowinfoFrame> frames;
        std::string timeBase;
    };

    [[nodiscard]] FrameExtractionResult runSteps(const Callbacks& callbacks, Workspace& workspace);
    [[nodiscard]] Plan plan(const Callbacks& callbacks, Workspace& workspace);
    [[nodiscard]] FrameSelectionResult analyse(const Plan& plan, const Callbacks& callbacks);
    [[nodiscard]] Extracted extract(const Plan& plan, const FrameSelectionResult& selection,
                                    const std::filesystem::path& outLink,
                                    const Callbacks& callbacks);
    // Checks what the extraction left in the staging folder and builds the manifest.
    [[nodiscard]] FrameManifest verify(const Plan& plan, const FrameSelectionResult& selection,
                                       const Extracted& extracted,
                                       const std::filesystem::path& staging) const;
    void drawContactSheets(FrameManifest& manifest, const std::filesystem::path& staging,
                           const Callbacks& callbacks) const;
    [[nodiscard]] std::filesystem::path publish(const std::filesystem::path& staging,
                                                const std::filesystem::path& destination);
    [[nodiscard]] std::shared_ptr<ProcessRunner> installRunner();
    void clearRunner();
    void throwIfCancelled(const char* step) const;

    const std::filesystem::path source_;
    const FrameExtractionOptions options_;
    const std::optional<std::filesystem::path> outputDirectory_;
    const Tools tools_;

    mutable std::mutex mutex_;  // guards the next three fields
    std::shared_ptr<ProcessRunner> currentRunner_;
    std::shared_ptr<frames_internal::AnalysisStream> currentStream_;
    bool cancelled_ = false;

    bool started_ = false;  // run()'s thread only
};

}  // namespace tessarin::engine
