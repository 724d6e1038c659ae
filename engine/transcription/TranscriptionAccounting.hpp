// What one transcription run has cost, as honestly as the service reports it: collected from
// every attempt (failed ones and retries too), and told to the user as a few summary lines.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "engine/transcription/OpenRouterCatalog.hpp"
#include "engine/transcription/OpenRouterTransport.hpp"

namespace tessarin::engine {

// A plain value; one per run, fed from the retry loop's observer on the run's thread.
struct TranscriptionAccounting {
    std::optional<double> estimatedUSD;
    std::optional<double> reportedUSD;
    int unreportedAttempts = 0;
    std::vector<std::string> generationIDs;
    double reportedAudioSeconds = 0;
    std::vector<std::string> detectedLanguages;
    int durationMismatchCount = 0;

    // One attempt: its response, or null when the transport failed. `partSeconds` is the length
    // of the audio the attempt carried, when known; a successful response reporting another
    // length (by more than a second or 2 %) counts as a mismatch.
    void record(const OpenRouterResponse* response, std::optional<double> partSeconds = std::nullopt);

    // The cost of `seconds` of audio at `pricing`, for rates per second, minute or hour; nothing
    // for token and unknown units.
    [[nodiscard]] static std::optional<double> estimate(const std::optional<Pricing>& pricing,
                                                        double seconds);

    // The report, one line each, only the lines that have something to say.
    [[nodiscard]] std::vector<std::string> summaryLines() const;
    // The warning about reported durations, when there was a mismatch.
    [[nodiscard]] std::optional<std::string> durationWarning() const;
};

// "0.001234": at most six decimals, trailing zeros dropped.
[[nodiscard]] std::string amountText(double amount);

}  // namespace tessarin::engine
