#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "engine/probe/MediaProbe.hpp"
#include "engine/recording/RecordingRecovery.hpp"
#include "tests/engine/recording/RecordingTestSupport.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using Case = RecordingError::Case;
using test::folderSnapshot;
using test::fragmentedSegment;
using test::makeTake;
using test::RecordingPlace;
using test::videoSeconds;

RecordingWork work() {
    RecordingWork work;
    work.tools = *Tools::inBundle(test::helperDirectory());
    return work;
}

Case caseOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const RecordingError& error) {
        return error.kind;
    }
    ADD_FAILURE() << "no RecordingError";
    return Case::timedOut;
}

std::vector<std::string> namesOf(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

TEST(RecordingFiles, JoinsFragmentedSegmentsIncludingOneCutShortByACrash) {
    const RecordingPlace place;
    RecordingFiles files = makeTake(place, 3);
    // The third segment ends mid-way through its second fragment, as a crash leaves it.
    const fs::path cut = files.directory / segmentName(2);
    fs::resize_file(cut, fs::file_size(cut) * 3 / 4);
    const double full = videoSeconds(files.directory / segmentName(0));
    const double partial = videoSeconds(cut);
    ASSERT_NEAR(full, 2.0, 0.05);
    ASSERT_GT(partial, 0.5);
    ASSERT_LT(partial, 1.9);

    const std::vector<UnfinishedTake> found =
        findUnfinishedTakes(place.root, std::nullopt, nullptr);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].segments, 3);
    EXPECT_EQ(found[0].destination, fs::canonical(place.destination) / "take.mp4");

    const RecoveredTake recovered = recoverTake(files.directory, std::nullopt, work());
    EXPECT_EQ(recovered.summary, "Recovered recording from 3 saved parts.");
    EXPECT_EQ(recovered.parts, 3);
    EXPECT_FALSE(recovered.leftOver);
    EXPECT_NEAR(videoSeconds(recovered.published), 2 * full + partial, 0.1);
    ProcessRunner runner;
    const MediaInfo info = MediaProbe::probe(recovered.published, work().tools,
                                             MediaInputPolicy::unrestricted, runner);
    EXPECT_EQ(info.videoCodec, "h264");
    EXPECT_EQ(info.audioCodec, "aac");
    EXPECT_FALSE(fs::exists(files.directory));
    EXPECT_TRUE(findUnfinishedTakes(place.root, std::nullopt, nullptr).empty());

    // A folder left over after saving is removed later only once it holds no manifest.
    const fs::path leftOver = RecordingNamespace::createTakeFolder(place.root);
    writeFile(leftOver / segmentName(0), "x");
    writeFile(leftOver / "take.json", "{}");
    EXPECT_FALSE(RecordingFiles::removeLeftOver(leftOver));
    EXPECT_TRUE(fs::exists(leftOver / segmentName(0)));
    fs::remove(leftOver / "take.json");
    EXPECT_TRUE(RecordingFiles::removeLeftOver(leftOver));
    EXPECT_FALSE(fs::exists(leftOver));
}

TEST(RecordingFiles, OneSegmentIsCopiedAndAnOccupiedNameKeepsEveryPart) {
    const RecordingPlace place;
    RecordingFiles files = makeTake(place, 1);
    writeFile(place.destination / "take.mp4", "someone else's");
    EXPECT_EQ(caseOf([&] { (void)files.finalize(work()); }), Case::outputExists);
    EXPECT_EQ(fs::file_size(files.directory / segmentName(0)), fs::file_size(fragmentedSegment()));
    EXPECT_TRUE(fs::exists(files.directory / "take.json"));
    EXPECT_FALSE(fs::exists(files.directory / "take.published"));

    fs::remove(place.destination / "take.mp4");
    files.ownership.reset();
    const RecoveredTake recovered = recoverTake(files.directory, std::nullopt, work());
    EXPECT_EQ(recovered.summary, "Recovered unfinished recording.");
    EXPECT_EQ(fs::file_size(recovered.published), fs::file_size(fragmentedSegment()));
    EXPECT_FALSE(fs::exists(files.directory));
    // Nothing but the recording lands in the destination: no staging folder is left.
    EXPECT_EQ(folderSnapshot(place.destination),
              "take.mp4:" + std::to_string(fs::file_size(fragmentedSegment())) + "\n");
}

