// Clip list files on a real file system: round trips, stamps, sizes and refusals.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "engine/clips/ClipListFile.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using Kind = ClipListFile::Invalid::Kind;
using test::TempDir;

void writeText(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::string readText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

template <typename Work>
std::optional<Kind> failureOf(Work work) {
    try {
        work();
    } catch (const ClipListFile::Invalid& invalid) {
        return invalid.kind();
    }
    return std::nullopt;
}

std::vector<ClipSelection> sampleClips() {
    return {ClipSelection(Trim{"0", "1:30.5"}, "Intro & Credits"),
            ClipSelection(Trim{"2:00", std::nullopt}, ""),
            ClipSelection(Trim{std::nullopt, "5"}, "Café")};
}

TEST(ClipListFile, RoundTripsIdsTimesAndNamesAndSurvivesAMove) {
    const TempDir folder;
    const fs::path source = folder / "talk.mp4";
    writeText(source, "not really a video");
    const std::vector<ClipSelection> clips = sampleClips();
    const fs::path list = ClipListFile::proposedPath(source);
    EXPECT_EQ(list, folder / "talk.clips.json");
    ClipListFile::write(clips, list, source);

    // Sorted keys, pretty-printed, absent sides left out.
    const std::string text = readText(list);
    EXPECT_LT(text.find("\"clips\""), text.find("\"source\""));
    EXPECT_LT(text.find("\"source\""), text.find("\"version\": 1"));
    EXPECT_NE(text.find("\n  "), std::string::npos);

    const std::vector<ClipSelection> read = ClipListFile::read(list, source);
    ASSERT_EQ(read.size(), clips.size());
    for (std::size_t index = 0; index < clips.size(); ++index) {
        EXPECT_EQ(read[index].id(), clips[index].id());
        EXPECT_EQ(read[index].trim(), clips[index].trim());
        EXPECT_EQ(read[index].name(), clips[index].name());
    }

    fs::create_directory(folder / "moved");
    fs::rename(source, folder / "moved" / "talk.mp4");
    EXPECT_EQ(ClipListFile::read(list, folder / "moved" / "talk.mp4").size(), 3u);
    fs::rename(folder / "moved" / "talk.mp4", folder / "moved" / "renamed.mp4");
    EXPECT_EQ(failureOf([&] { (void)ClipListFile::read(list, folder / "moved" / "renamed.mp4"); }),
              Kind::source);
}

TEST(ClipListFile, ATouchedSourceNoLongerLoads) {
    const TempDir folder;
    const fs::path source = folder / "talk.mp4";
    writeText(source, "content");
    const fs::path list = folder / "talk.clips.json";
    ClipListFile::write(sampleClips(), list, source);

    // One microsecond later, same content.
    struct stat status {};
    ASSERT_EQ(::stat(source.c_str(), &status), 0);
    struct timespec times[2] = {status.st_atim, status.st_mtim};
    times[1].tv_nsec = (times[1].tv_nsec + 1000) % 1'000'000'000;
    ASSERT_EQ(::utimensat(AT_FDCWD, source.c_str(), times, 0), 0);
    EXPECT_EQ(failureOf([&] { (void)ClipListFile::read(list, source); }), Kind::source);
}

TEST(ClipListFile, RefusesToReplaceItsSourceAndKeepsWhatExistsWhenAsked) {
    const TempDir folder;
    const fs::path source = folder / "talk.mp4";
    writeText(source, "precious");
    fs::create_symlink(source, folder / "link.json");
    EXPECT_EQ(failureOf([&] { ClipListFile::write(sampleClips(), folder / "link.json", source); }),
              Kind::overwriteSource);
    EXPECT_EQ(readText(source), "precious");

    const fs::path existing = folder / "existing.json";
    writeText(existing, "older");
    EXPECT_THROW(ClipListFile::write(sampleClips(), existing, source, ClipListFile::Existing::keep),
                 fs::filesystem_error);
    EXPECT_EQ(readText(existing), "older");
    ClipListFile::write(sampleClips(), existing, source);
    EXPECT_EQ(ClipListFile::read(existing, source).size(), 3u);
    // Only the list is left behind: no temporary files.
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()), 3);

    const ClipSelection clip(Trim{"1", "2"}, "");
    const std::vector<ClipSelection> twice = {clip, clip};
    EXPECT_EQ(failureOf([&] { ClipListFile::write(twice, folder / "twice.json", source); }),
              Kind::document);
    EXPECT_EQ(failureOf([&] { ClipListFile::write({}, folder / "none.json", source); }),
              Kind::document);
}

