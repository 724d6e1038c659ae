// The model catalog's day-long cache, routes and prices; the roster of candidate models; and the
// account of what a run cost.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/settings/SettingsStore.hpp"
#include "engine/transcription/OpenRouterCatalog.hpp"
#include "engine/transcription/TranscriptionAccounting.hpp"
#include "engine/transcription/TranscriptionRoster.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

using ::testing::ElementsAre;
using Kind = ActiveModelResolution::Kind;

// Serves one model list and counts how often it was asked.
class ModelListTransport final : public OpenRouterTransport {
public:
    OpenRouterResponse send(const OpenRouterRequest& request, const TranscriptionControl*) override {
        ++calls;
        EXPECT_EQ(request.path, "/api/v1/models");
        EXPECT_FALSE(request.apiKey.has_value());
        if (failing) {
            throw TranscriptionError(TranscriptionError::Code::network);
        }
        return {200, body, std::nullopt, std::nullopt};
    }
    int calls = 0;
    bool failing = false;
    std::string body = R"({"data":[
      {"id":"microsoft/mai-transcribe-2","name":"MAI-Transcribe 2",
       "architecture":{"input_modalities":["audio"],"output_modalities":["transcription"]},
       "pricing":{"audio_per_minute":"0.006"}},
      {"id":"google/gemini-3.6-flash","architecture":{"input_modalities":["text","audio","video"],
       "output_modalities":["text"]},"pricing":{"prompt":"0.0000003","completion":"0.0000025"}},
      {"id":"vendor/video-only","architecture":{"input_modalities":["video"]},"pricing":{"request":"0.01"}},
      {"id":"vendor/text-only","architecture":{"input_modalities":["text"]}}]})";
};

struct CatalogHarness {
    CatalogHarness()
        : store(folder / "settings.json"),
          transport(std::make_shared<ModelListTransport>()),
          catalog(OpenRouterClient(transport, {1, 0, 0, 0}), store, [this] { return now; }) {}
    test::TempDir folder;
    SettingsStore store;
    std::shared_ptr<ModelListTransport> transport;
    double now = 1'000'000;
    OpenRouterCatalog catalog;
};

TEST(OpenRouterCatalog, ASnapshotServesForADayFromMemoryAndDisk) {
    CatalogHarness harness;
    const CatalogSnapshot first = harness.catalog.snapshot(false);
    EXPECT_EQ(first.entries.size(), 4u);
    harness.now += OpenRouterCatalog::kTTL - 1;
    (void)harness.catalog.snapshot(false);
    EXPECT_EQ(harness.transport->calls, 1);

    // Another catalog over the same store finds the stored snapshot.
    OpenRouterCatalog again(OpenRouterClient(harness.transport), harness.store,
                            [&] { return harness.now; });
    EXPECT_EQ(again.snapshot(false).entries, first.entries);
    EXPECT_EQ(harness.transport->calls, 1);

    harness.now = first.fetchedAt + OpenRouterCatalog::kTTL;  // exactly a day old: stale
    (void)harness.catalog.snapshot(false);
    EXPECT_EQ(harness.transport->calls, 2);
    (void)harness.catalog.snapshot(true);
    EXPECT_EQ(harness.transport->calls, 3);

    // A failed refresh throws and leaves the last snapshot.
    harness.transport->failing = true;
    harness.now += 2 * OpenRouterCatalog::kTTL;
    EXPECT_THROW((void)harness.catalog.snapshot(false), TranscriptionError);
    ASSERT_TRUE(harness.catalog.cached().has_value());
    EXPECT_EQ(harness.catalog.cached()->entries.size(), 4u);

    // Undecodable stored data counts as none.
    harness.store.setData(OpenRouterCatalog::kSettingsKey, R"({"fetchedAt":"yesterday"})");
    OpenRouterCatalog broken(OpenRouterClient(harness.transport), harness.store);
    EXPECT_EQ(broken.cached(), std::nullopt);
}

TEST(OpenRouterCatalog, RoutesAndPricesComeFromTheListedFacts) {
    CatalogHarness harness;
    const CatalogSnapshot snapshot = harness.catalog.snapshot(false);
    std::vector<std::string> routes;
    std::vector<std::string> prices;
    for (const CatalogEntry& entry : snapshot.entries) {
        routes.emplace_back(rawValue(route(entry)));
        prices.push_back(pricingText(pricingOf(entry)));
    }
    EXPECT_THAT(routes, ElementsAre("stt", "audioChat", "videoChat", "unsupported"));
    EXPECT_THAT(prices,
                ElementsAre("$0.006 per minute of audio", "$0.30 in / $2.50 out per 1M tokens",
                            "$0.01 per unit — this model doesn’t publish what its price is "
                            "measured in, so no cost estimate is shown.",
                            "Pricing unavailable"));
    EXPECT_EQ(routeDescription(std::nullopt),
              "Not in the fetched model list yet — refresh the list to classify it.");
}

