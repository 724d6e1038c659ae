// The link parser and authorisation on real files: every hostile shape gets its reason, and
// only a token of this process that matches the link makes it trusted.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "engine/intake/HandoffMessages.hpp"
#include "engine/intake/IntakeTokenStore.hpp"
#include "engine/intake/URLIntakeParser.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

namespace fs = std::filesystem;
using Kind = URLIntakeRejectReason::Kind;

class URLIntakeParserTest : public ::testing::Test {
protected:
    void SetUp() override {
        video = (dir / "clip.mp4").string();
        std::ofstream(video) << "not decoded here";
        fs::create_symlink(video, dir / "link.mov");
        fs::create_directory(dir / "folder");
        std::ofstream((dir / "notes.txt").string()) << "x";
    }

    URLIntakeParseResult parse(const std::string& url, double at = 0) {
        return parseIntakeURL(url, known, consume, at == 0 ? IntakeTokenStore::systemNow() : at);
    }

    test::TempDir dir;
    std::string video;
    IntakeTokenStore tokens{IntakeTokenStore::Key{7}};
    std::set<std::string> known{"mp4-h264", "gif-full"};
    ConsumeToken consume = [this](std::string_view nonce) { return tokens.consume(nonce); };
};

std::string rejection(const URLIntakeParseResult& result) {
    const auto* reason = std::get_if<URLIntakeRejectReason>(&result);
    return reason != nullptr ? reason->text() : "accepted";
}

