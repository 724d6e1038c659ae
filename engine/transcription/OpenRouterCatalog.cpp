#include "engine/transcription/OpenRouterCatalog.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

#include "engine/log/Log.hpp"
#include "engine/settings/SettingsStore.hpp"

namespace tessarin::engine {

namespace {

using nlohmann::json;

const Logger& log() {
    static const Logger logger("com.tessarin.transcription", "catalog");
    return logger;
}

bool contains(const std::vector<std::string>& list, std::string_view value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

// A price as the service writes it ("0.000002"), read without the user's locale.
std::optional<double> priceValue(const std::string& text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value) ||
        value < 0) {
        return std::nullopt;
    }
    return value;
}

json entryJSON(const CatalogEntry& entry) {
    json out{{"id", entry.id},
             {"inputModalities", entry.inputModalities},
             {"outputModalities", entry.outputModalities},
             {"pricing", entry.pricing}};
    if (entry.name) {
        out["name"] = *entry.name;
    }
    if (entry.supportedParameters) {
        out["supportedParameters"] = *entry.supportedParameters;
    }
    if (entry.contextLength) {
        out["contextLength"] = *entry.contextLength;
    }
    return out;
}

std::optional<std::vector<std::string>> stringList(const json& value) {
    if (!value.is_array()) {
        return std::nullopt;
    }
    std::vector<std::string> out;
    for (const json& element : value) {
        if (!element.is_string()) {
            return std::nullopt;
        }
        out.push_back(element.get<std::string>());
    }
    return out;
}

std::optional<CatalogEntry> entryFromJSON(const json& value) {
    if (!value.is_object() || !value.contains("id") || !value["id"].is_string()) {
        return std::nullopt;
    }
    CatalogEntry entry;
    entry.id = value["id"].get<std::string>();
    if (value.contains("name") && value["name"].is_string()) {
        entry.name = value["name"].get<std::string>();
    }
    const auto inputs = value.contains("inputModalities") ? stringList(value["inputModalities"])
                                                          : std::nullopt;
    const auto outputs = value.contains("outputModalities")
                             ? stringList(value["outputModalities"])
                             : std::nullopt;
    if (!inputs || !outputs || !value.contains("pricing") || !value["pricing"].is_object()) {
        return std::nullopt;
    }
    entry.inputModalities = *inputs;
    entry.outputModalities = *outputs;
    for (const auto& [key, price] : value["pricing"].items()) {
        if (price.is_string()) {
            entry.pricing.emplace(key, price.get<std::string>());
        }
    }
    if (value.contains("supportedParameters")) {
        entry.supportedParameters = stringList(value["supportedParameters"]);
    }
    if (value.contains("contextLength") && value["contextLength"].is_number_integer()) {
        entry.contextLength = value["contextLength"].get<int64_t>();
    }
    return entry;
}

double systemNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace

CatalogEntry CatalogEntry::fromModel(const ORModel& model) {
    CatalogEntry entry;
    entry.id = model.id;
    entry.name = model.name;
    if (model.architecture) {
        entry.inputModalities = model.architecture->inputModalities.value_or(std::vector<std::string>{});
        entry.outputModalities = model.architecture->outputModalities.value_or(std::vector<std::string>{});
    }
    if (model.pricing) {
        entry.pricing = model.pricing->values;
    }
    entry.supportedParameters = model.supportedParameters;
    entry.contextLength = model.contextLength;
    return entry;
}

const CatalogEntry* CatalogSnapshot::find(std::string_view id) const {
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const CatalogEntry& entry) { return entry.id == id; });
    return found == entries.end() ? nullptr : &*found;
}

std::string CatalogSnapshot::toJSONText() const {
    json list = json::array();
    for (const CatalogEntry& entry : entries) {
        list.push_back(entryJSON(entry));
    }
    return json{{"fetchedAt", fetchedAt}, {"entries", std::move(list)}}.dump(
        -1, ' ', false, json::error_handler_t::replace);
}

std::optional<CatalogSnapshot> CatalogSnapshot::fromJSONText(std::string_view text) {
    const json document = json::parse(text, nullptr, false);
    if (!document.is_object() || !document.contains("fetchedAt") ||
        !document["fetchedAt"].is_number() || !document.contains("entries") ||
        !document["entries"].is_array()) {
        return std::nullopt;
    }
    CatalogSnapshot snapshot;
    snapshot.fetchedAt = document["fetchedAt"].get<double>();
    for (const json& value : document["entries"]) {
        auto entry = entryFromJSON(value);
        if (!entry) {
            return std::nullopt;
        }
        snapshot.entries.push_back(std::move(*entry));
    }
    return snapshot;
}

TranscriptionRoute route(const CatalogEntry& entry) {
    if (contains(entry.outputModalities, "transcription")) {
        return TranscriptionRoute::stt;
    }
    if (contains(entry.inputModalities, "audio")) {
        return TranscriptionRoute::audioChat;
    }
    if (contains(entry.inputModalities, "video")) {
        return TranscriptionRoute::videoChat;
    }
    return TranscriptionRoute::unsupported;
}

