#include "engine/desktop/RemoteShares.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "tests/support/Files.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::engine {
namespace {

TEST(RemoteShares, OnlyLocalHostNamesBecomeURLs) {
    EXPECT_EQ(smbURLForHost("mac.local."), "smb://mac.local/");
    EXPECT_EQ(smbURLForHost("NAS-2.Office.LOCAL"), "smb://NAS-2.Office.LOCAL/");
    for (const char* refused : {"mac.example", ".local", "a..local", "a b.local", "", ".",
                                "nas.local/evil", "nas.local:445", "nas.local..", "@x.local"}) {
        EXPECT_EQ(smbURLForHost(refused), std::nullopt) << refused;
    }
}

TEST(RemoteShares, ErrorsReadAsTheirSentences) {
    using Kind = RemoteShareError::Kind;
    EXPECT_EQ((RemoteShareError{Kind::mountFailed, 13}).message(),
              "Sign-in was declined. Check the account and password.");
    EXPECT_EQ((RemoteShareError{Kind::mountFailed, 80}).message(),
              "Sign-in was declined. Check the account and password.");
    EXPECT_EQ((RemoteShareError{Kind::mountFailed, 65}).message(),
              "That computer isn’t reachable. Check it’s awake and file sharing is on.");
    EXPECT_EQ((RemoteShareError{Kind::mountFailed, 2}).message(),
              "Couldn’t connect to that computer (error 2).");
    EXPECT_EQ((RemoteShareError{Kind::resolveFailed, 0}).message(),
              "Couldn’t find that computer on the network. Check it’s awake and file sharing is "
              "on.");
}

// gio as a small script: its message decides the sentence; a bad host never reaches it.
TEST(RemoteShares, MountsThroughGioAndMapsItsFailures) {
    test::TempDir folder;
    const auto gio = folder / "gio";
    const auto args = folder / "args";
    test::writeFile(gio,
                    "#!/bin/sh\necho \"$@\" >> '" + args.string() +
                        "'\ncase \"$2\" in\n"
                        "  smb://ok.local/) exit 0 ;;\n"
                        "  smb://locked.local/) echo 'gio: smb://locked.local/: Failed to mount "
                        "Windows share: Permission denied' >&2; exit 2 ;;\n"
                        "  smb://gone.local/) echo 'gio: No route to host' >&2; exit 2 ;;\n"
                        "  *) sleep 30 ;;\n"
                        "esac\n",
                    0755);
    auto mounter = makeGioMounter(gio);
    EXPECT_EQ(mounter->mount({"NAS", "local", 1, "ok.local."}), "smb://ok.local/");
    for (const auto& [host, status] : {std::pair{"locked.local", 13}, std::pair{"gone.local", 65}}) {
        try {
            static_cast<void>(mounter->mount({"x", "local", 1, host}));
            ADD_FAILURE() << host;
        } catch (const RemoteShareError& error) {
            EXPECT_EQ(error.kind, RemoteShareError::Kind::mountFailed);
            EXPECT_EQ(error.status, status) << host;
        }
    }
    try {
        static_cast<void>(mounter->mount({"evil", "local", 1, "evil.example"}));
        ADD_FAILURE() << "mounted a host outside .local";
    } catch (const RemoteShareError& error) {
        EXPECT_EQ(error.kind, RemoteShareError::Kind::resolveFailed);
    }
    EXPECT_EQ(test::readFile(args),
              "mount smb://ok.local/\nmount smb://locked.local/\nmount smb://gone.local/\n");

    // A cancel from another thread ends a mount that hangs.
    std::thread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        mounter->cancel();
    });
    const auto start = std::chrono::steady_clock::now();
    try {
        static_cast<void>(mounter->mount({"slow", "local", 1, "slow.local"}));
        ADD_FAILURE() << "a cancelled mount succeeded";
    } catch (const RemoteShareError& error) {
        EXPECT_EQ(error.status, -1);
    }
    canceller.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

// No avahi-daemon runs on the test machines: browsing says so in its sentence, at once.
TEST(RemoteShares, BrowsingWithoutAnAvahiDaemonFailsInWords) {
    std::mutex mutex;
    std::condition_variable changed;
    std::optional<std::string> error;
    auto browser = makeAvahiBrowser();
    browser->start([](std::vector<DiscoveredHost>) {},
                   [&](std::string text) {
                       const std::lock_guard lock(mutex);
                       error = std::move(text);
                       changed.notify_all();
                   });
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(10), [&] { return error.has_value(); }));
    }
    EXPECT_EQ(*error, kBrowseFailed);
    browser->stop();
}

}  // namespace
}  // namespace tessarin::engine
