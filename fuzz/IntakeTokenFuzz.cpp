// Intake tokens altered by someone who knows the format but not the key: a claim whose JSON was
// edited verifies exactly when the edit left every field as it was.
//
// The input is a list of edits, two bytes each (a position and a byte), applied to the JSON of
// a genuine claim.

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "engine/intake/IntakeTokenStore.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using namespace tessarin::engine;
using tessarin::fuzz::require;

IntakeTokenStore& store() {
    static IntakeTokenStore instance(IntakeTokenStore::Key{42, 7}, [] { return 1'800'000'000.5; },
                                     std::chrono::hours(1));
    return instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const auto nonce = store().mint("mp4-h264", IntakeActionKind::convert, 2,
                                    {"/videos/a.mov", "/videos/b.mkv"});
    require(nonce.has_value(), "a store with a key mints");
    const IntakeToken genuine = *store().consume(*nonce);
    std::string text = nlohmann::json(genuine).dump();
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        text[data[i] % text.size()] = static_cast<char>(data[i + 1]);
    }
    const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        return 0;
    }
    IntakeToken edited;
    try {
        edited = json.get<IntakeToken>();
        (void)signingMessage(edited);
    } catch (const std::exception&) {
        return 0;
    }
    store().store(edited);
    const std::optional<IntakeToken> verified = store().consume(edited.nonce);
    require(verified.has_value() == (edited == genuine),
            "a claim verifies exactly when it is the genuine one");
    // Whatever happened, the claim is spent.
    require(!store().consume(edited.nonce), "a nonce is spent by its first use");
    (void)store().purgeExpired(0);
    return 0;
}