TEST_F(URLIntakeParserTest, HostileLinksGetTheirReasons) {
    const std::string file = "&file=" + percentEncode(video);
    std::string oversized = "tessarin://convert?preset=mp4-h264" + file + "&pad=";
    oversized += std::string(16'385 - oversized.size(), 'x');
    std::string tooMany = "tessarin://convert?preset=mp4-h264";
    for (int i = 0; i < 501; ++i) {
        tooMany += "&file=/nonexistent/" + std::to_string(i) + ".mp4";
    }
    const std::vector<std::pair<std::string, std::string>> cases{
        {"tessarin://convert?preset=x&action=transcribe", "action-carries-preset(transcribe)"},
        {"tessarin://other?preset=mp4-h264" + file, "malformed-url"},
        {"https://convert?preset=mp4-h264" + file, "malformed-url"},
        {"tessarin://convert", "malformed-url"},
        {"tessarin://convert?preset=mp4-h264&file=%zz", "malformed-url"},
        {"tessarin://convert?preset=mp4-h264&file=/a b.mp4", "malformed-url"},
        {oversized, "oversized-url"},
        {tooMany, "file-count-out-of-range(501)"},
        {"tessarin://convert?preset=mp4-h264&file=clip.mp4", "no-valid-video-files(1 candidate)"},
        {"tessarin://convert?preset=mp4-h264&file=/nope.mp4&file=" +
             percentEncode((dir / "notes.txt").string()),
         "no-valid-video-files(2 candidates)"},
        {"tessarin://convert?preset=bad%01id%E2%9C%93" + file, "unknown-preset(bad?id?)"},
        {"tessarin://convert" "?file=/x.mp4", "unknown-preset(<none>)"},
        {"tessarin://convert?action=upload" + file, "unknown-action(upload)"},
        {"tessarin://convert?action" + file, "unknown-action(<none>)"},
        {"tessarin://convert?preset=mp4-h264&token=0123-abcd", "unusable-handoff"},
        {"tessarin://convert?preset=mp4-h264", "file-count-out-of-range(0)"},
    };
    for (const auto& [url, reason] : cases) {
        EXPECT_EQ(rejection(parse(url)), reason) << url.substr(0, 120);
    }
    ASSERT_EQ(oversized.size(), 16'385U);
    EXPECT_EQ(rejection(parse(oversized.substr(0, 16'384))), "accepted");
    EXPECT_EQ(sanitizedLogValue(std::string(60, 'a')).size(), 48U);
}

TEST_F(URLIntakeParserTest, FilesAreResolvedAndEachIdentityTakenOnce) {
    const std::string url = "tessarin://convert?preset=mp4-h264&file=" + percentEncode(video) +
                            "&file=" + percentEncode((dir / "link.mov").string()) + "&file=" +
                            percentEncode(video) + "&file=" + percentEncode((dir / "folder").string());
    const URLIntakeParseResult result = parse(url);
    ASSERT_EQ(rejection(result), "accepted");
    const auto& request = std::get<URLIntakeRequest>(result);
    const std::string resolvedDir = fs::canonical(dir.path()).string();
    EXPECT_EQ(request.files, (std::vector<std::string>{resolvedDir + "/clip.mp4", resolvedDir + "/folder"}));
    EXPECT_EQ(request.candidatePaths.size(), 4U);
    EXPECT_EQ(request.action, (IntakeAction{IntakeActionKind::convert, "mp4-h264"}));
    EXPECT_EQ(authorize(request, consume, IntakeTokenStore::systemNow()),
              (IntakeAuthorization{false, "no-token"}));
}

TEST_F(URLIntakeParserTest, AHandoffTokenCarriesThePathsOnceAndIsTrusted) {
    const double now = IntakeTokenStore::systemNow();
    const auto nonce = tokens.mint("gif-full", IntakeActionKind::convert, 1, {video});
    const std::string url = deliveryURL(IntakeActionKind::convert, "gif-full", *nonce);
    const URLIntakeParseResult first = parse(url, now);
    ASSERT_EQ(rejection(first), "accepted");
    const auto& request = std::get<URLIntakeRequest>(first);
    EXPECT_EQ(request.candidatePaths, std::vector<std::string>{video});
    EXPECT_EQ(authorize(request, consume, now), (IntakeAuthorization{true, "ok"}));
    // Presented again, the token is spent.
    EXPECT_EQ(rejection(parse(url, now)), "unusable-handoff");

    // A token of another preset, or one too old, is no handoff either.
    const auto other = tokens.mint("mp4-h264", IntakeActionKind::convert, 1, {video});
    EXPECT_EQ(rejection(parse(deliveryURL(IntakeActionKind::convert, "gif-full", *other), now)),
              "unusable-handoff");
    const auto old = tokens.mint("gif-full", IntakeActionKind::convert, 1, {video});
    EXPECT_EQ(rejection(parse(deliveryURL(IntakeActionKind::convert, "gif-full", *old), now + 31)),
              "unusable-handoff");
}

TEST_F(URLIntakeParserTest, ATokenBesideFileItemsIsCheckedAgainstTheLinksPaths) {
    const double now = IntakeTokenStore::systemNow();
    const auto linkFor = [&](const std::string& nonce, const std::string& path) {
        return "tessarin://convert?action=transcribe&token=" + nonce + "&file=" + percentEncode(path);
    };
    const auto matching = tokens.mint("", IntakeActionKind::transcribe, 1, {video});
    const auto request = std::get<URLIntakeRequest>(parse(linkFor(*matching, video), now));
    EXPECT_FALSE(request.consumedToken);
    EXPECT_EQ(authorize(request, consume, now), (IntakeAuthorization{true, "ok"}));
    EXPECT_EQ(authorize(request, consume, now), (IntakeAuthorization{false, "token-unusable"}));

    const std::string link = (dir / "link.mov").string();
    const auto otherFile = tokens.mint("", IntakeActionKind::transcribe, 1, {video});
    const auto swapped = std::get<URLIntakeRequest>(parse(linkFor(*otherFile, link), now));
    EXPECT_EQ(authorize(swapped, consume, now), (IntakeAuthorization{false, "token-mismatch"}));

    const auto expired = tokens.mint("", IntakeActionKind::transcribe, 1, {video});
    const auto late = std::get<URLIntakeRequest>(parse(linkFor(*expired, video), now));
    EXPECT_EQ(authorize(late, consume, now + 30.5), (IntakeAuthorization{false, "token-mismatch"}));
}

}  // namespace
}  // namespace tessarin::engine
