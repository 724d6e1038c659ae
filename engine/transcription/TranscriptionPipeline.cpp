#include "engine/transcription/TranscriptionPipeline.hpp"

#include <stdlib.h>

#include <fmt/format.h>

#include <algorithm>
#include <system_error>

#include "engine/log/Log.hpp"
#include "engine/transcription/AudioChunk.hpp"
#include "engine/transcription/OpenRouterCatalog.hpp"
#include "engine/transcription/OpenRouterKeyStore.hpp"
#include "engine/transcription/TranscriptMerge.hpp"
#include "engine/transcription/TranscriptRendering.hpp"
#include "engine/transcription/TranscriptWriter.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionInput.hpp"
#include "engine/transcription/TranscriptionMediaBackend.hpp"
#include "engine/transcription/internal/PipelineRun.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;
using Code = TranscriptionError::Code;

namespace {

const Logger& pipelineLog() {
    static const Logger log("com.tessarin.transcription", "pipeline");
    return log;
}

std::string trimmed(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n\f\v";
    const std::size_t first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(first, text.find_last_not_of(kBlank) - first + 1));
}

// A private folder for one run: mode 0700, a recognisable name, unique.
fs::path makeScratch(const fs::path& root) {
    std::string pattern = (root / ".tessarin-transcription-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw TranscriptionError(Code::extractionFailed);
    }
    return pattern;
}

}  // namespace

std::string recoveredTranscriptHeader(double throughSeconds) {
    return fmt::format(
        "[Recovered transcript. Text received through {:.1f} seconds of the source. The requested "
        "output did not complete; timing or remaining audio may be missing.]",
        throughSeconds);
}

std::string mergedPlainText(const std::vector<std::string>& texts) {
    std::string merged;
    for (const std::string& text : texts) {
        const std::string piece = trimmed(text);
        if (piece.empty()) {
            continue;
        }
        if (!merged.empty()) {
            merged += "\n\n";
        }
        merged += piece;
    }
    return merged;
}

TranscriptionPipeline::TranscriptionPipeline(OpenRouterClient client, OpenRouterCatalog& catalog,
                                             std::shared_ptr<OpenRouterKeyStoring> keyStore,
                                             std::shared_ptr<TranscriptionMediaBackend> backend,
                                             ConsentGate consentGate, fs::path scratchRoot)
    : client_(std::move(client)),
      catalog_(&catalog),
      keyStore_(std::move(keyStore)),
      backend_(std::move(backend)),
      consentGate_(std::move(consentGate)),
      scratchRoot_(std::move(scratchRoot)) {}

TranscriptionOutcome TranscriptionPipeline::run(TranscriptionInput& input,
                                                const TranscriptionRequest& request,
                                                const TranscriptionDestination& destination,
                                                TranscriptionControl& control,
                                                const std::function<void(double)>& progress) {
    Run run{input, request, control, progress, {}, 0, {}, {}, false, std::nullopt};
    TranscriptionOutcome outcome;
    std::optional<fs::path> folder;
    consent_.clear();
    const auto finish = [&] {
        if (!run.scratch.empty()) {
            std::error_code ignored;
            fs::remove_all(run.scratch, ignored);
        }
        input.close();
    };
    try {
        if (!optionsAllowed(request.options, request.modelID)) {
            throw TranscriptionError(Code::invalidTranscriptionOptions);
        }
        accounting_ = {};
        completedExport_.reset();
        switch (destination.kind) {
            case TranscriptionDestination::Kind::folder: folder = destination.folder; break;
            case TranscriptionDestination::Kind::sameFolder:
                folder = input.source().parent_path();
                break;
            case TranscriptionDestination::Kind::unavailable:
                throw TranscriptionError(Code::destinationUnavailable);
        }
        if (!TranscriptWriter::probe(*folder)) {
            throw TranscriptionError(Code::destinationUnavailable);
        }
        run.checkCancelled();
        const OpenRouterKeyRead key = keyStore_->read();
        if (key.presence == TranscriptionKeyPresence::unreadable) {
            throw TranscriptionError(Code::keychainUnreadable);
        }
        if (key.presence != TranscriptionKeyPresence::present) {
            throw TranscriptionError(Code::keyMissing);
        }
        const CatalogSnapshot snapshot = catalog_->snapshot(false, &control);
        const CatalogEntry* entry = snapshot.find(request.modelID);
        if (entry == nullptr) {
            throw TranscriptionError(Code::modelUnavailable);
        }
        const TranscriptionRoute modelRoute = route(*entry);
        lastRoute_ = modelRoute;
        if (modelRoute == TranscriptionRoute::unsupported) {
            throw TranscriptionError(Code::unsupportedModel);
        }
        run.checkCancelled();
        TranscriptionConsent answer = TranscriptionConsent::grant();
        const auto asked = std::find_if(consent_.begin(), consent_.end(),
                                        [&](const auto& pair) { return pair.first == modelRoute; });
        if (asked != consent_.end()) {
            answer = asked->second;
        } else {
            answer = consentGate_ ? consentGate_(modelRoute)
                                  : TranscriptionConsent::denied(
                                        requiredConsent(modelRoute).value_or(
                                            TranscriptionConsentKind::audioUpload));
            consent_.emplace_back(modelRoute, answer);
        }
        if (!answer.granted) {
            pipelineLog().notice(fmt::format("upload refused consent={}", rawValue(answer.kind)));
            throw TranscriptionError(Code::consentDenied, answer.kind);
        }
        run.checkCancelled();
        run.scratch = makeScratch(scratchRoot_);
        run.trimStart = TrimWindow::of(request.trim).start;
        const MediaBodyRequest base{request.modelID, {}, entry->supportedParameters,
                                    request.temperature};
        if (modelRoute == TranscriptionRoute::videoChat) {
            sendVideo(run, base, key.key);
        } else {
            sendAudio(run, *entry, modelRoute, base, key.key);
        }
        writeResult(run, *folder, outcome);
    } catch (const TranscriptionError& caught) {
        TranscriptionError error = control.isCancelled() ? TranscriptionError(Code::cancelled)
                                                         : caught;
        recover(run, folder, outcome, error);
    } catch (...) {
        recover(run, folder, outcome,
                control.isCancelled() ? TranscriptionError(Code::cancelled)
                                      : TranscriptionError(Code::badResponse));
    }
    finish();
    run.report(1.0);
    if (outcome.error) {
        pipelineLog().notice(fmt::format("run failed code={} partial={}",
                                         codeName(outcome.error->code()), outcome.partial));
    } else {
        pipelineLog().notice(fmt::format("run done chunks={}", run.texts.size()));
    }
    return outcome;
}

}  // namespace tessarin::engine
