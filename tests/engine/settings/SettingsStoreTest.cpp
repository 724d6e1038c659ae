#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <ctime>
#include <functional>
#include <limits>
#include <system_error>

#include "engine/settings/SettingsStore.hpp"
#include "tests/engine/settings/SettingsTestSupport.hpp"

namespace tessarin::engine::testing {
namespace {

using nlohmann::json;

using test::fileMode;

// Runs `check` in a child process, as the unprivileged user "nobody" when the tests run as root
// (root ignores permissions), and returns its exit status: 0 means every check passed.
int exitStatusInUnprivilegedChild(const std::function<int()>& check) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (::geteuid() == 0 &&
            (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)) {
            ::_exit(90);
        }
        int status = 91;
        try {
            status = check();
        } catch (...) {
        }
        ::_exit(status);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST_F(SettingsTest, TypedValuesRoundTripAndSurviveAReopen) {
    {
        SettingsStore store(settingsFile_);
        EXPECT_FALSE(store.exists());
        store.setBool("flag", true);
        store.setInteger("count", -9'007'199'254'740'993);
        store.setDouble("scale", 1.25);
        store.setString("name", "Grüße \"quoted\"\n");
        store.setStringList("recent", {"a", "", "ü"});
        store.setData("presetOverrides", R"({"gif":{"fps":12},"list":[1,2.5,null]})");
        store.setStringList("empty", {});

        EXPECT_TRUE(store.exists());
        EXPECT_EQ(store.boolValue("flag"), true);
        EXPECT_EQ(store.integerValue("count"), -9'007'199'254'740'993);
        EXPECT_EQ(store.doubleValue("scale"), 1.25);
        EXPECT_EQ(store.stringValue("name"), "Grüße \"quoted\"\n");
    }

    const SettingsStore reopened(settingsFile_);
    EXPECT_EQ(reopened.boolValue("flag"), true);
    EXPECT_EQ(reopened.integerValue("count"), -9'007'199'254'740'993);
    EXPECT_EQ(reopened.doubleValue("scale"), 1.25);
    EXPECT_EQ(reopened.stringValue("name"), "Grüße \"quoted\"\n");
    EXPECT_EQ(reopened.stringListValue("recent"), (std::vector<std::string>{"a", "", "ü"}));
    EXPECT_EQ(reopened.stringListValue("empty"), std::vector<std::string>{});
    EXPECT_EQ(reopened.dataValue("presetOverrides"), R"({"gif":{"fps":12},"list":[1,2.5,null]})");
    EXPECT_EQ(reopened.keys(), (std::vector<std::string>{"count", "empty", "flag", "name",
                                                         "presetOverrides", "recent", "scale"}));
    EXPECT_TRUE(reopened.contains("flag"));
    EXPECT_FALSE(reopened.contains("missing"));

    // The file is one plain JSON object that any reader understands.
    const json onDisk = json::parse(readFile(settingsFile_));
    EXPECT_EQ(onDisk.at("flag"), true);
    EXPECT_EQ(onDisk.at("presetOverrides").at("gif").at("fps"), 12);
}

TEST_F(SettingsTest, ReadsOfAnotherTypeGiveNothing) {
    SettingsStore store(settingsFile_);
    store.setBool("bool", false);
    store.setInteger("integer", 7);
    store.setDouble("double", 2.5);
    store.setString("string", "7");
    store.setData("mixedList", R"(["a", 1])");
    store.setData("huge", "18446744073709551615");
    store.setData("object", R"({"a":"b"})");

    EXPECT_EQ(store.integerValue("bool"), std::nullopt);
    EXPECT_EQ(store.stringValue("bool"), std::nullopt);
    EXPECT_EQ(store.doubleValue("bool"), std::nullopt);
    EXPECT_EQ(store.boolValue("integer"), std::nullopt);
    EXPECT_EQ(store.stringValue("integer"), std::nullopt);
    EXPECT_EQ(store.integerValue("double"), std::nullopt);
    EXPECT_EQ(store.integerValue("string"), std::nullopt);
    EXPECT_EQ(store.stringListValue("string"), std::nullopt);
    EXPECT_EQ(store.stringListValue("mixedList"), std::nullopt);
    EXPECT_EQ(store.stringValue("object"), std::nullopt);
    EXPECT_EQ(store.boolValue("absent"), std::nullopt);
    EXPECT_EQ(store.dataValue("absent"), std::nullopt);

    // Any number reads as a double; an integer beyond int64_t is not an integer here.
    EXPECT_EQ(store.doubleValue("integer"), 7.0);
    EXPECT_EQ(store.integerValue("huge"), std::nullopt);
    EXPECT_EQ(store.doubleValue("huge"), 18446744073709551615.0);
    // Data reads whatever is stored, as JSON text.
    EXPECT_EQ(store.dataValue("bool"), "false");
    EXPECT_EQ(store.dataValue("string"), "\"7\"");
}

TEST_F(SettingsTest, RefusedValuesLeaveTheFileAsItWas) {
    SettingsStore store(settingsFile_);
    store.setString("kept", "yes");
    const std::string before = readFile(settingsFile_);

    EXPECT_THROW(store.setDouble("nan", std::nan("")), std::invalid_argument);
    EXPECT_THROW(store.setDouble("inf", std::numeric_limits<double>::infinity()),
                 std::invalid_argument);
    EXPECT_THROW(store.setString("bytes", "\xff\xfe"), std::invalid_argument);
    EXPECT_THROW(store.setBool("\xc3(", true), std::invalid_argument);
    EXPECT_THROW(store.setData("data", "{\"a\":"), std::invalid_argument);
    EXPECT_THROW(store.setData("data", ""), std::invalid_argument);
    EXPECT_THROW(store.setData("deep", std::string(kMaxSettingsDepth + 1, '[') +
                                           std::string(kMaxSettingsDepth + 1, ']')),
                 std::invalid_argument);
    EXPECT_THROW(store.update([](json& object) { object = json::array(); }), std::invalid_argument);
    EXPECT_THROW(store.update([](json& object) {
        object["half"] = 1;
        throw std::runtime_error("changed my mind");
    }),
                 std::runtime_error);

    EXPECT_EQ(readFile(settingsFile_), before);
    EXPECT_EQ(store.keys(), std::vector<std::string>{"kept"});
    EXPECT_EQ(namesStartingWith(configFolder_, ".tessarin-"), std::vector<std::string>{});
}

TEST_F(SettingsTest, WritesReadTheFileAgainUnderTheLock) {
    SettingsStore first(settingsFile_);
    SettingsStore second(settingsFile_);  // opened before `first` writes: its copy is stale
    first.setString("fromFirst", "1");
    EXPECT_FALSE(second.contains("fromFirst"));

    second.setString("fromSecond", "2");
    EXPECT_EQ(second.stringValue("fromFirst"), "1");
    EXPECT_FALSE(first.contains("fromSecond"));
    first.reload();
    EXPECT_EQ(first.stringValue("fromSecond"), "2");

    second.update([](json& object) {
        EXPECT_EQ(object.at("fromFirst"), "1");
        object["fromFirst"] = "changed";
        object.erase("fromSecond");
    });
    first.reload();
    EXPECT_EQ(first.keys(), std::vector<std::string>{"fromFirst"});
    EXPECT_EQ(first.stringValue("fromFirst"), "changed");

    first.remove("fromFirst");
    EXPECT_FALSE(first.contains("fromFirst"));
    second.reload();
    EXPECT_EQ(second.keys(), std::vector<std::string>{});
}

TEST_F(SettingsTest, ChangesThatChangeNothingCreateNothing) {
    SettingsStore store(settingsFile_);
    store.remove("never-set");
    store.update([](json&) {});
    EXPECT_FALSE(store.exists());
    EXPECT_FALSE(fs::exists(settingsFile_));

    store.setInteger("a", 1);
    struct stat before {};
    ASSERT_EQ(::stat(settingsFile_.c_str(), &before), 0);
    store.setInteger("a", 1);
    store.remove("b");
    struct stat after {};
    ASSERT_EQ(::stat(settingsFile_.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
}

// JSON's own comparison calls 1.0 and 1 equal, but they are written and read as different values.
TEST_F(SettingsTest, ANumberWrittenAsTheOtherKindOfNumberReachesTheFile) {
    fs::create_directories(configFolder_);
    writeFile(settingsFile_, "{\"count\": 1.0}\n");
    SettingsStore store(settingsFile_);
    store.setInteger("count", 1);
    EXPECT_EQ(store.integerValue("count"), 1);
    EXPECT_EQ(SettingsStore(settingsFile_).integerValue("count"), 1);
}

TEST_F(SettingsTest, NewFilesArePrivateAndRewritesKeepTheMode) {
    SettingsStore store(settingsFile_);
    store.setBool("a", true);
    EXPECT_EQ(fileMode(configFolder_), 0700u);
    EXPECT_EQ(fileMode(folder_ / "config"), 0700u);
    EXPECT_EQ(fileMode(settingsFile_), 0600u);

    ASSERT_EQ(::chmod(settingsFile_.c_str(), 0644), 0);
    store.setBool("a", false);
    EXPECT_EQ(fileMode(settingsFile_), 0644u);
    EXPECT_EQ(store.boolValue("a"), false);
}

TEST_F(SettingsTest, TemporariesOfADeadWriterAreSweptOnTheNextWrite) {
    fs::create_directories(configFolder_);
    writeFile(configFolder_ / ".tessarin-settings.json-Ab12Cd", "{\"half");
    writeFile(configFolder_ / ".tessarin-other.json-Ab12Cd", "{}");
    writeFile(configFolder_ / ".tessarin-settings.json-longer-name", "{}");

    SettingsStore store(settingsFile_);
    store.setBool("a", true);
    EXPECT_EQ(namesStartingWith(configFolder_, ".tessarin-"),
              (std::vector<std::string>{".tessarin-other.json-Ab12Cd",
                                        ".tessarin-settings.json-longer-name"}));
}

struct CorruptCase {
    const char* name;
    std::string text;
    const char* reason;
};

class CorruptSettingsTest : public SettingsTest,
                            public ::testing::WithParamInterface<CorruptCase> {};

TEST_P(CorruptSettingsTest, ReadsAsEmptyIsKeptAsideAndAFreshFileIsWritten) {
    {
        SettingsStore store(settingsFile_);
        store.setString("old", "value");
    }
    const std::string corrupt = GetParam().text;
    writeFile(settingsFile_, corrupt);

    SettingsStore store(settingsFile_);
    EXPECT_EQ(store.keys(), std::vector<std::string>{});
    EXPECT_TRUE(store.exists());
    store.reload();  // the same bad file again: no second line
    const std::vector<std::string> lines = logLinesWith("event=settings-corrupt-read-as-empty");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(std::string("reason=") + GetParam().reason), std::string::npos)
        << lines[0];
    EXPECT_NE(lines[0].find("com.tessarin.settings"), std::string::npos) << lines[0];
    // Nothing moves before a write.
    EXPECT_EQ(readFile(settingsFile_), corrupt);

    store.setString("new", "value");
    EXPECT_EQ(store.keys(), std::vector<std::string>{"new"});
    EXPECT_EQ(json::parse(readFile(settingsFile_)), json({{"new", "value"}}));
    const std::vector<std::string> kept =
        namesStartingWith(configFolder_, "settings.json.corrupt-");
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(readFile(configFolder_ / kept[0]), corrupt);
    EXPECT_EQ(logLinesWith("event=settings-corrupt-read-as-empty").size(), 1u);
    EXPECT_EQ(logLinesWith("event=settings-corrupt-kept-aside").size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Files, CorruptSettingsTest,
    ::testing::Values(CorruptCase{"Truncated", R"({"old": "val)", "parse"},
                      CorruptCase{"Empty", "", "parse"},
                      CorruptCase{"Array", R"(["old", "value"])", "not-object"},
                      CorruptCase{"Number", "42", "not-object"},
                      CorruptCase{"NotUtf8", "{\"old\": \"caf\xe9\"}", "parse"},
                      CorruptCase{"NotUtf8Key", "{\"\xff\": 1}", "parse"},
                      CorruptCase{"TrailingGarbage", R"({"old": 1} x)", "parse"},
                      // The JSON reader stops at a NUL byte; what follows must still count.
                      CorruptCase{"NulThenGarbage", std::string("{\"old\": 1}\0x", 12), "parse"},
                      CorruptCase{"DeeplyNested", "{\"a\":" + std::string(100'000, '[') + "}",
                                  "too-deep"}),
    [](const ::testing::TestParamInfo<CorruptCase>& info) { return info.param.name; });

TEST_F(SettingsTest, AnOversizedFileIsNotReadButKeptAside) {
    fs::create_directories(configFolder_);
    writeFile(settingsFile_, "{}");
    ASSERT_EQ(::truncate(settingsFile_.c_str(), kMaxSettingsFileBytes + 1), 0);

    SettingsStore store(settingsFile_);
    EXPECT_EQ(store.keys(), std::vector<std::string>{});
    const std::vector<std::string> lines = logLinesWith("event=settings-corrupt-read-as-empty");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("reason=too-large"), std::string::npos) << lines[0];

    store.setBool("a", true);
    const std::vector<std::string> kept =
        namesStartingWith(configFolder_, "settings.json.corrupt-");
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(fs::file_size(configFolder_ / kept[0]), kMaxSettingsFileBytes + 1);
    EXPECT_EQ(json::parse(readFile(settingsFile_)), json({{"a", true}}));
}

TEST_F(SettingsTest, CorruptCopiesAreNeverOverwritten) {
    SettingsStore store(settingsFile_);
    store.setBool("a", true);

    // Take every name a copy could get around now, so that the copies need suffixed names.
    std::vector<fs::path> decoys;
    const std::time_t now = std::time(nullptr);
    for (std::time_t t = now - 2; t <= now + 10; ++t) {
        std::tm parts{};
        ::gmtime_r(&t, &parts);
        char stamp[32];
        ASSERT_GT(std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &parts), 0u);
        decoys.push_back(configFolder_ / (std::string("settings.json.corrupt-") + stamp));
        writeFile(decoys.back(), "decoy");
    }

    writeFile(settingsFile_, "{\"first\":");
    store.reload();
    store.setBool("b", true);
    writeFile(settingsFile_, "{\"second\":");
    store.reload();
    store.setBool("c", true);

    for (const fs::path& decoy : decoys) {
        EXPECT_EQ(readFile(decoy), "decoy") << decoy;
    }
    std::vector<std::string> copies;
    for (const std::string& name : namesStartingWith(configFolder_, "settings.json.corrupt-")) {
        const std::string text = readFile(configFolder_ / name);
        if (text != "decoy") {
            // Each copy had to step past the taken names without touching them.
            EXPECT_TRUE(name.ends_with("-2") || name.ends_with("-3")) << name;
            copies.push_back(text);
        }
    }
    std::sort(copies.begin(), copies.end());
    EXPECT_EQ(copies, (std::vector<std::string>{"{\"first\":", "{\"second\":"}));
    EXPECT_EQ(store.keys(), std::vector<std::string>{"c"});
}

TEST_F(SettingsTest, AParentThatIsAFileGivesACleanError) {
    writeFile(folder_ / "config", "not a folder");
    SettingsStore store(settingsFile_);
    EXPECT_EQ(store.keys(), std::vector<std::string>{});
    EXPECT_FALSE(store.exists());
    try {
        store.setBool("a", true);
        FAIL() << "the write succeeded";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::not_a_directory);
        EXPECT_NE(std::string(error.what()).find("settings folder"), std::string::npos)
            << error.what();
    }
    EXPECT_EQ(readFile(folder_ / "config"), "not a folder");
}

TEST_F(SettingsTest, AnUnreadableFolderGivesACleanErrorAndKeepsTheFile) {
    {
        SettingsStore store(settingsFile_);
        store.setString("precious", "value");
    }
    const std::string before = readFile(settingsFile_);
    ASSERT_EQ(::chmod(folder_.c_str(), 0711), 0);
    ASSERT_EQ(::chmod((folder_ / "config").c_str(), 0711), 0);
    ASSERT_EQ(::chmod(configFolder_.c_str(), 0), 0);

    const int status = exitStatusInUnprivilegedChild([&] {
        SettingsStore store(settingsFile_);
        if (!store.keys().empty()) {
            return 1;
        }
        try {
            store.setString("other", "value");
            return 2;
        } catch (const std::system_error& error) {
            if (error.code() != std::errc::permission_denied) {
                return 3;
            }
            if (std::string(error.what()).find(settingsFile_.parent_path().string()) ==
                std::string::npos) {
                return 4;
            }
        }
        return store.keys().empty() ? 0 : 5;
    });
    EXPECT_EQ(status, 0);

    ASSERT_EQ(::chmod(configFolder_.c_str(), 0700), 0);
    EXPECT_EQ(readFile(settingsFile_), before);
    EXPECT_EQ(namesStartingWith(configFolder_, "settings.json.corrupt-"),
              std::vector<std::string>{});
}

TEST_F(SettingsTest, SomethingOtherThanAFileInItsPlaceIsRefusedWithoutHanging) {
    fs::create_directories(configFolder_);
    ASSERT_EQ(::mkfifo(settingsFile_.c_str(), 0600), 0);
    SettingsStore store(settingsFile_);
    EXPECT_EQ(store.keys(), std::vector<std::string>{});
    EXPECT_THROW(store.setBool("a", true), std::system_error);
    EXPECT_EQ(fs::status(settingsFile_).type(), fs::file_type::fifo);
    EXPECT_EQ(logLinesWith("event=settings-unreadable").size(), 1u);
}

TEST(SettingsLocation, ConfigHomeFollowsXdgThenHomeThenThePasswordEntry) {
    const passwd* entry = ::getpwuid(::getuid());
    ASSERT_NE(entry, nullptr);
    const struct {
        std::optional<std::string> xdg;
        std::optional<std::string> home;
        fs::path expected;
    } rows[] = {
        {"/somewhere/config", "/home/someone", "/somewhere/config"},
        // A relative or empty XDG_CONFIG_HOME is ignored.
        {"relative/config", "/home/someone", "/home/someone/.config"},
        {"", "/home/someone", "/home/someone/.config"},
        {std::nullopt, std::nullopt, fs::path(entry->pw_dir) / ".config"},
    };
    for (const auto& row : rows) {
        const ScopedEnv xdg("XDG_CONFIG_HOME", row.xdg);
        const ScopedEnv home("HOME", row.home);
        EXPECT_EQ(SettingsStore::configHome(), row.expected) << row.xdg.value_or("(unset)");
    }
}

TEST_F(SettingsTest, StandardAndSuiteStoresLieUnderConfigHome) {
    const ScopedEnv xdg("XDG_CONFIG_HOME", (folder_ / "config").string());
    SettingsStore standard = SettingsStore::standard();
    EXPECT_EQ(standard.file(), settingsFile_);
    const SettingsStore old = SettingsStore::suite("com.orchardine.tessarin");
    EXPECT_EQ(old.file(), folder_ / "config" / "com.orchardine.tessarin" / "settings.json");

    standard.setBool("didMigrateFromOrchardineDefaults", true);
    EXPECT_FALSE(old.exists());
    EXPECT_EQ(SettingsStore::standard().boolValue("didMigrateFromOrchardineDefaults"), true);

    EXPECT_THROW((void)SettingsStore::suite(""), std::invalid_argument);
    EXPECT_THROW((void)SettingsStore::suite(".."), std::invalid_argument);
    EXPECT_THROW((void)SettingsStore::suite("a/b"), std::invalid_argument);
}

TEST_F(SettingsTest, AMovedStoreKeepsItsFileAndValues) {
    SettingsStore store(settingsFile_);
    store.setInteger("a", 1);
    std::optional<SettingsStore> holder;
    holder.emplace(std::move(store));
    EXPECT_EQ(holder->integerValue("a"), 1);
    holder->setInteger("b", 2);
    EXPECT_EQ(SettingsStore(settingsFile_).keys(), (std::vector<std::string>{"a", "b"}));
}

}  // namespace
}  // namespace tessarin::engine::testing
