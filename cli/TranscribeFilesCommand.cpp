// `tessarin transcribe FILE...`: the transcription pipeline from the command line, with the same
// events, progress, Ctrl-C handling and exit statuses as `convert`, and the consent of the window.
#include <fmt/format.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "cli/Commands.hpp"
#include "cli/EventSink.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/Interruption.hpp"
#include "cli/JobPlan.hpp"
#include "cli/JobRunner.hpp"
#include "engine/log/Log.hpp"
#include "engine/publish/PrivateFolders.hpp"
#include "engine/settings/SettingsStore.hpp"
#include "engine/transcription/CurlOpenRouterTransport.hpp"
#include "engine/transcription/KeychainOpenRouterKeyStore.hpp"
#include "engine/transcription/OpenRouterCatalog.hpp"
#include "engine/transcription/TranscriptionConsent.hpp"
#include "engine/transcription/TranscriptionControl.hpp"
#include "engine/transcription/TranscriptionInput.hpp"
#include "engine/transcription/TranscriptionMediaBackend.hpp"
#include "engine/transcription/TranscriptionPipeline.hpp"
#include "engine/transcription/TranscriptionPreferences.hpp"
#include "engine/transcription/TranscriptionRoster.hpp"
#include "engine/transcription/TranscriptWriter.hpp"

