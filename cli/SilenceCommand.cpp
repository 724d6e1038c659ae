#include <iostream>
#include <memory>

#include "cli/Commands.hpp"
#include "cli/EventSink.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "cli/JobRunner.hpp"
#include "engine/clips/ClipListFile.hpp"
#include "engine/clips/SilenceSuggestions.hpp"
#include "engine/probe/MediaProbe.hpp"

namespace tessarin::cli {

namespace {

namespace fs = std::filesystem;
using engine::ClipListFile;
using engine::SilenceSuggestions;

// Probes the source for its length and audio, then scans it. Throws what the probe and the scan
// throw.
std::vector<engine::ClipSelection> suggest(const fs::path& source, const engine::Tools& tools,
                                           const engine::SilenceSettings& settings,
                                           Interruption& interruption, EventSink& sink) {
    auto probeRunner = std::make_shared<engine::ProcessRunner>();
    interruption.watch(probeRunner);
    const engine::MediaInfo info =
        engine::MediaProbe::probe(source, tools, engine::MediaInputPolicy::unrestricted,
                                  *probeRunner, engine::MediaProbe::kTimeoutSeconds, false);
    auto scanRunner = std::make_shared<engine::ProcessRunner>();
    interruption.watch(scanRunner);
    return SilenceSuggestions::analyze(source, tools, settings, info.durationSeconds, info.hasAudio,
                                       *scanRunner,
                                       [&sink](double fraction) { sink.progress(fraction); });
}

}  // namespace

int runSilence(const SilenceRequest& request) {
    Interruption interruption;  // first, so every later thread has the signals blocked

    if (!request.settings.isValid()) {
        std::cerr << "tessarin: "
                  << SilenceSuggestions::Failure(SilenceSuggestions::Failure::Kind::settings).what()
                  << "\n";
        return kExitUsage;
    }
    if (request.writeClipList &&
        fs::symlink_status(*request.writeClipList).type() != fs::file_type::not_found) {
        std::cerr << "tessarin: " << request.writeClipList->string()
                  << " already exists; a clip list never replaces a file.\n";
        return kExitUsage;
    }
    const Preflight checked = preflight(std::nullopt);
    if (!checked.tools) {
        return checked.status;
    }

    EventSink sink(request.json);
    const fs::path source = fs::absolute(request.file);
    sink.start(request.file, "silence");
    std::vector<engine::ClipSelection> clips;
    try {
        clips = suggest(source, *checked.tools, request.settings, interruption, sink);
    } catch (const SilenceSuggestions::Failure& failure) {
        if (failure.kind() == SilenceSuggestions::Failure::Kind::cancelled ||
            interruption.interrupted()) {
            sink.cancelled();
            return kExitCancelled;
        }
        sink.failed("silence", failure.what(), std::nullopt);
        return kExitFailure;
    } catch (const engine::MediaProbeError& error) {
        if (interruption.interrupted()) {
            sink.cancelled();
            return kExitCancelled;
        }
        sink.failed("probe", error.what(), std::nullopt);
        return kExitFailure;
    }

    std::optional<fs::path> written;
    if (request.writeClipList && !clips.empty()) {
        try {
            ClipListFile::write(clips, *request.writeClipList, source,
                                ClipListFile::Existing::keep);
            written = request.writeClipList;
        } catch (const ClipListFile::Invalid& invalid) {
            sink.failed("clip list", invalid.what(), std::nullopt);
            return kExitFailure;
        } catch (const fs::filesystem_error& error) {
            sink.failed("clip list",
                        "Could not write the clip list: " + error.code().message() + ".",
                        std::nullopt);
            return kExitFailure;
        }
    }
    sink.suggestions(clips, written);
    return kExitSuccess;
}

}  // namespace tessarin::cli