TEST(ClipListFile, ReadsOnlyBoundedRegularFiles) {
    const TempDir folder;
    const fs::path source = folder / "talk.mp4";
    writeText(source, "content");
    const ClipListFile::Stamp stamp = ClipListFile::Stamp::of(source);
    const std::string valid = ClipListFile::encode(sampleClips(), stamp);

    // Exactly the limit passes the size test (padded with blanks, which JSON allows).
    const fs::path atLimit = folder / "limit.json";
    writeText(atLimit, valid + std::string(ClipListFile::kSizeLimit - valid.size(), ' '));
    EXPECT_EQ(ClipListFile::read(atLimit, source).size(), 3u);
    const fs::path over = folder / "over.json";
    writeText(over, valid + std::string(ClipListFile::kSizeLimit + 1 - valid.size(), ' '));
    EXPECT_EQ(failureOf([&] { (void)ClipListFile::read(over, source); }), Kind::size);

    EXPECT_EQ(failureOf([&] { (void)ClipListFile::read(folder.path(), source); }), Kind::size);
    const fs::path pipe = folder / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(failureOf([&] { (void)ClipListFile::read(pipe, source); }), Kind::size);
    EXPECT_THROW((void)ClipListFile::read(folder / "missing.json", source), fs::filesystem_error);
}

TEST(ClipListFile, RefusesDocumentsThatAreNotVersionOneLists) {
    const ClipListFile::Stamp stamp{"talk.mp4", 7, 1700000000.123456789};
    const std::string id = "0b7c6f3e-8a2d-4c1e-9f00-123456789abc";
    const auto document = [&](const std::string& clips, const std::string& version = "1") {
        return R"({"clips": )" + clips +
               R"(, "source": {"bytes": 7, "modified": 1700000000.123456789, "name": "talk.mp4"},)" +
               R"( "version": )" + version + "}";
    };
    const std::string entry = R"({"id": ")" + id + R"(", "name": "a", "start": "1"})";
    EXPECT_EQ(ClipListFile::decode(document("[" + entry + "]"), stamp).size(), 1u);
    const auto refusal = [&](const std::string& text) {
        return failureOf([&] { (void)ClipListFile::decode(text, stamp); });
    };
    EXPECT_EQ(refusal(document("[" + entry + "]", "2")), Kind::document);
    EXPECT_EQ(refusal(document("[" + entry + "]", "1.0")), Kind::document);
    EXPECT_EQ(refusal(document("[]")), Kind::document);
    EXPECT_EQ(refusal(document("[" + entry + ", " + entry + "]")), Kind::document);
    EXPECT_EQ(refusal(document(R"([{"id": ")" + id + R"("}])")), Kind::document);
    EXPECT_EQ(refusal("{"), Kind::document);
    EXPECT_EQ(refusal(document("[" + entry + "]").substr(0, 30)), Kind::document);
    // Canonically equal names match: "é" precomposed and decomposed.
    const ClipListFile::Stamp composed{"caf\xc3\xa9.mp4", 7, 1.5};
    const ClipListFile::Stamp decomposed{"cafe\xcc\x81.mp4", 7, 1.5};
    const std::vector<ClipSelection> clips = sampleClips();
    EXPECT_EQ(ClipListFile::decode(ClipListFile::encode(clips, composed), decomposed).size(), 3u);

    // A bad time fails the whole read with the clip's own sentence.
    try {
        (void)ClipListFile::decode(
            document(R"([{"id": ")" + id + R"(", "name": "", "start": "1:60"}])"), stamp);
        ADD_FAILURE() << "1:60 was accepted";
    } catch (const ClipSelection::Invalid& invalid) {
        EXPECT_STREQ(invalid.what(), "Use a finite time in SS, MM:SS or HH:MM:SS format.");
    }
}

}  // namespace
}  // namespace tessarin::engine
