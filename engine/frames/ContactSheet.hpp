// Overview pictures of a frame export: the frames as a labelled grid in one JPEG, so that a person
// or a model can take in the whole video at a glance. It only draws; the extraction job picks the
// file names and records the sheets in the manifest.
//
//   for (ContactSheet::Range range : ContactSheet::batches(frameCount)) {
//       std::vector<ContactSheet::Tile> tiles = ...;  // frames range.first ... range.last
//       std::vector<unsigned char> jpeg = ContactSheet::render(tiles, 1080.0 / 1920.0);
//   }
//
// Drawing is done by libvips, which is initialised on first use (once per process, from any
// thread). Every function may be called from any thread, also at the same time.
#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tessarin::engine {

class ContactSheet {
public:
    ContactSheet() = delete;

    static constexpr int64_t kMaxTiles = 36;  // on one sheet
    static constexpr int64_t kMaxColumns = 6;
    static constexpr int64_t kGap = 8;              // around and between tiles, in pixels
    static constexpr int64_t kLabelHeight = 20;     // the strip under each tile
    static constexpr int64_t kHeightBudget = 2576;  // for the whole canvas
    static constexpr int64_t kMaxTileWidth = 320;
    static constexpr int kJpegQuality = 82;
    // batches() and geometry() take at most this many frames, which keeps their arithmetic in
    // range; the frame budget is far below it.
    static constexpr int64_t kCountLimit = 1'000'000;

    struct Tile {
        std::filesystem::path image;  // the frame's picture
        int64_t index = 0;            // one-based
        double time = 0;              // seconds

        bool operator==(const Tile&) const = default;
    };

    // The one-based frames of one sheet, first to last inclusive.
    struct Range {
        int64_t first = 0;
        int64_t last = 0;

        bool operator==(const Range&) const = default;
    };

    struct Geometry {
        int64_t columns = 0;
        int64_t rows = 0;
        int64_t tileWidth = 0;
        int64_t tileHeight = 0;
        int64_t canvasWidth = 0;
        int64_t canvasHeight = 0;

        bool operator==(const Geometry&) const = default;
    };

    // Why a sheet could not be made. The job drops all sheets on any of them and goes on.
    class Failure : public std::exception {
    public:
        enum class Kind { unreadableFrame, drawing, encoding };

        Failure(Kind kind, std::string detail) : kind_(kind), detail_(std::move(detail)) {}

        [[nodiscard]] Kind kind() const noexcept { return kind_; }
        // The case and what libvips said, for the log; not a sentence for the user.
        [[nodiscard]] const char* what() const noexcept override { return detail_.c_str(); }

    private:
        Kind kind_;
        std::string detail_;
    };

    // The sheets for `count` frames, balanced: (count + 35) / 36 sheets, sheet k covering
    // k * count / s + 1 through (k + 1) * count / s. 37 frames give 1-18 and 19-37. Empty for a
    // count below 1. Throws std::invalid_argument above kCountLimit.
    [[nodiscard]] static std::vector<Range> batches(int64_t count);

    // The grid for `count` tiles of a frame whose height divided by its width is `aspect`. The
    // tile height sets the size, so a tall frame gets narrow tiles. A count below 1 counts as 1; a
    // non-finite or non-positive aspect counts as 1, and any aspect is held to 0.001 through 1000.
    // Throws std::invalid_argument for a count above kCountLimit.
    [[nodiscard]] static Geometry geometry(int64_t count, double aspect);

    // The sheet for `tiles` as JPEG data, laid out by geometry(tiles.size(), aspect): each frame
    // as a thumbnail no larger than its tile (orientation applied), centred in its cell, with
    // labelText under it in "DejaVu Sans 12" (the fallback font when that is missing), on a gray
    // of 0.12. Throws Failure: unreadableFrame when a frame can't be read or decoded, drawing when
    // there are no tiles or libvips, the canvas or a label can't be made,
    // encoding when the JPEG encoder fails. At most kMaxTiles tiles (more is `drawing`). Blocking;
    // reads the frames; frees the calling thread's libvips buffers before it returns.
    [[nodiscard]] static std::vector<unsigned char> render(std::span<const Tile> tiles,
                                                           double aspect);

    // The label under a tile: "{index} · {time}", the time as "%d:%02d.%d" below an hour and
    // "%d:%02d:%02d.%d" from an hour on, to the nearest tenth of a second: "3 · 1:12.5".
    [[nodiscard]] static std::string labelText(int64_t index, double time);
};

}  // namespace tessarin::engine