namespace tessarin::cli {

namespace {

namespace fs = std::filesystem;
using engine::TranscriptionError;
using Code = TranscriptionError::Code;

// A transcript that couldn't be stored at its destination goes to the temporary folder under its
// usual name, so that nothing received is lost; when even that fails, the text itself is printed
// on stderr.
void keepUnsaved(EventSink& sink, const engine::CompletedTranscriptSaveFailure& unsaved,
                 const fs::path& source) {
    try {
        const fs::path saved = engine::TranscriptWriter::write(
            unsaved.text, fs::temp_directory_path(), source.stem().string(), unsaved.format);
        sink.warning("transcriptSavedElsewhere",
                     fmt::format("{} couldn’t be saved there, so it was saved to {}.",
                                 unsaved.isPartial ? "The text received before the failure"
                                                   : "The transcript",
                                 saved.string()));
    } catch (const std::exception&) {
        sink.warning("transcriptNotSaved",
                     "The transcript couldn’t be saved, not even in the temporary folder; it "
                     "follows on stderr.");
        std::cerr << unsaved.text << "\n";
    }
}

constexpr const char* kKeyVariable = "OPENROUTER_API_KEY";

// The key of the environment when it is set, otherwise the keyring's. Neither is ever printed.
class CommandLineKeyStore final : public engine::OpenRouterKeyStoring {
public:
    engine::OpenRouterKeyRead read() override {
        if (const char* key = std::getenv(kKeyVariable); key != nullptr && *key != '\0') {
            return {engine::TranscriptionKeyPresence::present, key};
        }
        return keyring_.read();
    }
    void save(const std::string& key) override { keyring_.save(key); }
    void remove() override { keyring_.remove(); }

private:
    engine::KeychainOpenRouterKeyStore keyring_;
};

void usage(const std::string& sentence) { std::cerr << "tessarin: " << sentence << "\n"; }

std::optional<engine::TranscriptFormat> formatOption(const std::string& text) {
    if (text == "txt") {
        return engine::TranscriptFormat::text;
    }
    return text == "srt" || text == "vtt" ? engine::transcriptFormat(text) : std::nullopt;
}

void reportCost(bool json, const fs::path& file, const engine::TranscriptionAccounting& accounting) {
    const std::vector<std::string> lines = accounting.summaryLines();
    if (json) {
        nlohmann::json event{{"event", "cost"},
                             {"file", file.string()},
                             {"unreportedAttempts", accounting.unreportedAttempts},
                             {"generationIDs", accounting.generationIDs},
                             {"reportedAudioSeconds", accounting.reportedAudioSeconds},
                             {"lines", lines}};
        event["estimatedUSD"] = accounting.estimatedUSD ? nlohmann::json(*accounting.estimatedUSD)
                                                        : nlohmann::json();
        event["reportedUSD"] =
            accounting.reportedUSD ? nlohmann::json(*accounting.reportedUSD) : nlohmann::json();
        if (const auto warning = accounting.durationWarning()) {
            event["warning"] = *warning;
        }
        std::cout << event.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                  << std::endl;
        return;
    }
    for (const std::string& line : lines) {
        std::cerr << line << "\n";
    }
    if (const auto warning = accounting.durationWarning()) {
        std::cerr << *warning << "\n";
    }
}

}  // namespace

int runTranscribe(const TranscribeRequest& request) {
    Interruption interruption;  // first, so every later thread has the signals blocked

    engine::TranscriptionRequest base;
    std::optional<engine::TranscriptFormat> format;
    std::optional<engine::TranscriptionConsentKind> consentNow;
    try {
        if (request.format) {
            format = formatOption(*request.format);
            if (!format) {
                throw UsageError("--format takes txt, srt or vtt.");
            }
        }
        if (request.consent) {
            consentNow = engine::consentKindFromRaw(*request.consent);
            if (!consentNow) {
                throw UsageError("--consent takes audio or video.");
            }
        }
        if (request.language && !engine::normalizedLanguage(*request.language)) {
            throw UsageError("--language takes a language code such as en or pt-br.");
        }
        if (request.trim) {
            base.trim = parseTrim(*request.trim);
        }
    } catch (const UsageError& error) {
        usage(error.what());
        return kExitUsage;
    }
    const Preflight checked = preflight(request.outputDirectory);
    if (!checked.tools) {
        return checked.status;
    }

    engine::SettingsStore settings = engine::SettingsStore::standard();
    const engine::OpenRouterClient client(
        std::make_shared<engine::CurlOpenRouterTransport>(engine::OpenRouterConfig::endpoint()));
    engine::OpenRouterCatalog catalog(client, settings);
    const engine::TranscriptionPreferences preferences = engine::TranscriptionPreferences::load(settings);
    if (request.model) {
        base.modelID = *request.model;
    } else {
        const engine::ActiveModelResolution active =
            engine::TranscriptionRoster(settings).resolveActive(catalog.cached());
        if (active.kind == engine::ActiveModelResolution::Kind::none) {
            usage(std::string(engine::ActiveModelResolution::kNoneText));
            return kExitUsage;
        }
        base.modelID = active.id;
    }
    base.options = preferences.effectiveOptions(base.modelID);
    if (format) {
        base.options.format = *format;
    }
    base.language = request.language ? engine::normalizedLanguage(*request.language)
                                     : preferences.language;
    base.instruction = preferences.instruction();

    engine::TranscriptionConsentStore consents(settings);
    bool noticeShown = false;
    const auto gate = [&](engine::TranscriptionRoute route) {
        engine::TranscriptionConsent answer = consents.answer(route);
        if (!answer.granted && consentNow == answer.kind) {
            consents.grant(answer.kind, engine::secondsSince1970());
            answer = engine::TranscriptionConsent::grant();
        }
        if (!answer.granted && !noticeShown) {
            noticeShown = true;
            std::cerr << engine::ConsentNotice::of(answer.kind).plainText() << "\n\n"
                      << fmt::format("Nothing was sent. To approve and go on, run again with "
                                     "--consent {}.\n",
                                     engine::rawValue(answer.kind));
        }
        return answer;
    };
    engine::TranscriptionPipeline pipeline(
        client, catalog, std::make_shared<CommandLineKeyStore>(),
        std::make_shared<engine::EngineTranscriptionBackend>(*checked.tools), gate,
        engine::temporaryRoot());
    const engine::TranscriptionDestination destination =
        request.outputDirectory
            ? engine::TranscriptionDestination{engine::TranscriptionDestination::Kind::folder,
                                               fs::absolute(*request.outputDirectory)}
            : engine::TranscriptionDestination{};

    EventSink sink(request.json);
    int status = kExitSuccess;
    for (const fs::path& file : request.files) {
        if (interruption.interrupted()) {
            return kExitCancelled;
        }
        sink.start(file, "transcribe");
        std::shared_ptr<engine::TranscriptionInput> input;
        try {
            input = engine::TranscriptionInput::open(fs::absolute(file));
        } catch (const TranscriptionError& error) {
            sink.failed("input", error.text(), std::nullopt);
            status = kExitFailure;
            continue;
        }
        auto control = std::make_shared<engine::TranscriptionControl>();
        interruption.watch(control);
        const engine::TranscriptionOutcome outcome = pipeline.run(
            *input, base, destination, *control, [&](double fraction) { sink.progress(fraction); });
        if (outcome.succeeded()) {
            sink.done(*outcome.transcript);
            reportCost(request.json, file, pipeline.accounting());
            continue;
        }
        const TranscriptionError& error = *outcome.error;
        if (outcome.partial && outcome.transcript) {
            sink.warning("recoveredTranscript",
                         "The text received before the failure was saved to " +
                             outcome.transcript->string() + ".");
        } else if (outcome.unsaved) {
            keepUnsaved(sink, *outcome.unsaved, file);
        }
        if (!pipeline.accounting().generationIDs.empty() || pipeline.accounting().estimatedUSD) {
            reportCost(request.json, file, pipeline.accounting());
        }
        if (error.code() == Code::cancelled) {
            sink.cancelled();
            return kExitCancelled;
        }
        sink.failed(std::string(engine::codeName(error.code())), error.text(), std::nullopt);
        if (error.code() == Code::consentDenied) {
            return kExitNeedsConsent;
        }
        status = kExitFailure;
    }
    return status;
}

}  // namespace tessarin::cli
