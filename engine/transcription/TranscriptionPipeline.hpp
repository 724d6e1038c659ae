// One source file in, one transcript file out: the key and the model looked up, the user's
// approval asked before anything leaves the machine, speech audio prepared through the conversion
// job (or a private copy of a video made), chunks uploaded one at a time through the client,
// the answers merged and written beside the source (or in the chosen folder) by exclusive claim.
// Text that arrived before a failure is still written, marked as recovered.
//
//   TranscriptionPipeline pipeline(client, catalog, keyStore, backend, gate, temporaryRoot());
//   auto input = TranscriptionInput::open(source);   // when the file is queued
//   TranscriptionOutcome outcome = pipeline.run(*input, request, destination, control, progress);
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/model/Preset.hpp"
#include "engine/transcription/OpenRouterClient.hpp"
#include "engine/transcription/Transcript.hpp"
#include "engine/transcription/TranscriptionAccounting.hpp"
#include "engine/transcription/TranscriptionConsent.hpp"
#include "engine/transcription/TranscriptionError.hpp"
#include "engine/transcription/TranscriptionOptions.hpp"

namespace tessarin::engine {

class OpenRouterCatalog;
struct CatalogEntry;
class OpenRouterKeyStoring;
class TranscriptionControl;
class TranscriptionInput;
class TranscriptionMediaBackend;

inline constexpr std::string_view kBuiltInTranscriptionPrompt =
    "Transcribe this audio verbatim. Preserve speaker turns and mark them as “Speaker 1:”, "
    "“Speaker 2:” and so on when more than one person speaks. Do not summarize, translate, "
    "comment, or add anything that was not said. Return plain text only.";

struct TranscriptionRequest {
    std::string modelID;
    std::optional<std::string> language;
    std::optional<double> temperature;
    std::optional<std::string> instruction;  // chat routes only; the built-in prompt when absent
    Trim trim;
    TranscriptionOptions options;
};

// Where the transcript goes, as resolved when the file was queued.
struct TranscriptionDestination {
    enum class Kind { folder, sameFolder, unavailable };
    Kind kind = Kind::sameFolder;
    std::filesystem::path folder;  // Kind::folder
};

// A transcript that exists but couldn't be stored; the queue can offer it to the user.
struct CompletedTranscriptSaveFailure {
    std::string text;
    TranscriptFormat format = TranscriptFormat::text;
    bool isPartial = false;
    TranscriptionError cause{TranscriptionError::Code::writeFailed};
    std::optional<TranscriptExport> exported;
};

// How a run ended: a transcript and no error; an error alone; an error with a recovered partial
// transcript written; or an error with the text kept in `unsaved`.
struct TranscriptionOutcome {
    std::optional<std::filesystem::path> transcript;
    std::optional<TranscriptionError> error;
    bool partial = false;
    std::optional<CompletedTranscriptSaveFailure> unsaved;

    [[nodiscard]] bool succeeded() const { return transcript && !error; }
};

// The header of a recovered transcript.
[[nodiscard]] std::string recoveredTranscriptHeader(double throughSeconds);

// The text of chat answers (or answers without words) in chunk order: each trimmed, empties
// dropped, joined by blank lines.
[[nodiscard]] std::string mergedPlainText(const std::vector<std::string>& texts);

// Runs one job at a time (the queue's rule); run() blocks its calling thread. The pipeline's own
// state (accounting, completedExport) belongs to the thread that calls run().
class TranscriptionPipeline {
public:
    // Asked once a run, after the route is known and before anything is sent; may block while
    // the user answers.
    using ConsentGate = std::function<TranscriptionConsent(TranscriptionRoute)>;

    TranscriptionPipeline(OpenRouterClient client, OpenRouterCatalog& catalog,
                          std::shared_ptr<OpenRouterKeyStoring> keyStore,
                          std::shared_ptr<TranscriptionMediaBackend> backend,
                          ConsentGate consentGate, std::filesystem::path scratchRoot);

    // Never throws. `progress` (may be empty) gets fractions from 0 to 1, ending with 1.0.
    [[nodiscard]] TranscriptionOutcome run(TranscriptionInput& input,
                                           const TranscriptionRequest& request,
                                           const TranscriptionDestination& destination,
                                           TranscriptionControl& control,
                                           const std::function<void(double)>& progress = {});

    [[nodiscard]] const TranscriptionAccounting& accounting() const { return accounting_; }
    [[nodiscard]] const std::optional<TranscriptExport>& completedExport() const {
        return completedExport_;
    }
    // The model's route as the last run found it.
    [[nodiscard]] std::optional<TranscriptionRoute> lastRoute() const { return lastRoute_; }

    double chunkSeconds = 1200.0;
    double chunkOverlapSeconds = 2.0;
    double mai2ChunkSeconds = 30.0;
    // Other chunk lengths of dedicated speech models (300 s for plain text, else 60 s) follow
    // the plan; this replaces every length when set (for tests of long files on short clips).
    std::optional<double> chunkSecondsOverride;

private:
    struct Run;

    void sendVideo(Run& run, MediaBodyRequest base, const std::string& key);
    void sendAudio(Run& run, const CatalogEntry& entry, TranscriptionRoute route,
                   const MediaBodyRequest& base, const std::string& key);
    // Uploads one prepared file and keeps its answer under the chunk's place.
    void sendChunk(Run& run, TranscriptionRoute route, MediaBodyRequest body,
                   const std::string& format, const std::string& key, double shift,
                   std::optional<double> boundary, std::optional<int> part, double seconds);
    // Merges, renders and writes what arrived.
    void writeResult(Run& run, const std::filesystem::path& folder, TranscriptionOutcome& outcome);
    // Ends a failed run: the error, and a recovered transcript of whatever text arrived.
    void recover(Run& run, const std::optional<std::filesystem::path>& folder,
                 TranscriptionOutcome& outcome, const TranscriptionError& error);

    OpenRouterClient client_;
    OpenRouterCatalog* catalog_;
    std::shared_ptr<OpenRouterKeyStoring> keyStore_;
    std::shared_ptr<TranscriptionMediaBackend> backend_;
    ConsentGate consentGate_;
    std::filesystem::path scratchRoot_;
    TranscriptionAccounting accounting_;
    std::optional<TranscriptExport> completedExport_;
    std::optional<TranscriptionRoute> lastRoute_;
    std::vector<std::pair<TranscriptionRoute, TranscriptionConsent>> consent_;
};

}  // namespace tessarin::engine
