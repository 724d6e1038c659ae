// Intake tokens: signing, single use, purging, and the refusal of anything altered.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "engine/intake/IntakeTokenStore.hpp"

namespace tessarin::engine {
namespace {

constexpr IntakeTokenStore::Key kKey{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                     17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};

TEST(IntakeToken, FingerprintIsFnv1aOfTheSortedPathsJoinedByNul) {
    // The offset basis for nothing, and the published FNV-1a 64 value of "a".
    EXPECT_EQ(fingerprint({}), "CBF29CE484222325");
    EXPECT_EQ(fingerprint({"a"}), "AF63DC4C8601EC8C");
    EXPECT_EQ(fingerprint({"/b", "/a"}), fingerprint({"/a", "/b"}));
    // The NUL separator keeps "ab" apart from "a" + "b".
    EXPECT_NE(fingerprint({"a", "b"}), fingerprint({"ab"}));
}

TEST(IntakeToken, SigningMessageCountsEveryField) {
    IntakeToken token;
    token.nonce = "N";
    token.presetID = "p";
    token.fileCount = 1;
    token.handoffFiles = {"/f"};
    token.authenticationVersion = 1;
    const std::string message = signingMessage(token);
    ASSERT_GE(message.size(), 26U);
    EXPECT_EQ(message.substr(0, 22), std::string("tessarin-intake-claim\0", 22));
    EXPECT_EQ(message.substr(22, 4), std::string("\0\0\0\1", 4));
    // label 22, version 4, nonce 8+1, createdAt 8, preset 8+1, count 8, kind 8+7, print 8+0,
    // file count 4, one file 8+2.
    EXPECT_EQ(message.size(), 22U + 4 + 9 + 8 + 9 + 8 + 15 + 8 + 4 + 10);
    // Moving a byte from one field to the next changes the message.
    IntakeToken shifted = token;
    shifted.nonce = "Np";
    shifted.presetID = "";
    EXPECT_NE(signingMessage(shifted), message);
}

TEST(IntakeTokenStore, ATokenIsConsumedOnceAndKeepsWhatWasMinted) {
    IntakeTokenStore store(kKey);
    const auto nonce = store.mint("mp4-h264", IntakeActionKind::convert, 2, {"/v/b.mp4", "/v/a.mp4"});
    ASSERT_TRUE(nonce);
    const std::optional<IntakeToken> token = store.consume(*nonce);
    ASSERT_TRUE(token);
    EXPECT_EQ(token->presetID, "mp4-h264");
    EXPECT_EQ(token->fileCount, 2);
    EXPECT_EQ(token->handoffFiles, (std::vector<std::string>{"/v/b.mp4", "/v/a.mp4"}));
    EXPECT_EQ(token->filesFingerprint, fingerprint({"/v/a.mp4", "/v/b.mp4"}));
    EXPECT_NEAR(token->createdAt, IntakeTokenStore::systemNow(), 5.0);
    EXPECT_FALSE(store.consume(*nonce));
}

TEST(IntakeTokenStore, MintRefusesCountsOutsideTheBoundsAndAStoreWithoutKey) {
    IntakeTokenStore store(kKey);
    EXPECT_FALSE(store.mint("x", IntakeActionKind::convert, 0, {}));
    EXPECT_FALSE(store.mint("x", IntakeActionKind::convert, 501, {}));
    EXPECT_FALSE(store.mint("x", IntakeActionKind::convert, 2, {"/a", "/b", "/c"}));
    EXPECT_TRUE(store.mint("", IntakeActionKind::transcribe, 500, {}));
    IntakeTokenStore keyless(std::nullopt);
    EXPECT_FALSE(keyless.mint("x", IntakeActionKind::convert, 1, {"/a"}));
}

TEST(IntakeTokenStore, ImplausibleNoncesNeverReachTheStore) {
    IntakeTokenStore store(kKey);
    IntakeToken token;
    token.nonce = std::string(65, 'a');
    token.authenticationVersion = 1;
    token.authenticationTag = *store.tag(token);
    store.store(token);
    token.nonce = "ab/cd";
    token.authenticationTag = *store.tag(token);
    store.store(token);
    EXPECT_FALSE(store.consume(std::string(65, 'a')));
    EXPECT_FALSE(store.consume("ab/cd"));
    EXPECT_FALSE(store.consume(""));
    // Not looked up, so not spent either.
    EXPECT_EQ(store.size(), 2U);
}

TEST(IntakeTokenStore, ATagOfAnotherKeyFailsAndSpendsTheClaim) {
    IntakeTokenStore other(IntakeTokenStore::Key{9});
    IntakeTokenStore store(kKey);
    const auto nonce = other.mint("p", IntakeActionKind::convert, 1, {"/a"});
    IntakeToken token = *other.consume(*nonce);
    store.store(token);
    EXPECT_FALSE(store.consume(token.nonce));
    EXPECT_EQ(store.size(), 0U);
}

TEST(IntakeTokenStore, ChangingAnySignedFieldFailsVerification) {
    IntakeTokenStore store(kKey);
    const std::vector<std::pair<const char*, std::function<void(IntakeToken&)>>> mutations{
        {"createdAt", [](IntakeToken& t) { t.createdAt += 1e-6; }},
        {"presetID", [](IntakeToken& t) { t.presetID = "gif-full"; }},
        {"fileCount", [](IntakeToken& t) { t.fileCount = 1; }},
        {"actionKind", [](IntakeToken& t) { t.actionKind = IntakeActionKind::transcribe; }},
        {"handoffFiles", [](IntakeToken& t) { t.handoffFiles[1] = "/etc/shadow"; }},
        {"filesFingerprint", [](IntakeToken& t) { t.filesFingerprint = "0"; }},
        {"version", [](IntakeToken& t) { t.authenticationVersion = 2; }},
        {"tag", [](IntakeToken& t) { t.authenticationTag[0] = t.authenticationTag[0] == 'A' ? 'B' : 'A'; }},
        {"tag not base64", [](IntakeToken& t) { t.authenticationTag = "***"; }},
    };
    for (const auto& [field, mutate] : mutations) {
        const auto nonce = store.mint("mp4-h264", IntakeActionKind::convert, 2, {"/a.mp4", "/b.mp4"});
        // Take the genuine claim out, alter it, put it back under its nonce.
        IntakeToken token = *store.consume(*nonce);
        mutate(token);
        store.store(token);
        EXPECT_FALSE(store.consume(*nonce)) << field;
    }
    const auto nonce = store.mint("mp4-h264", IntakeActionKind::convert, 2, {"/a.mp4", "/b.mp4"});
    IntakeToken token = *store.consume(*nonce);
    store.store(token);
    EXPECT_TRUE(store.consume(*nonce)) << "an unaltered claim put back still verifies";
}

TEST(IntakeTokenStore, ClaimsOlderThanThirtySecondsArePurged) {
    std::atomic<double> now = 1'000'000.0;
    IntakeTokenStore store(kKey, [&now] { return now.load(); }, std::chrono::milliseconds(20));
    ASSERT_TRUE(store.mint("p", IntakeActionKind::convert, 1, {"/a"}));
    now = now + 30.0;
    EXPECT_EQ(store.purgeExpired(now), 0U);
    now = now + 1.0;  // the first is 31 s old now
    const auto young = store.mint("p", IntakeActionKind::convert, 1, {"/a"});
    // The purge scheduled by the second mint runs on the store's own thread.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (store.size() != 1 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(store.size(), 1U);
    EXPECT_TRUE(store.consume(*young));
}

TEST(Base64, RoundTripsAndRefusesNonCanonicalText) {
    for (const std::string& bytes : std::vector<std::string>{"", "f", "fo", "foo", "foob",
                                                            std::string("\0\xff\x10", 3)}) {
        EXPECT_EQ(base64Decode(base64Encode(bytes)), bytes);
    }
    EXPECT_EQ(base64Encode("foob"), "Zm9vYg==");
    EXPECT_FALSE(base64Decode("Zm9vYh=="));  // bits under the padding
    EXPECT_FALSE(base64Decode("Zm9=vYg="));
    EXPECT_FALSE(base64Decode("Zm9vY"));
    EXPECT_FALSE(base64Decode("Zm9v\nYg=="));
}

}  // namespace
}  // namespace tessarin::engine
