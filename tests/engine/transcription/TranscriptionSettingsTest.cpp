// Consent by notice version, the key field's rule, and how audio is planned into chunks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "engine/settings/SettingsStore.hpp"
#include "engine/transcription/AudioChunk.hpp"
#include "engine/transcription/OpenRouterKeyStore.hpp"
#include "engine/transcription/TranscriptionConsent.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

using Kind = TranscriptionConsentKind;
using Route = TranscriptionRoute;

TEST(TranscriptionConsentStore, EachKindIsGrantedByTheCurrentNoticeVersionOnly) {
    const test::TempDir folder;
    SettingsStore defaults(folder / "settings.json");
    TranscriptionConsentStore consent(defaults, /*noticeVersion=*/2);
    EXPECT_EQ(consent.answer(Route::stt), TranscriptionConsent::denied(Kind::audioUpload));
    EXPECT_EQ(consent.answer(Route::videoChat), TranscriptionConsent::denied(Kind::videoUpload));

    consent.grant(Kind::audioUpload, 1'700'000'000.5);
    EXPECT_TRUE(consent.answer(Route::stt).granted);
    EXPECT_TRUE(consent.answer(Route::audioChat).granted);
    EXPECT_EQ(consent.answer(Route::videoChat), TranscriptionConsent::denied(Kind::videoUpload));
    // What was approved outlives the process: a fresh store over the same file agrees.
    SettingsStore reread(folder / "settings.json");
    EXPECT_EQ(reread.integerValue(TranscriptionConsentStore::kAudioVersionKey), 2);
    EXPECT_EQ(reread.doubleValue(TranscriptionConsentStore::kAudioGrantedAtKey), 1'700'000'000.5);

    // A later notice asks again; an earlier approval doesn't count.
    EXPECT_FALSE(TranscriptionConsentStore(reread, 3).isGranted(Kind::audioUpload));

    consent.grant(Kind::videoUpload, 5);
    consent.withdraw(Kind::audioUpload);
    EXPECT_FALSE(defaults.contains(TranscriptionConsentStore::kAudioVersionKey));
    EXPECT_FALSE(defaults.contains(TranscriptionConsentStore::kAudioGrantedAtKey));
    EXPECT_TRUE(consent.isGranted(Kind::videoUpload));
}

TEST(ConsentNotice, SaysWhatGoesWhereInTheWordsOfEachKind) {
    const ConsentNotice audio = ConsentNotice::of(Kind::audioUpload);
    EXPECT_EQ(audio.title, "Send audio to OpenRouter?");
    ASSERT_EQ(audio.paragraphs.size(), 5u);
    EXPECT_THAT(audio.paragraphs[0], ::testing::StartsWith("Tessarin extracts the audio from your "
                                                           "video on this computer"));
    const ConsentNotice video = ConsentNotice::of(Kind::videoUpload);
    EXPECT_EQ(video.title, "Send this video to OpenRouter?");
    EXPECT_THAT(video.plainText(), ::testing::HasSubstr("the whole video file — picture and sound"));
    EXPECT_EQ(audio.paragraphs.back(), video.paragraphs.back());
    EXPECT_THAT(video.plainText(), ::testing::Not(::testing::HasSubstr("Mac")));
}

TEST(SaveKeyField, AnEmptyFieldRemovesAReadableKeyButNeverAnUnreadableOne) {
    InMemoryOpenRouterKeyStore store("sk-old");
    EXPECT_EQ(saveKeyField(store, "\t sk-new \n"), TranscriptionKeyPresence::present);
    EXPECT_EQ(store.read().key, "sk-new");
    EXPECT_EQ(saveKeyField(store, ""), TranscriptionKeyPresence::absent);
    EXPECT_EQ(store.read().presence, TranscriptionKeyPresence::absent);

    InMemoryOpenRouterKeyStore locked("sk-kept", /*readable=*/false);
    EXPECT_EQ(saveKeyField(locked, "  "), TranscriptionKeyPresence::unreadable);
    locked.setReadable(true);
    EXPECT_EQ(locked.read().key, "sk-kept");
    locked.setReadable(false);
    EXPECT_THROW(saveKeyField(locked, "sk-other"), OpenRouterKeySaveError);
}

TEST(AudioChunk, PlansOverlappingChunksWithinTheLimits) {
    const auto starts = [](const std::vector<AudioChunk>& chunks) {
        std::vector<double> values;
        for (const AudioChunk& chunk : chunks) {
            values.push_back(chunk.start);
        }
        return values;
    };
    const std::vector<AudioChunk> long_ = AudioChunk::plan(2400, 1200, 2);
    EXPECT_EQ(starts(long_), (std::vector<double>{0, 1198, 2396}));
    EXPECT_DOUBLE_EQ(long_.back().duration, 4);
    EXPECT_EQ(AudioChunk::plan(1200, 1200, 2), (std::vector<AudioChunk>{{0, 0, 1200}}));
    EXPECT_TRUE(AudioChunk::plan(86'401, 1200, 2).empty());
    EXPECT_TRUE(AudioChunk::plan(std::nullopt, 1200, 2).empty());
    EXPECT_TRUE(AudioChunk::plan(0, 1200, 2).empty());
    // An overlap above half a chunk advances by half a chunk.
    EXPECT_EQ(starts(AudioChunk::plan(25, 10, 8)), (std::vector<double>{0, 5, 10, 15}));
}

TEST(SpeechAudioPlan, FollowsTheModel) {
    const TranscriptionOptions plain;
    TranscriptionOptions subtitles;
    subtitles.format = TranscriptFormat::srt;
    const SpeechAudioPlan mai2 = SpeechAudioPlan::of("Microsoft/MAI-Transcribe-2", Route::stt, plain);
    EXPECT_TRUE(mai2.dedicated);
    EXPECT_EQ(mai2.format, "flac");
    EXPECT_EQ(mai2.chunkSeconds, 30);
    const SpeechAudioPlan muse = SpeechAudioPlan::of("meta/muse-voice-transcribe-1.0", Route::stt, plain);
    EXPECT_EQ(muse.format, "wav");
    EXPECT_EQ(muse.chunkSeconds, 300);
    EXPECT_EQ(SpeechAudioPlan::of("microsoft/mai-transcribe-1.5", Route::stt, subtitles).chunkSeconds, 60);
    const SpeechAudioPlan chat = SpeechAudioPlan::of("google/gemini-3.6-flash", Route::audioChat, plain);
    EXPECT_FALSE(chat.dedicated);
    EXPECT_EQ(chat.format, "m4a");
    EXPECT_EQ(chat.chunkSeconds, 1200);
    EXPECT_EQ(videoMimeType("talk.MOV"), "video/quicktime");
    EXPECT_EQ(videoMimeType("talk.mkv"), "video/x-matroska");
    EXPECT_EQ(videoMimeType("talk"), "video/mp4");
}

}  // namespace
}  // namespace tessarin::engine