TEST(RecordingFiles, MissingPartsAndAReplacedDestinationKeepTheSegments) {
    const RecordingPlace place;
    RecordingFiles files = makeTake(place, 2);
    fs::remove(files.directory / segmentName(1));
    EXPECT_EQ(caseOf([&] { (void)files.finalize(work()); }), Case::missingSegments);

    // A segment that isn't media is named by its number, and every part stays.
    writeFile(files.directory / segmentName(1), "not a video");
    try {
        (void)files.finalize(work());
        ADD_FAILURE() << "a junk segment was joined";
    } catch (const RecordingError& error) {
        EXPECT_EQ(error.message(),
                  "Recording part 2 could not be opened or verified. All recording parts have been "
                  "kept. Choose Reveal recovery files to inspect them.");
    }
    EXPECT_EQ(fs::file_size(files.directory / segmentName(1)), 11u);
    EXPECT_EQ(namesOf(files.directory),
              (std::vector<std::string>{"segment-00000.mp4", "segment-00001.mp4", "take.json"}));

    fs::remove(files.directory / segmentName(1));
    fs::copy_file(fragmentedSegment(), files.directory / segmentName(1));
    // The destination folder is replaced by another at the same path.
    fs::remove_all(place.destination);
    fs::create_directory(place.destination);
    EXPECT_EQ(caseOf([&] { (void)files.finalize(work()); }), Case::destinationUnavailable);
    EXPECT_TRUE(fs::is_empty(place.destination));
    EXPECT_TRUE(fs::exists(files.directory / segmentName(0)));
    EXPECT_TRUE(fs::exists(files.directory / segmentName(1)));
    EXPECT_TRUE(fs::exists(files.directory / "take.publishing"));

    // "segment-7.mp4" isn't a segment name; a link under a segment name is an unreadable part.
    writeFile(files.directory / "segment-7.mp4", "x");
    EXPECT_EQ(files.listSegments().size(), 2u);
    fs::create_symlink(fragmentedSegment(), files.directory / segmentName(2));
    EXPECT_EQ(caseOf([&] { (void)files.listSegments(); }), Case::unreadablePart);
}

// Puts a take folder in the root with the given manifest text and one real segment.
fs::path plantTake(const RecordingPlace& place, const std::string& id, const std::string& manifest) {
    const fs::path folder = place.root / ("Unfinished Recording " + id);
    fs::create_directory(folder);
    ::chmod(folder.c_str(), 0700);
    writeFile(folder / "take.json", manifest);
    fs::copy_file(fragmentedSegment(), folder / "segment-00000.mp4");
    return folder;
}

