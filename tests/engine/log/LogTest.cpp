#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <optional>

#include "engine/log/Log.hpp"
#include "tests/engine/log/LogTestSupport.hpp"

namespace tessarin::engine {
namespace {

using test::readFile;
using test::ScopedEnv;

TEST_F(LogFileTest, LinesCarryLevelSubsystemCategoryAndKeyValues) {
    const Logger log("com.tessarin.engine", "job");
    log.notice(logLine({{"event", "published"}, {"extension", "mp4"}}));
    log.info(KeyValues().add("step", "probe").add("streams", 2).str());
    log.error("encode failed " + logLine({{"step", "encode"}, {"status", "1"}}));
    {
        const ScopedEnv quiet("TESSARIN_LOG_DEBUG", std::nullopt);
        log.debug("not persisted by default");
    }
    {
        const ScopedEnv verbose("TESSARIN_LOG_DEBUG", "1");
        log.debug("chunk=3");
    }

    const std::vector<std::string> lines = readLines(logFile_);
    ASSERT_EQ(lines.size(), 4u);
    for (const std::string& line : lines) {
        EXPECT_TRUE(isWholeLine(line)) << line;
        EXPECT_NE(line.find(" " + std::to_string(getpid()) + " "), std::string::npos) << line;
    }
    EXPECT_TRUE(
        lines[0].ends_with(" notice com.tessarin.engine job: event=published extension=mp4"))
        << lines[0];
    EXPECT_TRUE(lines[1].ends_with(" info com.tessarin.engine job: step=probe streams=2"))
        << lines[1];
    EXPECT_TRUE(
        lines[2].ends_with(" error com.tessarin.engine job: encode failed step=encode status=1"))
        << lines[2];
    EXPECT_TRUE(lines[3].ends_with(" debug com.tessarin.engine job: chunk=3")) << lines[3];
}

TEST_F(LogFileTest, PrivateValuesNeverReachTheFile) {
    const std::string secret = "/home/ann/Holiday Secret.mov";
    {
        const ScopedEnv unset("TESSARIN_LOG_PRIVATE", std::nullopt);
        const Logger log("com.tessarin.engine", "publish");
        log.notice(KeyValues().add("file", privateValue(secret)).add("extension", "mov").str());
        EXPECT_EQ(privateValue(secret), "<private>");
    }
    {
        const ScopedEnv notOne("TESSARIN_LOG_PRIVATE", "yes");
        EXPECT_EQ(privateValue(secret), "<private>");
    }
    {
        // The local debugging switch, and only that, shows the value.
        const ScopedEnv reveal("TESSARIN_LOG_PRIVATE", "1");
        EXPECT_EQ(privateValue(secret), secret);
    }

    const std::string text = readFile(logFile_);
    EXPECT_EQ(text.find("Secret"), std::string::npos) << text;
    EXPECT_EQ(text.find("/home"), std::string::npos) << text;
    EXPECT_NE(text.find("file=<private> extension=mov\n"), std::string::npos) << text;
}

TEST(KeyValues, QuotesAndNeutralisesValues) {
    struct Case {
        std::string_view value;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"abc", "k=abc"},
        {"two words", R"(k="two words")"},
        {"a=b", R"(k="a=b")"},
        {R"(say "hi")", R"(k="say \"hi\"")"},
        {R"(back\slash)", R"(k="back\\slash")"},
        {"", R"(k="")"},
        {"tab\there", R"(k="tab here")"},
        {"line\nbreak", R"(k="line break")"},
        {"a\r\nlevel=error", R"(k="a  level=error")"},
        {"sep\xE2\x80\xA8x\xC2\x85y", R"(k="sep x y")"},
        {"caf\xC3\xA9", "k=caf\xC3\xA9"},
        {"bad\xFFutf8", "k=bad?utf8"},
        {"<private>", "k=<private>"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(KeyValues().add("k", c.value).str(), c.expected) << c.value;
    }

    EXPECT_EQ(KeyValues().add("bad key\n=", "v").str(), "bad_key__=v");
    EXPECT_EQ(KeyValues().add("", "v").str(), "_=v");
    EXPECT_EQ(KeyValues().add("n", 42).add("size", std::size_t{7}).add("ratio", 0.5).str(),
              "n=42 size=7 ratio=0.5");
    EXPECT_EQ(KeyValues().add("ok", true).add("name", std::string("x y")).str(),
              R"(ok=true name="x y")");
    EXPECT_EQ(logLine({{"a", "1"}, {"b", "two three"}}), R"(a=1 b="two three")");
}

TEST_F(LogFileTest, LineBreakInjectionCannotForgeALine) {
    const std::string forged =
        "x\n2025-01-01T00:00:00.000Z 1 error com.tessarin.engine job: forged=1\r";
    const Logger log("com.tessarin.engine\n", "job\nfake");
    log.error(logLine({{"name", forged}}));
    log.notice("free text " + forged);

    const std::vector<std::string> lines = readLines(logFile_);
    ASSERT_EQ(lines.size(), 2u);
    for (const std::string& line : lines) {
        EXPECT_TRUE(isWholeLine(line)) << line;
        EXPECT_EQ(line.find('\r'), std::string::npos);
        EXPECT_NE(line.find(" com.tessarin.engine_ job_fake: "), std::string::npos) << line;
    }
}

TEST_F(LogFileTest, RotatesBeforeALineWouldPassTheCap) {
    constexpr std::uint64_t kCap = 2048;
    setLogFileForTesting(logFile_, kCap);
    const Logger log("com.tessarin.engine", "rotation");
    const std::string padding(40, 'p');
    for (int i = 0; i < 60; ++i) {
        log.info(KeyValues().add("seq", i).add("pad", padding).str());
    }
    std::filesystem::path rotated = logFile_;
    rotated += ".1";

    const std::vector<std::string> current = readLines(logFile_);
    const std::vector<std::string> previous = readLines(rotated);
    ASSERT_FALSE(current.empty());
    ASSERT_FALSE(previous.empty());
    EXPECT_LE(std::filesystem::file_size(logFile_), kCap);
    EXPECT_LE(std::filesystem::file_size(rotated), kCap);
    EXPECT_GT(std::filesystem::file_size(rotated) + current.front().size() + 1, kCap);

    // The two files hold the newest lines in order, without gaps; older ones were rotated away.
    std::vector<std::string> kept = previous;
    kept.insert(kept.end(), current.begin(), current.end());
    ASSERT_LT(kept.size(), 60u);
    const int first = 60 - static_cast<int>(kept.size());
    for (std::size_t i = 0; i < kept.size(); ++i) {
        EXPECT_TRUE(isWholeLine(kept[i])) << kept[i];
        const std::string seq = "seq=" + std::to_string(first + static_cast<int>(i)) + " ";
        EXPECT_NE(kept[i].find(seq), std::string::npos) << kept[i];
    }
}

TEST_F(LogFileTest, OverlongMessageIsCutAtACharacterBoundary) {
    std::string message;
    for (int i = 0; i < 3000; ++i) {
        message += "\xC3\xA9";  // "é"
    }
    Logger("com.tessarin.engine", "job").notice(message);

    const std::vector<std::string> lines = readLines(logFile_);
    ASSERT_EQ(lines.size(), 1u);
    const std::string body = lines[0].substr(lines[0].find(": ") + 2);
    EXPECT_TRUE(body.ends_with("\xC3\xA9\xE2\x80\xA6")) << body.substr(body.size() - 8);
    EXPECT_LE(body.size(), kMaxLogMessageBytes + 3);
    EXPECT_GE(body.size(), kMaxLogMessageBytes);
}

TEST_F(LogFileTest, UnusableFileLocationIsSkippedSilently) {
    const std::filesystem::path notAFolder = folder_ / "plain-file";
    std::ofstream(notAFolder) << "x";
    setLogFileForTesting(notAFolder / "tessarin.log");
    const Logger log("com.tessarin.engine", "job");
    log.error("event=cannot-write");
    EXPECT_EQ(readFile(notAFolder), "x");

    // A symbolic link planted at the log's name is not followed.
    const std::filesystem::path target = folder_ / "target";
    std::ofstream(target) << "";
    std::filesystem::create_symlink(target, logFile_);
    setLogFileForTesting(logFile_);
    log.error("event=through-link");
    EXPECT_EQ(std::filesystem::file_size(target), 0u);

    // The sink recovers once the location is usable again.
    const std::filesystem::path usable = folder_ / "usable.log";
    setLogFileForTesting(usable);
    log.error("event=recovered");
    const std::vector<std::string> lines = readLines(usable);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with("event=recovered"));
}

TEST_F(LogFileTest, FileFollowsXdgStateHomeThenHome) {
    setLogFileForTesting(std::nullopt);
    const Logger log("com.tessarin.app", "settings");
    {
        const ScopedEnv state("XDG_STATE_HOME", (folder_ / "state").string());
        const std::filesystem::path expected = folder_ / "state" / "tessarin" / "tessarin.log";
        EXPECT_EQ(currentLogFilePath(), expected);
        log.notice("event=xdg");
        EXPECT_EQ(readLines(expected).size(), 1u);
        struct stat info {};
        ASSERT_EQ(stat(expected.parent_path().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0700u);
    }
    {
        // A relative XDG_STATE_HOME is invalid and ignored.
        const ScopedEnv state("XDG_STATE_HOME", "relative/state");
        const ScopedEnv home("HOME", (folder_ / "home").string());
        const std::filesystem::path expected =
            folder_ / "home" / ".local" / "state" / "tessarin" / "tessarin.log";
        EXPECT_EQ(currentLogFilePath(), expected);
        log.notice("event=home");
        EXPECT_EQ(readLines(expected).size(), 1u);
    }
    {
        const ScopedEnv state("XDG_STATE_HOME", std::nullopt);
        const ScopedEnv home("HOME", std::nullopt);
        EXPECT_EQ(currentLogFilePath(), std::nullopt);
        log.notice("event=nowhere");
    }
}

}  // namespace
}  // namespace tessarin::engine
