#include "engine/transcription/TranscriptionAccounting.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace tessarin::engine {

namespace {

using nlohmann::json;

constexpr std::size_t kMaxGenerationIDLength = 128;

bool acceptableGenerationID(const std::string& id) {
    return !id.empty() && id.size() <= kMaxGenerationIDLength &&
           std::all_of(id.begin(), id.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '-' || c == '_' || c == ':';
           });
}

std::optional<double> number(const json& owner, const char* key) {
    if (!owner.is_object()) {
        return std::nullopt;
    }
    const auto found = owner.find(key);
    if (found == owner.end() || !found->is_number()) {
        return std::nullopt;
    }
    const double value = found->get<double>();
    return std::isfinite(value) ? std::optional<double>(value) : std::nullopt;
}

const json* child(const json& owner, const char* key) {
    if (!owner.is_object()) {
        return nullptr;
    }
    const auto found = owner.find(key);
    return found == owner.end() ? nullptr : &*found;
}

}  // namespace

std::string amountText(double amount) {
    std::string text = fmt::format("{:.6f}", amount);
    while (text.back() == '0') {
        text.pop_back();
    }
    if (text.back() == '.') {
        text.pop_back();
    }
    return text;
}

void TranscriptionAccounting::record(const OpenRouterResponse* response,
                                     std::optional<double> partSeconds) {
    if (response == nullptr) {
        ++unreportedAttempts;
        return;
    }
    const json body =
        response->body.empty() ? json() : json::parse(response->body, nullptr, false);
    const json* usage = child(body, "usage");
    const std::optional<double> cost = usage != nullptr ? number(*usage, "cost") : std::nullopt;
    if (cost) {
        reportedUSD = reportedUSD.value_or(0) + *cost;
    } else {
        ++unreportedAttempts;
    }
    if (response->generationID && acceptableGenerationID(*response->generationID) &&
        std::find(generationIDs.begin(), generationIDs.end(), *response->generationID) ==
            generationIDs.end()) {
        generationIDs.push_back(*response->generationID);
    }
    if (response->statusCode < 200 || response->statusCode > 299) {
        return;
    }
    if (const json* language = child(body, "language"); language != nullptr &&
                                                         language->is_string() &&
                                                         !language->get<std::string>().empty()) {
        const std::string code = language->get<std::string>();
        if (std::find(detectedLanguages.begin(), detectedLanguages.end(), code) ==
            detectedLanguages.end()) {
            detectedLanguages.push_back(code);
        }
    }
    std::optional<double> seconds = usage != nullptr ? number(*usage, "seconds") : std::nullopt;
    if (!seconds) {
        seconds = number(body, "duration");
    }
    if (seconds && *seconds >= 0) {
        reportedAudioSeconds += *seconds;
        if (partSeconds && *partSeconds > 0 &&
            std::fabs(*seconds - *partSeconds) > std::max(1.0, 0.02 * *partSeconds)) {
            ++durationMismatchCount;
        }
    }
}

std::optional<double> TranscriptionAccounting::estimate(const std::optional<Pricing>& pricing,
                                                        double seconds) {
    if (!pricing || !std::isfinite(seconds) || seconds < 0) {
        return std::nullopt;
    }
    switch (pricing->unit) {
        case PricingUnit::perSecond: return pricing->rate * seconds;
        case PricingUnit::perMinute: return pricing->rate * seconds / 60;
        case PricingUnit::perHour: return pricing->rate * seconds / 3600;
        case PricingUnit::perToken:
        case PricingUnit::unknown: break;
    }
    return std::nullopt;
}

std::vector<std::string> TranscriptionAccounting::summaryLines() const {
    std::vector<std::string> lines;
    if (estimatedUSD) {
        lines.push_back("Estimated " + amountText(*estimatedUSD));
    }
    const std::string unreported =
        unreportedAttempts > 0
            ? fmt::format("{} attempt{} with unreported cost", unreportedAttempts,
                          unreportedAttempts == 1 ? "" : "s")
            : "";
    if (reportedUSD) {
        lines.push_back("Reported " + amountText(*reportedUSD) +
                        (unreported.empty() ? "" : "; " + unreported));
    } else if (!unreported.empty()) {
        lines.push_back(unreported);
    }
    if (!lines.empty()) {
        lines.emplace_back(
            "USD. Estimate includes chunk overlap, excludes rounding and retries. Reported costs "
            "include received retry responses; failed or missing charges can arrive later.");
    }
    if (reportedAudioSeconds > 0) {
        lines.push_back(fmt::format(
            "Provider-reported audio across successful attempts: {:.2f} seconds.",
            reportedAudioSeconds));
    }
    if (!detectedLanguages.empty()) {
        lines.push_back(fmt::format("Detected languages: {}", fmt::join(detectedLanguages, ", ")));
    }
    if (!generationIDs.empty()) {
        lines.push_back(fmt::format("Generation IDs:\n{}", fmt::join(generationIDs, "\n")));
    }
    return lines;
}

std::optional<std::string> TranscriptionAccounting::durationWarning() const {
    if (durationMismatchCount <= 0) {
        return std::nullopt;
    }
    return fmt::format(
        "The provider reported a different audio duration for {} part{}. Review the transcript "
        "against the recording; this does not necessarily mean speech is missing.",
        durationMismatchCount, durationMismatchCount == 1 ? "" : "s");
}

}  // namespace tessarin::engine
