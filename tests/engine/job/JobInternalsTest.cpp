// The friendly decoder sentences and the work-folder toucher.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>

#include "engine/job/internal/DecoderComplaints.hpp"
#include "engine/publish/FolderToucher.hpp"
#include "tests/engine/job/JobTestSupport.hpp"
#include "tests/support/TempDir.hpp"

namespace tessarin::test {
namespace {

using engine::FolderToucher;
using engine::job_internal::friendlyDecoderComplaint;
using engine::job_internal::toolFailureText;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(DecoderComplaints, KnownComplaintsGetASentenceFirst) {
    const std::string hevc = "[mov @ 0x1] No decoder found for: HEVC\nConversion failed!";
    EXPECT_THAT(toolFailureText(hevc), StartsWith("H.265 (HEVC) video isn't supported"));
    EXPECT_THAT(toolFailureText(hevc), HasSubstr(".\n\n" + hevc));

    for (const std::string av1 :
         {"Your platform doesn't Support hardware accelerated AV1 decoding.",
          "no decoder found for: av1"}) {
        EXPECT_THAT(friendlyDecoderComplaint(av1).value_or(""), StartsWith("This is an AV1 video"))
            << av1;
    }
    EXPECT_FALSE(friendlyDecoderComplaint("No decoder found for: h264"));
    EXPECT_EQ(toolFailureText("Invalid data found when processing input"),
              "Invalid data found when processing input");
}

TEST(FolderToucher, KeepsTheFolderFresh) {
    TempDir folder;
    const struct timespec past = {::time(nullptr) - 100'000, 0};
    const struct timespec times[2] = {past, past};
    ASSERT_EQ(::utimensat(AT_FDCWD, folder.path().c_str(), times, 0), 0);
    const auto modified = [&] {
        struct stat st {};
        ::stat(folder.path().c_str(), &st);
        return st.st_mtim.tv_sec;
    };
    FolderToucher toucher(folder.path(), std::chrono::milliseconds(5));
    EXPECT_TRUE(waitUntil([&] { return modified() > past.tv_sec + 50'000; }));
    toucher.stop();
    ASSERT_EQ(::utimensat(AT_FDCWD, folder.path().c_str(), times, 0), 0);
    // Stopped means stopped: nothing touches the folder after stop() returned.
    EXPECT_EQ(modified(), past.tv_sec);
}

}  // namespace
}  // namespace tessarin::test
