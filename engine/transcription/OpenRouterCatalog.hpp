// The service's model list, kept for a day in the settings store, and what it says about each
// model: how it receives media (its route) and what it costs.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "engine/transcription/OpenRouterClient.hpp"

namespace tessarin::engine {

class SettingsStore;

// One model of the list. Stored under these same names.
struct CatalogEntry {
    std::string id;
    std::optional<std::string> name;
    std::vector<std::string> inputModalities;
    std::vector<std::string> outputModalities;
    std::map<std::string, std::string> pricing;
    std::optional<std::vector<std::string>> supportedParameters;
    std::optional<int64_t> contextLength;

    [[nodiscard]] static CatalogEntry fromModel(const ORModel& model);
    bool operator==(const CatalogEntry&) const = default;
};

struct CatalogSnapshot {
    double fetchedAt = 0;  // seconds since 1970
    std::vector<CatalogEntry> entries;

    // The entry of `id`, compared exactly.
    [[nodiscard]] const CatalogEntry* find(std::string_view id) const;
    [[nodiscard]] std::string toJSONText() const;
    // Nothing when `text` isn't a stored snapshot.
    [[nodiscard]] static std::optional<CatalogSnapshot> fromJSONText(std::string_view text);
};

// First match: output "transcription" is stt; input "audio" audioChat; input "video" videoChat;
// otherwise unsupported.
[[nodiscard]] TranscriptionRoute route(const CatalogEntry& entry);
// The sentence that describes a route to the user; nothing for a model not in the list.
[[nodiscard]] std::string routeDescription(std::optional<TranscriptionRoute> route);

enum class PricingUnit { perToken, perSecond, perMinute, perHour, unknown };
[[nodiscard]] std::string_view rawValue(PricingUnit unit);

// What the price keys say about the unit of a rate, and the rate in that unit (USD; per token
// for perToken). Nothing when the model publishes no price at all.
struct Pricing {
    PricingUnit unit = PricingUnit::unknown;
    double rate = 0;                        // per unit; for perToken the input rate
    std::optional<double> completionRate;   // perToken only: the output rate
};
[[nodiscard]] std::optional<Pricing> pricingOf(const CatalogEntry& entry);
// "$0.006 per minute of audio", "$2 in / $8 out per 1M tokens", … or "Pricing unavailable".
[[nodiscard]] std::string pricingText(const std::optional<Pricing>& pricing);
// A dollar amount with at most six decimals and at least two: "$0.006", "$2.00".
[[nodiscard]] std::string dollarText(double amount);

// Every member may be called from any thread. The lock guards the memory copy only and is never
// held during a request or file work, so two refreshes at once may both fetch; the later one's
// list then stands, which is as good as the earlier one's.
class OpenRouterCatalog {
public:
    static constexpr double kTTL = 86'400.0;
    static constexpr const char* kSettingsKey = "openRouterModelCatalog";

    // `defaults` must outlive the catalog. `now` gives seconds since 1970 (default: the clock).
    OpenRouterCatalog(OpenRouterClient client, SettingsStore& defaults,
                      std::function<double()> now = {}, double ttl = kTTL);

    // The current snapshot: the one in memory or in the store when it is younger than the TTL
    // (and no refresh is forced), otherwise the whole model list fetched anew and stored. Throws
    // the TranscriptionError of a failed fetch; the last snapshot stays as it was then.
    [[nodiscard]] CatalogSnapshot snapshot(bool forceRefresh,
                                           const TranscriptionControl* control = nullptr);
    // The last snapshot known, fresh or not, without any request.
    [[nodiscard]] std::optional<CatalogSnapshot> cached();

private:
    OpenRouterClient client_;
    SettingsStore* defaults_;
    std::function<double()> now_;
    double ttl_;
    std::mutex lock_;
    std::optional<CatalogSnapshot> cached_;  // guarded by lock_
    bool loaded_ = false;                    // guarded by lock_
};

}  // namespace tessarin::engine
