#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <string>

#include "engine/encoders/ExternalSoftwareHEVCValidator.hpp"
#include "engine/process/ProcessRunner.hpp"
#include "tests/engine/encoders/EncodersTestSupport.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using Error = ExternalSoftwareHEVCValidationError;
using Kind = Error::Kind;
using test::healthyBehaviour;
using test::installFakeTool;
using test::ScratchFolder;
using test::setBehaviour;

// Runs `action` and returns the validation error it throws; fails the test if none.
Error thrownBy(const std::function<void()>& action) {
    try {
        action();
    } catch (const Error& error) {
        return error;
    }
    ADD_FAILURE() << "no ExternalSoftwareHEVCValidationError was thrown";
    return Error::identityChanged();
}

std::string sha256sum(const fs::path& file) {
    ProcessRunner runner;
    const ProcessResult result = runner.run("/usr/bin/sha256sum", {file.string()}, true);
    EXPECT_EQ(result.exitCode, 0);
    return result.stdoutData.value_or("").substr(0, 64);
}

void flipOneByte(const fs::path& file, std::streamoff offset) {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekg(offset);
    const char original = static_cast<char>(stream.get());
    stream.seekp(offset);
    stream.put(static_cast<char>(original ^ 0x01));
    ASSERT_TRUE(stream.good());
}

class ExternalSoftwareHEVCValidatorTest : public ::testing::Test {
protected:
    // A healthy fake pair in `folder`; returns the folder.
    fs::path healthyPair() {
        installFakeTool(folder(), "ffmpeg", healthyBehaviour("ffmpeg"));
        installFakeTool(folder(), "ffprobe", healthyBehaviour("ffprobe"));
        return folder();
    }
    const fs::path& folder() const { return scratch.path(); }

    ScratchFolder scratch;
    ExternalSoftwareHEVCValidator validator;
};

TEST_F(ExternalSoftwareHEVCValidatorTest, RealToolsThroughLinksStoreTheResolvedFiles) {
    // Two levels of links: ours to the helper folder's, which lead to the distribution's.
    fs::create_symlink(test::helperTool("ffmpeg"), folder() / "ffmpeg");
    fs::create_symlink(test::helperTool("ffprobe"), folder() / "ffprobe");

    const ExternalSoftwareHEVCToolchain identity = validator.validate(folder());

    const fs::path realFFmpeg = fs::canonical(test::helperTool("ffmpeg"));
    const fs::path realFFprobe = fs::canonical(test::helperTool("ffprobe"));
    EXPECT_EQ(identity.selectedDirectoryPath, folder().string());
    EXPECT_EQ(identity.ffmpeg.resolvedPath, realFFmpeg.string());
    EXPECT_EQ(identity.ffprobe.resolvedPath, realFFprobe.string());
    EXPECT_NE(identity.ffmpeg.resolvedPath, (folder() / "ffmpeg").string());
    EXPECT_EQ(identity.ffmpeg.sha256, sha256sum(realFFmpeg));
    EXPECT_EQ(identity.ffprobe.sha256, sha256sum(realFFprobe));
    EXPECT_FALSE(identity.ffmpeg.version.empty());
    EXPECT_EQ(identity.ffmpeg.version, identity.ffprobe.version);

    validator.revalidate(identity);
}

TEST_F(ExternalSoftwareHEVCValidatorTest, TwoLinksToOneBinaryAreDuplicates) {
    fs::create_symlink(test::helperTool("ffmpeg"), folder() / "ffmpeg");
    fs::create_symlink(test::helperTool("ffmpeg"), folder() / "ffprobe");
    EXPECT_EQ(thrownBy([&] { (void)validator.validate(folder()); }).kind(),
              Kind::duplicateExecutables);

    // A hard link is the same file under another name.
    ScratchFolder other;
    const fs::path ffmpeg = installFakeTool(other.path(), "ffmpeg", healthyBehaviour("ffmpeg"));
    fs::create_hard_link(ffmpeg, other.path() / "ffprobe");
    const Error error = thrownBy([&] { (void)validator.validate(other.path()); });
    EXPECT_EQ(error.kind(), Kind::duplicateExecutables);
    EXPECT_STREQ(error.what(), "ffmpeg and ffprobe resolve to the same file.");
}

