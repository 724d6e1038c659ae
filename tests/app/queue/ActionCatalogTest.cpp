#include <gtest/gtest.h>

#include <vector>

#include "app/queue/ActionCatalog.hpp"
#include "app/queue/ErrorRedaction.hpp"

namespace tessarin::app {
namespace {

engine::Preset customNamed(std::string id, std::string name) {
    engine::Preset preset = engine::Preset::mp4H264();
    preset.id = std::move(id);
    preset.displayName = std::move(name);
    return preset;
}

TEST(ActionCatalog, ChipsFollowTheIdNotTheName) {
    engine::Preset edited = engine::Preset::mp4H264();
    edited.displayName = "My everyday MP4";
    const std::vector<engine::Preset> presets{edited, engine::Preset::webmVP9(),
                                              customNamed("custom-1", "H.264")};
    const std::vector<ActionDescriptor> chips = catalog(presets, {});
    ASSERT_EQ(chips.size(), 7U);
    EXPECT_EQ(chips[0].chipName, "H.264");
    EXPECT_EQ(chips[0].help,
              "My everyday MP4. Recommended for screen recordings, uploads, and everyday sharing");
    EXPECT_EQ(chips[1].chipName, engine::Preset::webmVP9().displayName);
    EXPECT_EQ(chips[2].id, ActionID::preset("custom-1"));
    EXPECT_EQ(chips[2].chipName, "H.264");
    EXPECT_EQ(chips[2].rowSubtitle, "H.264");
    EXPECT_EQ(chips[3].id, ActionID::extractAudio());
    EXPECT_EQ(chips[3].rowSubtitle, "Audio · Extract to M4A (AAC)");
}

TEST(ActionCatalog, DisabledReasonsComeFromWhatTheMachineCanRun) {
    const std::vector<engine::Preset> presets{engine::Preset::mp4H265(),
                                              engine::Preset::mp4H264Hardware()};
    ActionAvailability none;
    const std::vector<ActionDescriptor> chips = catalog(presets, none);
    EXPECT_TRUE(chips[0].disabledReason);
    EXPECT_EQ(chips[1].disabledReason, engine::kNoHardwareEncoderSentence);
    EXPECT_EQ(chips[4].id, ActionID::transcribe());
    EXPECT_EQ(chips[4].disabledReason, kNoTranscriptionModelSentence);

    ActionAvailability able;
    able.encoderPolicy.softwareHEVC = engine::SoftwareHEVCSource::privateBundled;
    able.transcriptionModelUsable = true;
    able.framesAvailable = true;
    const std::vector<ActionDescriptor> enabled = catalog(presets, able);
    EXPECT_FALSE(enabled[0].disabledReason);
    EXPECT_FALSE(enabled[4].disabledReason);
    EXPECT_FALSE(enabled[5].disabledReason);
}

TEST(ActionCatalog, TooltipNamesTheStagedVideos) {
    ActionDescriptor chip = fixedDescriptor(ActionID::Kind::extractAudio, {});
    const std::string plain = "Extract the audio track as an M4A (AAC) file";
    EXPECT_EQ(help(chip, true, 0), plain);
    EXPECT_EQ(help(chip, true, 1), plain + ". Chosen for the 1 video waiting for an action");
    EXPECT_EQ(help(chip, true, 3), plain + ". Chosen for the 3 videos waiting for an action");
    EXPECT_EQ(help(chip, false, 3), plain + ". Applies to the videos waiting for an action");
    chip.disabledReason = "No.";
    EXPECT_EQ(help(chip, true, 3), plain);
}

TEST(ActionCatalog, LogTokensAndJobKinds) {
    EXPECT_EQ(logToken(ActionID::preset("gif-full")), "gif-full");
    EXPECT_EQ(logToken(ActionID::extractAudio()), "action.extract-audio");
    EXPECT_EQ(logToken(ActionID::fastCut()), "action.fast-cut");
    EXPECT_EQ(logToken(ActionID::transcribe()), "action.transcribe");
    EXPECT_EQ(logToken(ActionID::frames()), "action.frames");

    const engine::Trim trim{"1", "2.5"};
    const std::optional<JobKind> convert =
        jobKind(ActionID::preset("mp4-h264"), engine::Preset::mp4H264(), trim);
    ASSERT_TRUE(convert);
    EXPECT_EQ(convert->preset()->options.trim, trim);
    EXPECT_EQ(runningLabel(*convert), "Converting");
    EXPECT_FALSE(jobKind(ActionID::preset("gone"), std::nullopt, {}));
    const std::optional<JobKind> audio = jobKind(ActionID::extractAudio(), std::nullopt, trim);
    ASSERT_TRUE(audio);
    EXPECT_EQ(std::get<JobKind::ExtractAudio>(audio->value).options.trim, trim);
    EXPECT_EQ(doneLabel(*audio), "Extracted");
    EXPECT_EQ(failedNotificationTitle(*audio), "Conversion failed");

    const JobKind transcribe{JobKind::Transcribe{}};
    EXPECT_EQ(finishedNotificationTitle(transcribe), "Transcription finished");
    EXPECT_EQ(failedNotificationTitle(transcribe), "Transcription failed");
    EXPECT_EQ(failedNotificationTitle(JobKind{JobKind::Frames{}}), "Frame export failed");
}

TEST(ErrorRedaction, PathsAndTheSourceNameNeverSurvive) {
    EXPECT_EQ(redactFailureText("/home/ann/My Films/x.mov: Invalid data", "x.mov"),
              "<path>: Invalid data");
    EXPECT_EQ(redactFailureText("Error opening 'holiday.mov' (see ~/log)", "holiday.mov"),
              "Error opening '<path>' (see <path>");
    EXPECT_EQ(redactFailureText("ratio 3/4 kept", ""), "ratio 3/4 kept");
    const std::string longText = std::string(700, 'a') + "\nlast line";
    EXPECT_EQ(redactFailureText(longText, ""), "last line");
    EXPECT_EQ(loggableExtension("Clip.MOV"), "mov");
    EXPECT_EQ(loggableExtension("secret-name.private"), "other");
    EXPECT_EQ(loggableExtension("noextension"), "other");
}

}  // namespace
}  // namespace tessarin::app
