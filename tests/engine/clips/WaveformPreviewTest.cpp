// Waveform pictures from the real ffmpeg, decoded again with libvips to check what was drawn.
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vips/vips8>

#include "engine/clips/WaveformPreview.hpp"
#include "tests/support/TestMedia.hpp"

namespace tessarin::engine {
namespace {

using Kind = WaveformPreview::Failure::Kind;
using vips::VImage;

Tools helperTools() {
    const std::optional<Tools> tools = Tools::inBundle(test::helperDirectory());
    if (!tools) {
        throw std::runtime_error("no helper tools");
    }
    return *tools;
}

std::optional<Kind> failureOf(const std::filesystem::path& source, double start, double length) {
    try {
        ProcessRunner runner;
        (void)WaveformPreview::render(source, helperTools(), start, length, runner);
    } catch (const WaveformPreview::Failure& failure) {
        return failure.kind();
    }
    return std::nullopt;
}

// Opaque pixels in each column of x from `first` to before `last`: the height drawn there.
int tallestColumn(const VImage& alpha, int first, int last) {
    int tallest = 0;
    for (int x = first; x < last; ++x) {
        const VImage column = alpha.extract_area(x, 0, 1, alpha.height()) > 0;
        tallest = std::max(tallest, static_cast<int>(column.avg() / 255.0 * alpha.height() + 0.5));
    }
    return tallest;
}

// The tone sounds 0-2 s and 4-6 s of the clip and is silent from 6 s on: 120 pixels a second.
TEST(WaveformPreview, DrawsTenSecondsAt1200By120WithTheSilentEndFlat) {
    if (VIPS_INIT("tessarin_clips_media_test") != 0) {
        FAIL() << "libvips did not start";
    }
    ProcessRunner runner;
    const std::string png = WaveformPreview::render(test::testClip(test::TestClip::pausedTone),
                                                    helperTools(), 0, 10, runner);
    const VImage picture = VImage::new_from_buffer(png.data(), png.size(), "");
    ASSERT_EQ(picture.width(), 1200);
    ASSERT_EQ(picture.height(), 120);
    ASSERT_EQ(picture.bands(), 4);
    const VImage alpha = picture[3];
    EXPECT_GE(tallestColumn(alpha, 20, 220), 8);    // the tone
    EXPECT_LE(tallestColumn(alpha, 260, 460), 1);   // the pause
    EXPECT_LE(tallestColumn(alpha, 740, 1200), 1);  // the silent end
    // What is drawn is white.
    EXPECT_DOUBLE_EQ(picture[0].max(), 255.0);
}

TEST(WaveformPreview, RefusesOddWindowsAndSourcesWithoutAudio) {
    const std::filesystem::path clip = test::testClip(test::TestClip::pausedTone);
    EXPECT_EQ(failureOf(clip, 0, 30.1), Kind::range);
    EXPECT_EQ(failureOf(clip, 0, 0), Kind::range);
    EXPECT_EQ(failureOf(clip, -1, 5), Kind::range);
    EXPECT_EQ(failureOf(clip, std::nan(""), 5), Kind::range);
    // 30 seconds pass, also past the end of the audio.
    EXPECT_EQ(failureOf(clip, 0, 30), std::nullopt);
    EXPECT_EQ(failureOf(test::testClip(test::TestClip::h264NoAudio), 0, 1), Kind::unavailable);

    ProcessRunner cancelled;
    cancelled.cancel(ProcessRunner::kUserCancelGrace);
    try {
        (void)WaveformPreview::render(clip, helperTools(), 0, 1, cancelled);
        ADD_FAILURE() << "a cancelled render returned a picture";
    } catch (const WaveformPreview::Failure& failure) {
        EXPECT_EQ(failure.kind(), Kind::cancelled);
    }
}

}  // namespace
}  // namespace tessarin::engine