TEST(TranscriptionRoster, SeededModelsStayUserModelsComeAndGo) {
    CatalogHarness harness;
    TranscriptionRoster roster(harness.store);
    ASSERT_EQ(roster.roster().size(), kSeededModels.size());
    EXPECT_EQ(roster.roster().front().id, kDefaultModel);

    const CatalogSnapshot catalog = harness.catalog.snapshot(false);
    EXPECT_EQ(roster.addModel("vendor/video-only", std::nullopt),
              "The model list couldn’t be checked, so this ID can’t be verified yet. Refresh the "
              "list and try again.");
    EXPECT_EQ(roster.addModel("MICROSOFT/mai-transcribe-2", catalog),
              "That model is already in the list.");
    EXPECT_EQ(roster.addModel("vendor/text-only", catalog),
              "That model doesn’t accept audio or video, so it can’t transcribe.");
    EXPECT_THAT(*roster.addModel("vendor/unknown", catalog),
                ::testing::StartsWith("OpenRouter doesn’t list a model with that ID."));
    EXPECT_TRUE(roster.addModel("vendor/bad:free", catalog).has_value());
    EXPECT_EQ(roster.addModel("  vendor/video-only\n", catalog), std::nullopt);
    EXPECT_EQ(roster.roster().back(),
              (TranscriptionRosterEntry{"vendor/video-only", true,
                                        TranscriptionRosterOrigin::userAdded}));

    EXPECT_FALSE(roster.remove(kDefaultModel));  // seeded: only switched off
    EXPECT_TRUE(roster.setEnabled(std::string(kDefaultModel), false));
    EXPECT_TRUE(roster.remove("vendor/video-only"));
    EXPECT_EQ(roster.addModel("vendor/video-only", catalog), std::nullopt);

    roster.restoreDefaults();
    const auto restored = roster.roster();
    EXPECT_TRUE(restored.front().enabled);
    EXPECT_EQ(restored.back().id, "vendor/video-only");
    EXPECT_EQ(restored.size(), kSeededModels.size() + 1);
}

TEST(TranscriptionRoster, TheActiveModelFallsBackToTheFirstUsableOne) {
    CatalogHarness harness;
    TranscriptionRoster roster(harness.store);
    const CatalogSnapshot catalog = harness.catalog.snapshot(false);
    EXPECT_EQ(roster.resolveActive(catalog).kind, Kind::active);
    EXPECT_EQ(roster.resolveActive(catalog).id, kDefaultModel);

    roster.setActiveModel("google/gemini-3.6-flash");
    EXPECT_EQ(roster.resolveActive(catalog).id, "google/gemini-3.6-flash");
    (void)roster.setEnabled("google/gemini-3.6-flash", false);
    const ActiveModelResolution fellBack = roster.resolveActive(catalog);
    EXPECT_EQ(fellBack.kind, Kind::fellBack);
    EXPECT_EQ(fellBack.id, kDefaultModel);
    EXPECT_EQ(fellBack.from, "google/gemini-3.6-flash");

    (void)roster.setEnabled(std::string(kDefaultModel), false);
    // Nothing else of the seeded list is in this catalog, so nothing can transcribe.
    EXPECT_EQ(roster.resolveActive(catalog).kind, Kind::none);
}

OpenRouterResponse attempt(long status, std::string body, std::optional<std::string> id = {}) {
    return {status, std::move(body), std::nullopt, std::move(id)};
}

TEST(TranscriptionAccounting, EveryAttemptCountsAndTheSummarySaysWhatIsKnown) {
    TranscriptionAccounting accounting;
    EXPECT_TRUE(accounting.summaryLines().empty());
    accounting.estimatedUSD =
        TranscriptionAccounting::estimate(Pricing{PricingUnit::perMinute, 0.006, {}}, 90);
    const OpenRouterResponse failed = attempt(500, "", "gen-1");
    const OpenRouterResponse noCost = attempt(429, R"({"error":{}})", "gen-1");
    const OpenRouterResponse paid = attempt(
        200, R"({"text":"x","usage":{"cost":0.0123,"seconds":61.5},"language":"en"})",
        std::string(129, 'g'));
    accounting.record(&failed);
    accounting.record(nullptr);
    accounting.record(&noCost);
    accounting.record(&paid, 60.0);
    EXPECT_EQ(accounting.reportedUSD, 0.0123);
    EXPECT_EQ(accounting.unreportedAttempts, 3);
    EXPECT_THAT(accounting.generationIDs, ElementsAre("gen-1"));  // 129 characters: not kept
    EXPECT_EQ(accounting.durationMismatchCount, 1);
    EXPECT_THAT(accounting.summaryLines(),
                ElementsAre("Estimated 0.009", "Reported 0.0123; 3 attempts with unreported cost",
                            ::testing::StartsWith("USD. Estimate includes chunk overlap"),
                            "Provider-reported audio across successful attempts: 61.50 seconds.",
                            "Detected languages: en", "Generation IDs:\ngen-1"));
    EXPECT_EQ(accounting.durationWarning(),
              "The provider reported a different audio duration for 1 part. Review the transcript "
              "against the recording; this does not necessarily mean speech is missing.");
    EXPECT_EQ(TranscriptionAccounting::estimate(Pricing{PricingUnit::unknown, 1, {}}, 60),
              std::nullopt);
}

}  // namespace
}  // namespace tessarin::engine
