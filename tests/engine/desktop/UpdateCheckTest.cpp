#include <gtest/gtest.h>

#include <cstdlib>

#include "engine/desktop/ReleaseFeed.hpp"
#include "engine/desktop/UpdateCheck.hpp"
#include "tests/support/LoopbackHttpsServer.hpp"

namespace tessarin::engine {
namespace {

constexpr const char* kFeed = R"(<?xml version="1.0" encoding="UTF-8"?>
<component type="desktop-application">
  <id>com.tessarin.Tessarin</id>
  <releases>
    <release version="0.3.0~beta1" date="2027-01-10"/>
    <release version="0.2.10" date="2026-12-24">
      <url>https://tessarin.org/releases/0.2.10</url>
      <description>
        <p>Faster   GIFs.</p>
        <ul><li>Fewer  <em>dropped</em> frames.</li></ul>
      </description>
    </release>
    <release version="0.2.9" date="not a date"><url>http://insecure.example/</url></release>
    <release version="../etc/passwd"/>
    <release version="0.1.0"/>
  </releases>
</component>)";

TEST(ReleaseFeed, ReadsTheReleasesAndDropsWhatBreaksTheRules) {
    const std::vector<ReleaseEntry> releases = parseReleaseFeed(kFeed);
    ASSERT_EQ(releases.size(), 4u);
    EXPECT_EQ(releases[1], (ReleaseEntry{"0.2.10", "2026-12-24",
                                         "https://tessarin.org/releases/0.2.10",
                                         "Faster GIFs.\nFewer dropped frames."}));
    EXPECT_EQ(releases[2], (ReleaseEntry{"0.2.9", std::nullopt, std::nullopt, ""}));
    // 0.3.0~beta1 sorts before 0.3.0 but after 0.2.10, which sorts after 0.2.9.
    EXPECT_EQ(newestRelease(releases, "0.1.0")->version, "0.3.0~beta1");
    EXPECT_EQ(newestRelease(releases, "0.3.0"), std::nullopt);
    EXPECT_EQ(newestRelease(releases, "0.2.10")->version, "0.3.0~beta1");

    for (const auto& [a, b, order] :
         {std::tuple{"1.10", "1.9", 1}, std::tuple{"1.0~rc1", "1.0", -1},
          std::tuple{"1.0", "1.0.0", -1}, std::tuple{"1.01", "1.1", 0},
          std::tuple{"1.0a", "1.0+", -1}, std::tuple{"2", "10", -1}}) {
        EXPECT_EQ(compareVersions(a, b), order) << a << " vs " << b;
        EXPECT_EQ(compareVersions(b, a), -order) << b << " vs " << a;
    }
}

TEST(ReleaseFeed, RefusesWhatIsNotAReleaseList) {
    for (const std::string& text :
         {std::string("<releases><release version='1'>"), std::string("<component/>"),
          std::string("not xml"),
          std::string("<!DOCTYPE r [<!ENTITY a 'aaaa'>]><releases><release version='1'>"
                      "<description><p>&a;</p></description></release></releases>"),
          std::string(kMaxReleaseFeedBytes + 1, ' ')}) {
        EXPECT_THROW(static_cast<void>(parseReleaseFeed(text)), ReleaseFeedError) << text.substr(0, 60);
    }
    std::string many = "<releases>";
    for (std::size_t i = 0; i <= kMaxReleases; ++i) {
        many += "<release version='1.0'/>";
    }
    EXPECT_THROW(static_cast<void>(parseReleaseFeed(many + "</releases>")), ReleaseFeedError);
}

TEST(UpdateCheck, ReadsTheFeedOverLoopbackHttps) {
    test::LoopbackHttpsServer server(nlohmann::json::array(
        {{{"status", 200}, {"body", kFeed}},
         {{"status", 404}, {"body", "gone"}},
         {{"status", 200}, {"body", "<html>a captive portal</html>"}},
         {{"status", 302}, {"headers", {{"Location", "https://example.org/"}}}}}));
    const UpdateFeedEndpoint endpoint{server.baseURL() + "/releases.xml",
                                      test::testCertificate().certificate.string()};

    const UpdateCheckResult result = checkForUpdates("0.2.10", endpoint);
    ASSERT_TRUE(result.newer);
    EXPECT_EQ(result.newer->version, "0.3.0~beta1");
    EXPECT_EQ(updateResultText(result), "Tessarin 0.3.0~beta1 is available (you have 0.2.10).");
    EXPECT_EQ(server.requests().at(0)["path"], "/releases.xml");

    for (const char* sentence :
         {"Couldn't check for updates: the update server answered with an error (HTTP 404).",
          "Couldn't check for updates: the release list couldn't be read.",
          "Couldn't check for updates: the update server answered with an error (HTTP 302)."}) {
        try {
            static_cast<void>(checkForUpdates("0.1.0", endpoint));
            ADD_FAILURE() << "no error for " << sentence;
        } catch (const UpdateCheckError& error) {
            EXPECT_STREQ(error.what(), sentence);
        }
    }
    // Without the test certificate the server isn't trusted.
    EXPECT_THROW(static_cast<void>(checkForUpdates("0.1.0", {endpoint.url, std::nullopt})),
                 UpdateCheckError);
    EXPECT_THROW(static_cast<void>(checkForUpdates("0.1.0", endpoint, [] { return true; })),
                 UpdateCheckError);
}

TEST(UpdateCheck, TheFeedAddressCanOnlyBeMovedToLoopback) {
    ::setenv("TESSARIN_UPDATE_FEED_URL", "https://evil.example/releases.xml", 1);
    EXPECT_EQ(updateFeedEndpoint().url, kReleaseFeedURL);
    ::setenv("TESSARIN_UPDATE_FEED_URL", "http://127.0.0.1:9/releases.xml", 1);
    EXPECT_EQ(updateFeedEndpoint().url, kReleaseFeedURL);
    ::setenv("TESSARIN_UPDATE_FEED_URL", "https://127.0.0.1:9/releases.xml", 1);
    ::setenv("TESSARIN_UPDATE_CA_FILE", "/tmp/ca.pem", 1);
    const UpdateFeedEndpoint moved = updateFeedEndpoint();
    EXPECT_EQ(moved.url, "https://127.0.0.1:9/releases.xml");
    EXPECT_EQ(moved.caFile, "/tmp/ca.pem");
    ::unsetenv("TESSARIN_UPDATE_FEED_URL");
    ::unsetenv("TESSARIN_UPDATE_CA_FILE");
}

}  // namespace
}  // namespace tessarin::engine