TEST_F(ExternalSoftwareHEVCValidatorTest, InspectionRefusesWhatIsNotANativeExecutableFile) {
    struct Row {
        const char* label;
        std::function<void(const fs::path& ffmpeg)> prepare;  // ffmpeg is folder/ffmpeg
        Kind kind;
        const char* sentence;
    };
    const Row rows[] = {
        {"missing", [](const fs::path&) {}, Kind::missingExecutable,
         "The selected folder does not contain ffmpeg."},
        {"dangling link",
         [](const fs::path& ffmpeg) { fs::create_symlink(ffmpeg.parent_path() / "gone", ffmpeg); },
         Kind::notRegularFile, "ffmpeg does not resolve to a regular file."},
        {"directory", [](const fs::path& ffmpeg) { fs::create_directory(ffmpeg); },
         Kind::notRegularFile, "ffmpeg does not resolve to a regular file."},
        {"not executable",
         [](const fs::path& ffmpeg) {
             installFakeTool(ffmpeg.parent_path(), "ffmpeg", healthyBehaviour("ffmpeg"));
             fs::permissions(ffmpeg, fs::perms(0644));
         },
         Kind::notExecutable, "ffmpeg is not executable."},
        {"shell script",
         [](const fs::path& ffmpeg) {
             std::ofstream(ffmpeg) << "#!/bin/sh\necho 'ffmpeg version 6.1.1'\n";
             fs::permissions(ffmpeg, fs::perms(0755));
         },
         Kind::unsupportedExecutable, "ffmpeg is not a native executable for this computer."},
        {"ELF for another machine",
         [](const fs::path& ffmpeg) {
             installFakeTool(ffmpeg.parent_path(), "ffmpeg", healthyBehaviour("ffmpeg"));
             flipOneByte(ffmpeg, 18);  // e_machine
         },
         Kind::unsupportedExecutable, "ffmpeg is not a native executable for this computer."},
        {"empty file",
         [](const fs::path& ffmpeg) {
             std::ofstream{ffmpeg};
             fs::permissions(ffmpeg, fs::perms(0755));
         },
         Kind::unsupportedExecutable, "ffmpeg is not a native executable for this computer."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.label);
        ScratchFolder scratchForRow;
        installFakeTool(scratchForRow.path(), "ffprobe", healthyBehaviour("ffprobe"));
        row.prepare(scratchForRow.path() / "ffmpeg");
        const Error error = thrownBy([&] { (void)validator.validate(scratchForRow.path()); });
        EXPECT_EQ(error.kind(), row.kind);
        EXPECT_STREQ(error.what(), row.sentence);
    }
}

TEST_F(ExternalSoftwareHEVCValidatorTest, FfprobeIsInspectedAfterFfmpeg) {
    installFakeTool(folder(), "ffmpeg", healthyBehaviour("ffmpeg"));
    const Error error = thrownBy([&] { (void)validator.validate(folder()); });
    EXPECT_EQ(error.kind(), Kind::missingExecutable);
    EXPECT_STREQ(error.what(), "The selected folder does not contain ffprobe.");
}

TEST_F(ExternalSoftwareHEVCValidatorTest, HealthyPairIsAcceptedWithItsVersion) {
    const ExternalSoftwareHEVCToolchain identity = validator.validate(healthyPair());
    EXPECT_EQ(identity.ffmpeg.version, "6.1.1");
    EXPECT_EQ(identity.ffprobe.version, "6.1.1");
    EXPECT_EQ(identity.ffmpeg.resolvedPath, (folder() / "ffmpeg").string());
    EXPECT_EQ(identity.ffmpeg.sha256, sha256sum(folder() / "ffmpeg"));
    EXPECT_EQ(identity.ffmpeg.sha256, identity.ffprobe.sha256);  // two copies of one program
}

TEST_F(ExternalSoftwareHEVCValidatorTest, AToolPrintingWithoutEndStopsAtTheCaptureLimit) {
    setBehaviour(healthyPair() / "ffmpeg", "name=ffmpeg\nmode=flood\n");
    const auto started = std::chrono::steady_clock::now();
    const Error error = thrownBy([&] { (void)validator.validate(folder()); });
    EXPECT_EQ(error.kind(), Kind::commandFailed);
    EXPECT_EQ(error.subject(), "ffmpeg -version");
    EXPECT_EQ(error.detail(), "output exceeded the validation limit");
    EXPECT_THAT(error.what(), ::testing::StartsWith("ffmpeg -version validation failed (exit "));
    EXPECT_THAT(error.what(), ::testing::EndsWith("): output exceeded the validation limit"));
    // Stopped by the limit, not by the 15-second time-out.
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(14));
}

TEST_F(ExternalSoftwareHEVCValidatorTest, AHangingToolTimesOutAfterFifteenSeconds) {
    setBehaviour(healthyPair() / "ffprobe", "name=ffprobe\nmode=hang\n");
    const auto started = std::chrono::steady_clock::now();
    const Error error = thrownBy([&] { (void)validator.validate(folder()); });
    EXPECT_EQ(error.kind(), Kind::commandTimedOut);
    EXPECT_STREQ(error.what(), "ffprobe -version did not finish validation within 15 seconds.");
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::seconds(14));
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(45));
}

