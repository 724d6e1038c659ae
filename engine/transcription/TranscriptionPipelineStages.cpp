// The stages of a transcription run after consent: the media sent (audio chunks or a whole
// video), the answers merged, and the transcript written, whole or recovered.
#include <fmt/format.h>

#include <cmath>
#include <system_error>

#include "engine/transcription/AudioChunk.hpp"
#include "engine/transcription/Base64Parts.hpp"
#include "engine/transcription/OpenRouterCatalog.hpp"
#include "engine/transcription/OpenRouterWire.hpp"
#include "engine/transcription/TranscriptMerge.hpp"
#include "engine/transcription/TranscriptRendering.hpp"
#include "engine/transcription/TranscriptWriter.hpp"
#include "engine/transcription/TranscriptionInput.hpp"
#include "engine/transcription/TranscriptionMediaBackend.hpp"
#include "engine/transcription/TranscriptionPipeline.hpp"
#include "engine/transcription/internal/PipelineRun.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;
using Code = TranscriptionError::Code;

namespace {

constexpr std::uintmax_t kWholeFileLimitBytes = 26'214'400;
constexpr std::int64_t kVideoLimitBytes = 100'000'000;

std::string trimmedText(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n\f\v";
    const std::size_t first = text.find_first_not_of(kBlank);
    if (first == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(first, text.find_last_not_of(kBlank) - first + 1));
}

// The trimmed source's length for planning; nothing when unknown.
std::optional<double> plannedDuration(const TrimWindow& window, std::optional<double> duration) {
    if (!window.end && !duration) {
        return std::nullopt;
    }
    double end = duration.value_or(0);
    if (window.end && (!duration || *window.end < *duration)) {
        end = *window.end;
    }
    const double length = end - window.start;
    if (!std::isfinite(length) || length <= 0) {
        return std::nullopt;
    }
    return length;
}

std::string timeText(double seconds) { return fmt::format("{:.3f}", std::max(0.0, seconds)); }

AudioExtractionOptions speechOptions(const SpeechAudioPlan& plan, Trim trim,
                                     const std::string& suffix) {
    OutputNaming naming = AudioExtractionOptions::defaultNaming(plan.codec);
    naming.filenameSuffix = suffix;
    return AudioExtractionOptions::make(plan.codec, 48, 16'000, 1, std::move(trim), naming);
}

// Errors of a probe that end the run; any other counts as an unknown duration.
bool endsRun(const TranscriptionError& error) {
    return error.code() == Code::cancelled || error.code() == Code::unsupportedInput ||
           error.code() == Code::noAudioTrack || error.code() == Code::toolsUnavailable;
}

std::optional<double> probedDuration(TranscriptionMediaBackend& backend, const fs::path& file,
                                     TranscriptionControl& control) {
    try {
        return backend.probe(file, control).durationSeconds;
    } catch (const TranscriptionError& error) {
        if (endsRun(error)) {
            throw;
        }
        return std::nullopt;
    }
}

std::shared_ptr<const Base64FileSource> openMedia(const fs::path& file, Code failure) {
    try {
        return Base64FileSource::open(file);
    } catch (const std::system_error&) {
        throw TranscriptionError(failure);
    }
}

std::string chatText(const std::string& answer) {
    const ORChatResponse chat = decodeChatResponse(answer);
    if (!chat.choices || chat.choices->empty() || !chat.choices->front().message) {
        throw TranscriptionError(Code::badResponse);
    }
    return chat.choices->front().message->content.value_or("");
}

std::string joinedWords(const std::vector<TranscriptWord>& words) {
    std::string text;
    for (const TranscriptWord& word : words) {
        const std::string piece = trimmedText(word.word);
        if (!piece.empty()) {
            text += text.empty() ? "" : " ";
            text += piece;
        }
    }
    return text;
}

std::string mergedText(const std::vector<std::string>& texts,
                       const std::vector<TranscriptWord>& words, bool timedWords) {
    std::string text = timedWords ? joinedWords(words) : std::string();
    return text.empty() ? mergedPlainText(texts) : text;
}

}  // namespace

void TranscriptionPipeline::sendVideo(Run& run, MediaBodyRequest base, const std::string& key) {
    const TrimWindow window = TrimWindow::of(run.request.trim);
    if (window.start > 0 || window.end) {
        throw TranscriptionError(Code::trimUnsupportedForVideoModel);
    }
    run.input.checkStamp();
    if (run.input.stamp().size > kVideoLimitBytes) {
        throw TranscriptionError(Code::oversizeVideo);
    }
    run.checkCancelled();
    const fs::path copy = run.scratch / ("video" + fs::path(run.input.filename()).extension().string());
    run.input.copyTo(copy, run.control);
    base.media.file = openMedia(copy, Code::sourcePreparationFailed);
    run.report(0.1);
    RequestBody body = OpenRouterClient::videoChatBody(
        base, run.request.instruction.value_or(std::string(kBuiltInTranscriptionPrompt)),
        videoMimeType(run.input.filename()), &run.control);
    const std::string answer = client_.sendWithRetry(
        OpenRouterClient::mediaRequest(TranscriptionRoute::videoChat, std::move(body), key),
        &run.control, [this](const OpenRouterResponse* response) { accounting_.record(response); });
    run.texts.push_back(chatText(answer));
}

void TranscriptionPipeline::sendAudio(Run& run, const CatalogEntry& entry,
                                      TranscriptionRoute route, const MediaBodyRequest& base,
                                      const std::string& key) {
    const SpeechAudioPlan plan = SpeechAudioPlan::of(run.request.modelID, route, run.request.options);
    double length = plan.chunkSeconds;
    if (lowercasedText(run.request.modelID) == kMaiTranscribe2) {
        length = mai2ChunkSeconds;
    } else if (!plan.dedicated) {
        length = chunkSeconds;
    }
    length = chunkSecondsOverride.value_or(length);
    const TrimWindow window = TrimWindow::of(run.request.trim);
    run.input.checkStamp();
    const fs::path source = run.input.heldPath();

    std::vector<AudioChunk> chunks;
    std::optional<fs::path> prepared;  // the whole trimmed speech audio, when it was extracted
    if (!plan.dedicated) {
        run.checkCancelled();
        chunks = AudioChunk::plan(plannedDuration(window, probedDuration(*backend_, source, run.control)),
                                  length, chunkOverlapSeconds);
    }
    if (chunks.empty()) {
        run.checkCancelled();
        prepared = backend_->extract(source, speechOptions(plan, run.request.trim, "-speech"),
                                     run.scratch, run.control, {});
        chunks = AudioChunk::plan(probedDuration(*backend_, *prepared, run.control), length,
                                  chunkOverlapSeconds);
        if (chunks.empty() || chunks.front().duration <= 0) {
            if (plan.dedicated) {
                throw TranscriptionError(Code::audioDurationUnknown);
            }
            std::error_code failed;
            const std::uintmax_t size = fs::file_size(*prepared, failed);
            if (failed) {
                throw TranscriptionError(Code::extractionFailed);
            }
            if (size > kWholeFileLimitBytes) {
                throw TranscriptionError(Code::audioRequestTooLarge);
            }
            chunks = {AudioChunk{0, 0, 0}};
        }
    }
    run.input.checkStamp();
    double total = 0;
    for (const AudioChunk& chunk : chunks) {
        total = std::max(total, chunk.end());
    }
    accounting_.estimatedUSD = TranscriptionAccounting::estimate(pricingOf(entry), total);

    const bool wholeIsChunk = prepared && chunks.size() == 1;
    const double count = static_cast<double>(chunks.size());
    for (const AudioChunk& chunk : chunks) {
        run.checkCancelled();
        run.report(chunk.index / count);
        fs::path file;
        if (wholeIsChunk) {
            file = *prepared;
        } else {
            // From the prepared audio its own times; from the source, shifted by the trim.
            const double offset = prepared ? 0 : window.start;
            const Trim range{timeText(offset + chunk.start), timeText(offset + chunk.end())};
            // The chunk's extraction fills the first half of its share, its upload the rest.
            file = backend_->extract(
                prepared ? *prepared : source,
                speechOptions(plan, range, fmt::format("-speech-chunk{}", chunk.index)),
                run.scratch, run.control,
                [&](double fraction) { run.report((chunk.index + fraction / 2) / count); });
        }
        MediaBodyRequest body = base;
        body.media.file = openMedia(file, Code::extractionFailed);
        const std::optional<double> boundary =
            chunk.index > 0 ? std::optional<double>(window.start +
                                                    chunks[static_cast<std::size_t>(chunk.index) - 1].end())
                            : std::nullopt;
        const std::optional<int> part =
            chunks.size() > 1 ? std::optional<int>(chunk.index + 1) : std::nullopt;
        run.report((chunk.index + 0.5) / count);
        sendChunk(run, route, std::move(body), plan.format, key, window.start + chunk.start,
                  boundary, part, chunk.duration);
        run.throughSeconds = window.start + chunk.end();
        if (!wholeIsChunk) {
            std::error_code ignored;
            fs::remove(file, ignored);  // the disk holds one chunk at a time
        }
    }
}

void TranscriptionPipeline::sendChunk(Run& run, TranscriptionRoute route, MediaBodyRequest body,
                                      const std::string& format, const std::string& key,
                                      double shift, std::optional<double> boundary,
                                      std::optional<int> part, double seconds) {
    RequestBody requestBody =
        route == TranscriptionRoute::stt
            ? OpenRouterClient::speechBody(body, format, run.request.options,
                                           run.request.language, &run.control)
            : OpenRouterClient::audioChatBody(
                  body,
                  run.request.instruction.value_or(std::string(kBuiltInTranscriptionPrompt)),
                  format, &run.control);
    const std::optional<double> partSeconds =
        seconds > 0 ? std::optional<double>(seconds) : std::nullopt;
    const std::string answer = client_.sendWithRetry(
        OpenRouterClient::mediaRequest(route, std::move(requestBody), key), &run.control,
        [&](const OpenRouterResponse* response) { accounting_.record(response, partSeconds); });
    if (route != TranscriptionRoute::stt) {
        run.texts.push_back(chatText(answer));
        return;
    }
    run.texts.push_back(speechText(answer));
    const ORTranscriptionResponse decoded = decodeTranscriptionResponse(answer);
    if (decoded.words && !decoded.words->empty()) {
        mergeWords(run.words, *decoded.words, shift, boundary, part);
        run.timedWords = true;
    }
}

void TranscriptionPipeline::writeResult(Run& run, const fs::path& folder,
                                        TranscriptionOutcome& outcome) {
    const std::string text = mergedText(run.texts, run.words, run.timedWords);
    if (text.empty()) {
        throw TranscriptionError(Code::noSpeech);
    }
    const TranscriptionOptions& options = run.request.options;
    std::vector<TranscriptSegment> segments;
    if (run.timedWords) {
        segments = cuesFromWords(run.words).value_or(std::vector<TranscriptSegment>{});
    }
    std::string rendered;
    try {
        rendered = render(options.format, text, segments, options.speakers);
    } catch (const TranscriptFormattingError&) {
        if (options.format != TranscriptFormat::text || options.speakers) {
            throw TranscriptionError(Code::badResponse);
        }
        rendered = text;
    }
    completedExport_ = TranscriptExport{text, segments, options.speakers};
    run.checkCancelled();
    const std::string stem = fs::path(run.input.filename()).stem().string();
    try {
        outcome.transcript = TranscriptWriter::write(rendered, folder, stem, options.format);
    } catch (const TranscriptionError& error) {
        outcome.error = error;
        outcome.unsaved = CompletedTranscriptSaveFailure{rendered, options.format, false, error,
                                                         completedExport_};
    }
}

void TranscriptionPipeline::recover(Run& run, const std::optional<fs::path>& folder,
                                    TranscriptionOutcome& outcome, const TranscriptionError& error) {
    outcome.error = error;
    outcome.transcript.reset();
    const std::string text = mergedText(run.texts, run.words, run.timedWords);
    if (text.empty() || !folder || !run.throughSeconds) {
        return;
    }
    const std::string recovered = recoveredTranscriptHeader(*run.throughSeconds) + "\n\n" + text;
    outcome.partial = true;
    try {
        outcome.transcript =
            TranscriptWriter::write(recovered, *folder, fs::path(run.input.filename()).stem().string(),
                                    TranscriptFormat::text);
    } catch (const TranscriptionError&) {
        outcome.unsaved = CompletedTranscriptSaveFailure{recovered, TranscriptFormat::text, true,
                                                         error, std::nullopt};
    }
}

}  // namespace tessarin::engine