TEST(RecordingFiles, HostileTakeFoldersAreSkippedAndNothingIsTouched) {
    const RecordingPlace place;
    (void)makeTake(place, 1, "good.mp4");
    const std::string destination = fs::canonical(place.destination).string();
    const std::string identity =
        toJson(RecordingNamespace::destinationIdentity(place.destination)).dump();
    const auto manifest = [&](const std::string& filename) {
        return R"({"version":2,"filename":")" + filename + R"(","destinationIdentity":)" +
               identity + "}";
    };
    const fs::path outside = place.temp / "outside";
    fs::create_directory(outside);
    writeFile(outside / "keep.mp4", "precious");

    std::vector<fs::path> planted;
    // A manifest whose names escape the folder, segments listed outside included.
    planted.push_back(plantTake(place, "00000000-0000-4000-8000-000000000001",
              R"({"version":1,"filename":"../../outside/keep.mp4","destinationPath":")" +
                  outside.string() + R"(/keep.mp4","segments":["../../outside/keep.mp4"]})"));
    planted.push_back(plantTake(place, "00000000-0000-4000-8000-000000000002",
              R"({"version":2,"filename":".hidden.mp4","destinationIdentity":{"inode":1}})"));
    // A 3 MB manifest, and junk.
    planted.push_back(plantTake(place, "00000000-0000-4000-8000-000000000003",
              manifest("big.mp4").insert(1, std::string(3 * 1024 * 1024, ' '))));
    planted.push_back(
        plantTake(place, "00000000-0000-4000-8000-000000000004", "{\"version\":2, junk"));
    // A world-writable folder, and one owned by another user.
    const fs::path open = plantTake(place, "00000000-0000-4000-8000-000000000005", manifest("o.mp4"));
    ::chmod(open.c_str(), 0777);
    const fs::path foreign =
        plantTake(place, "00000000-0000-4000-8000-000000000006", manifest("f.mp4"));
    const bool asRoot = ::geteuid() == 0;
    if (asRoot) {
        ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
    }
    // A link in the root to a private take folder elsewhere.
    const fs::path hidden = place.temp / "hidden-take";
    fs::create_directory(hidden);
    ::chmod(hidden.c_str(), 0700);
    writeFile(hidden / "take.json", manifest("l.mp4"));
    fs::copy_file(fragmentedSegment(), hidden / "segment-00000.mp4");
    const fs::path linked = place.root / "Unfinished Recording 00000000-0000-4000-8000-000000000007";
    fs::create_directory_symlink(hidden, linked);

    const std::string before = folderSnapshot(place.temp.path());
    const std::vector<UnfinishedTake> found =
        findUnfinishedTakes(place.root, place.destination, nullptr);
    std::vector<std::string> names;
    for (const UnfinishedTake& take : found) {
        names.push_back(take.destination.filename().string());
    }
    EXPECT_EQ(names, (std::vector<std::string>{"good.mp4"}))
        << (asRoot ? "" : "not root: the foreign folder is ours, so it was listed");

    // Asked for by name, each is refused and nothing changes.
    planted.insert(planted.end(), {linked, open, foreign});
    for (const fs::path& folder : planted) {
        EXPECT_ANY_THROW((void)recoverTake(folder, place.destination, work())) << folder;
        EXPECT_ANY_THROW(discardTake(folder)) << folder;
    }
    EXPECT_EQ(folderSnapshot(place.temp.path()), before);
    EXPECT_EQ(fs::file_size(outside / "keep.mp4"), 8u);
    if (!asRoot) {
        GTEST_SKIP() << "the folder of another user needs root to be made (chown)";
    }
}

TEST(RecordingFiles, DiscardMovesTheTakeToTheTrashUnlessSomeoneHoldsIt) {
    const RecordingPlace place;
    const fs::path trash = place.temp / "data/Trash";
    ::setenv("XDG_DATA_HOME", (place.temp / "data").c_str(), 1);
    RecordingFiles files = makeTake(place, 1);
    {
        const RecordingNamespace::Lease held = RecordingNamespace::acquire(files.directory);
        EXPECT_EQ(caseOf([&] { discardTake(files.directory); }), Case::recordingInUse);
    }
    // A link inside the folder makes the discard unsafe; the folder stays.
    fs::create_symlink("/etc/passwd", files.directory / "stray");
    EXPECT_EQ(caseOf([&] { discardTake(files.directory); }), Case::unsafeRecoveryDiscard);
    fs::remove(files.directory / "stray");

    discardTake(files.directory);
    ::unsetenv("XDG_DATA_HOME");
    EXPECT_FALSE(fs::exists(files.directory));
    const fs::path name = files.directory.filename();
    EXPECT_TRUE(fs::exists(trash / "files" / name / segmentName(0)));
    std::ifstream info(trash / "info" / (name.string() + ".trashinfo"));
    std::string header;
    std::string path;
    std::getline(info, header);
    std::getline(info, path);
    EXPECT_EQ(header, "[Trash Info]");
    EXPECT_TRUE(path.starts_with("Path=/")) << path;
    EXPECT_NE(path.find("Unfinished%20Recording%20"), std::string::npos) << path;
}

}  // namespace
}  // namespace tessarin::engine