std::string routeDescription(std::optional<TranscriptionRoute> route) {
    if (!route) {
        return "Not in the fetched model list yet — refresh the list to classify it.";
    }
    switch (*route) {
        case TranscriptionRoute::stt:
            return "Speech-to-text model — audio is sent to a dedicated transcription endpoint.";
        case TranscriptionRoute::audioChat:
            return "Chat model that accepts audio — only the extracted audio is sent.";
        case TranscriptionRoute::videoChat:
            return "Chat model that accepts video only — the whole video file is sent.";
        case TranscriptionRoute::unsupported: break;
    }
    return "This model accepts neither audio nor video, so it can’t transcribe.";
}

std::string_view rawValue(PricingUnit unit) {
    switch (unit) {
        case PricingUnit::perToken: return "perToken";
        case PricingUnit::perSecond: return "perSecond";
        case PricingUnit::perMinute: return "perMinute";
        case PricingUnit::perHour: return "perHour";
        case PricingUnit::unknown: break;
    }
    return "unknown";
}

std::optional<Pricing> pricingOf(const CatalogEntry& entry) {
    // A key that names its time unit ("audio_per_minute", "per_second") says it outright; then
    // "prompt" and "completion" are token rates; any other priced key has a unit nobody states.
    for (const auto& [word, unit] : {std::pair{"second", PricingUnit::perSecond},
                                     std::pair{"minute", PricingUnit::perMinute},
                                     std::pair{"hour", PricingUnit::perHour}}) {
        for (const auto& [key, text] : entry.pricing) {
            const auto value = priceValue(text);
            if (value && *value > 0 && lowercasedText(key).find(word) != std::string::npos) {
                return Pricing{unit, *value, std::nullopt};
            }
        }
    }
    const auto valueOf = [&](const char* key) -> std::optional<double> {
        const auto found = entry.pricing.find(key);
        if (found == entry.pricing.end()) {
            return std::nullopt;
        }
        const auto value = priceValue(found->second);
        return value && *value > 0 ? value : std::nullopt;
    };
    const auto prompt = valueOf("prompt");
    const auto completion = valueOf("completion");
    if (prompt || completion) {
        return prompt ? Pricing{PricingUnit::perToken, *prompt, completion}
                      : Pricing{PricingUnit::perToken, *completion, std::nullopt};
    }
    for (const auto& [key, text] : entry.pricing) {
        if (const auto value = priceValue(text); value && *value > 0) {
            return Pricing{PricingUnit::unknown, *value, std::nullopt};
        }
    }
    return std::nullopt;
}

std::string dollarText(double amount) {
    std::string text = fmt::format("{:.6f}", amount);
    const auto point = text.find('.');
    while (text.size() > point + 3 && text.back() == '0') {
        text.pop_back();
    }
    return "$" + text;
}

std::string pricingText(const std::optional<Pricing>& pricing) {
    if (!pricing) {
        return "Pricing unavailable";
    }
    switch (pricing->unit) {
        case PricingUnit::perMinute: return dollarText(pricing->rate) + " per minute of audio";
        case PricingUnit::perSecond: return dollarText(pricing->rate) + " per second of audio";
        case PricingUnit::perHour: return dollarText(pricing->rate) + " per hour of audio";
        case PricingUnit::perToken:
            if (pricing->completionRate) {
                return dollarText(pricing->rate * 1e6) + " in / " +
                       dollarText(*pricing->completionRate * 1e6) + " out per 1M tokens";
            }
            return dollarText(pricing->rate * 1e6) + " per 1M tokens";
        case PricingUnit::unknown: break;
    }
    return dollarText(pricing->rate) +
           " per unit — this model doesn’t publish what its price is measured in, so no cost "
           "estimate is shown.";
}

OpenRouterCatalog::OpenRouterCatalog(OpenRouterClient client, SettingsStore& defaults,
                                     std::function<double()> now, double ttl)
    : client_(std::move(client)),
      defaults_(&defaults),
      now_(now ? std::move(now) : std::function<double()>(systemNow)),
      ttl_(ttl) {}

std::optional<CatalogSnapshot> OpenRouterCatalog::cached() {
    {
        const std::lock_guard guard(lock_);
        if (loaded_) {
            return cached_;
        }
    }
    const std::optional<std::string> stored = defaults_->dataValue(kSettingsKey);
    std::optional<CatalogSnapshot> decoded =
        stored ? CatalogSnapshot::fromJSONText(*stored) : std::nullopt;
    const std::lock_guard guard(lock_);
    if (!loaded_) {
        cached_ = std::move(decoded);
        loaded_ = true;
    }
    return cached_;
}

CatalogSnapshot OpenRouterCatalog::snapshot(bool forceRefresh,
                                            const TranscriptionControl* control) {
    if (!forceRefresh) {
        if (std::optional<CatalogSnapshot> current = cached();
            current && now_() - current->fetchedAt < ttl_) {
            return std::move(*current);
        }
    }
    const ORModelListResponse models = client_.listModels(false, control);
    CatalogSnapshot fresh;
    fresh.fetchedAt = now_();
    fresh.entries.reserve(models.data.size());
    for (const ORModel& model : models.data) {
        fresh.entries.push_back(CatalogEntry::fromModel(model));
    }
    try {
        defaults_->setData(kSettingsKey, fresh.toJSONText());
    } catch (const std::exception&) {
        // The list still serves this run; the next one fetches again.
        log().error(logLine({{"event", "catalog-store-failed"}}));
    }
    log().notice(fmt::format("catalog refreshed — models={}", fresh.entries.size()));
    {
        const std::lock_guard guard(lock_);
        cached_ = fresh;
        loaded_ = true;
    }
    return fresh;
}

}  // namespace tessarin::engine