TEST_F(ExternalSoftwareHEVCValidatorTest, FailingAndMisreportingCommands) {
    struct Row {
        const char* tool;
        std::string behaviour;
        const char* sentence;
    };
    const Row rows[] = {
        {"ffmpeg", "name=ffmpeg\nmode=fail\n",
         "ffmpeg -version validation failed (exit 3): Unrecognized option 'hide_banner'."},
        {"ffprobe", "name=ffprobe\nmode=silentfail\n",
         "ffprobe -version validation failed (exit 4): no diagnostic output"},
        {"ffmpeg", "name=ffmpeg\nmode=garbled\n",
         "ffmpeg -version validation failed (exit 0): unrecognized version output"},
        {"ffprobe", "name=ffmpeg\nversion=6.1.1\n",
         "ffprobe -version validation failed (exit 0): unrecognized version output"},
        {"ffmpeg", "name=ffmpeg\nversion=\n",
         "ffmpeg -version validation failed (exit 0): missing version number"},
        {"ffprobe", healthyBehaviour("ffprobe", "6.0"),
         "ffmpeg 6.1.1 and ffprobe 6.0 are not from the same version."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.sentence);
        setBehaviour(healthyPair() / row.tool, row.behaviour);
        EXPECT_STREQ(thrownBy([&] { (void)validator.validate(folder()); }).what(), row.sentence);
    }
}

TEST_F(ExternalSoftwareHEVCValidatorTest, CapabilitiesAreWholeWords) {
    struct Row {
        const char* line;
        const char* sentence;
    };
    const Row rows[] = {
        {"encoders=libx264 libx265rgb hevc_vaapi",
         "The selected FFmpeg is missing required capability: the exact libx265 encoder."},
        {"filters=scale_vaapi overlay",
         "The selected FFmpeg is missing required capability: the scale filter."},
        {"muxers=mp4v matroska",
         "The selected FFmpeg is missing required capability: the MP4 muxer."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        setBehaviour(healthyPair() / "ffmpeg", healthyBehaviour("ffmpeg") + row.line + "\n");
        EXPECT_STREQ(thrownBy([&] { (void)validator.validate(folder()); }).what(), row.sentence);
    }
}

TEST_F(ExternalSoftwareHEVCValidatorTest, ALaunchFailureIsThatCommandsFailure) {
    ExternalSoftwareHEVCValidator failing;
    failing.runCommand = [](const fs::path&, const std::vector<std::string>&) -> ProcessResult {
        throw LaunchError(std::make_error_code(std::errc::executable_format_error));
    };
    const Error error = thrownBy([&] { (void)failing.validate(healthyPair()); });
    EXPECT_EQ(error.kind(), Kind::commandFailed);
    EXPECT_EQ(error.subject(), "ffmpeg -version");
    EXPECT_EQ(error.exitCode(), -1);
}

TEST_F(ExternalSoftwareHEVCValidatorTest, OneChangedByteGivesIdentityChanged) {
    const ExternalSoftwareHEVCToolchain identity = validator.validate(healthyPair());
    validator.revalidate(identity);

    flipOneByte(folder() / "ffprobe", 4096);
    const Error error = thrownBy([&] { validator.revalidate(identity); });
    EXPECT_EQ(error.kind(), Kind::identityChanged);
    EXPECT_STREQ(error.what(), "The selected FFmpeg or FFprobe changed. Revalidate it before use.");
}

TEST_F(ExternalSoftwareHEVCValidatorTest, ALinkRepointedToIdenticalBytesGivesIdentityChanged) {
    ScratchFolder store;
    const fs::path first = installFakeTool(store.path(), "ffmpeg-a", healthyBehaviour("ffmpeg"));
    const fs::path second = installFakeTool(store.path(), "ffmpeg-b", healthyBehaviour("ffmpeg"));
    fs::create_symlink(first, folder() / "ffmpeg");
    installFakeTool(folder(), "ffprobe", healthyBehaviour("ffprobe"));
    const ExternalSoftwareHEVCToolchain identity = validator.validate(folder());
    EXPECT_EQ(identity.ffmpeg.resolvedPath, first.string());

    fs::remove(folder() / "ffmpeg");
    fs::create_symlink(second, folder() / "ffmpeg");
    EXPECT_EQ(thrownBy([&] { validator.revalidate(identity); }).kind(), Kind::identityChanged);

    // A file that no longer passes inspection reports that, not a change.
    fs::remove(folder() / "ffmpeg");
    EXPECT_EQ(thrownBy([&] { validator.revalidate(identity); }).kind(), Kind::missingExecutable);
}

}  // namespace
}  // namespace tessarin::engine
