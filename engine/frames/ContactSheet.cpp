#include "engine/frames/ContactSheet.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <vips/vips8>

namespace tessarin::engine {

namespace {

using Kind = ContactSheet::Failure::Kind;
using vips::VImage;

// 0.12 and 0.85 of full scale in 8-bit sRGB, rounded.
const std::vector<double> kBackground = {31, 31, 31};
const std::vector<double> kLabelInk = {217, 217, 217};
constexpr const char* kLabelFont = "DejaVu Sans 12";
// A frame file is at most a few megabytes; anything this large is not one of ours.
constexpr off_t kFrameFileLimit = 256 * 1024 * 1024;

// Takes libvips's message (its error buffer is shared by every thread, so it is cleared after
// each use to keep one failure's text out of the next).
[[noreturn]] void fail(Kind kind, std::string_view context, const vips::VError& error) {
    std::string detail = fmt::format("{}: {}", context, error.what());
    vips_error_clear();
    throw ContactSheet::Failure(kind, std::move(detail));
}

// libvips is initialised once for the process, on whichever thread first draws.
void startVips() {
    static const std::optional<std::string> problem = []() -> std::optional<std::string> {
        if (VIPS_INIT("tessarin") != 0) {
            std::string text = vips_error_buffer();
            vips_error_clear();
            return text.empty() ? "libvips could not start" : text;
        }
        // Nothing is ever drawn twice, and a cached load keyed by a reused buffer address could
        // hand back another frame.
        vips_cache_set_max(0);
        return std::nullopt;
    }();
    if (problem) {
        throw ContactSheet::Failure(Kind::drawing, *problem);
    }
}

// libvips keeps per-thread buffers that only this call frees; a caller's thread pool would
// otherwise hold them for as long as its threads live.
class VipsThreadCleanup {
public:
    VipsThreadCleanup() = default;
    VipsThreadCleanup(const VipsThreadCleanup&) = delete;
    VipsThreadCleanup& operator=(const VipsThreadCleanup&) = delete;
    ~VipsThreadCleanup() { vips_thread_shutdown(); }
};

std::string readFrameFile(const std::filesystem::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        throw ContactSheet::Failure(Kind::unreadableFrame,
                                    fmt::format("{}: {}", path.string(), std::strerror(errno)));
    }
    std::string bytes;
    int error = 0;
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        error = errno;
    } else if (!S_ISREG(status.st_mode) || status.st_size > kFrameFileLimit) {
        error = EINVAL;
    } else {
        bytes.resize(static_cast<std::size_t>(status.st_size));
        std::size_t filled = 0;
        while (filled < bytes.size()) {
            const ssize_t count = ::read(fd, bytes.data() + filled, bytes.size() - filled);
            if (count < 0 && errno == EINTR) {
                continue;
            }
            if (count <= 0) {
                error = count < 0 ? errno : EIO;
                break;
            }
            filled += static_cast<std::size_t>(count);
        }
    }
    ::close(fd);
    if (error != 0) {
        throw ContactSheet::Failure(Kind::unreadableFrame,
                                    fmt::format("{}: {}", path.string(), std::strerror(error)));
    }
    return bytes;
}

// The frame shrunk on load to fit the tile, upright, as 8-bit sRGB without alpha, decoded into
// memory so that a damaged file fails here rather than while drawing.
VImage thumbnail(const ContactSheet::Tile& tile, const ContactSheet::Geometry& geometry) {
    const std::string bytes = readFrameFile(tile.image);
    try {
        const vips::VSource source = vips::VSource::new_from_memory(bytes.data(), bytes.size());
        VImage image =
            VImage::thumbnail_source(source, static_cast<int>(geometry.tileWidth),
                                     VImage::option()
                                         ->set("height", static_cast<int>(geometry.tileHeight))
                                         ->set("size", VIPS_SIZE_DOWN)
                                         ->set("fail_on", VIPS_FAIL_ON_ERROR));
        image = image.colourspace(VIPS_INTERPRETATION_sRGB);
        if (image.has_alpha()) {
            image = image.flatten(VImage::option()->set("background", kBackground));
        }
        if (image.bands() > 3) {
            image = image.extract_band(0, VImage::option()->set("n", 3));
        }
        return image.cast(VIPS_FORMAT_UCHAR).copy_memory();
    } catch (const vips::VError& error) {
        fail(Kind::unreadableFrame, tile.image.string(), error);
    }
}

VImage blankCanvas(const ContactSheet::Geometry& geometry) {
    try {
        const VImage black = VImage::black(static_cast<int>(geometry.canvasWidth),
                                           static_cast<int>(geometry.canvasHeight),
                                           VImage::option()->set("bands", 3));
        return black.new_from_image(kBackground)
            .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB))
            .copy_memory();
    } catch (const vips::VError& error) {
        fail(Kind::drawing, "canvas", error);
    }
}

// Draws the thumbnail centred in the tile whose top left corner is (x, y), and the label centred
// in the strip under it, cut to the tile's width so that it never runs into a neighbour.
void drawTile(VImage& canvas, const VImage& picture, const std::string& label, int64_t x, int64_t y,
              const ContactSheet::Geometry& geometry) {
    try {
        canvas.draw_image(picture, static_cast<int>(x + (geometry.tileWidth - picture.width()) / 2),
                          static_cast<int>(y + (geometry.tileHeight - picture.height()) / 2));
        VImage mask = VImage::text(label.c_str(), VImage::option()->set("font", kLabelFont));
        const int width = std::min(mask.width(), static_cast<int>(geometry.tileWidth));
        const int height = std::min(mask.height(), static_cast<int>(ContactSheet::kLabelHeight));
        mask = mask.crop((mask.width() - width) / 2, (mask.height() - height) / 2, width, height);
        const int64_t stripTop = y + geometry.tileHeight;
        canvas.draw_mask(kLabelInk, mask, static_cast<int>(x + (geometry.tileWidth - width) / 2),
                         static_cast<int>(stripTop + (ContactSheet::kLabelHeight - height) / 2));
    } catch (const vips::VError& error) {
        fail(Kind::drawing, label, error);
    }
}

std::vector<unsigned char> encodedJpeg(const VImage& canvas) {
    void* buffer = nullptr;
    std::size_t size = 0;
    try {
        canvas.write_to_buffer(
            ".jpg", &buffer, &size,
            VImage::option()->set("Q", ContactSheet::kJpegQuality)->set("strip", true));
    } catch (const vips::VError& error) {
        fail(Kind::encoding, "JPEG", error);
    }
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    std::vector<unsigned char> data(bytes, bytes + size);
    g_free(buffer);
    return data;
}

}  // namespace

std::vector<ContactSheet::Range> ContactSheet::batches(int64_t count) {
    if (count > kCountLimit) {
        throw std::invalid_argument("too many frames for contact sheets");
    }
    std::vector<Range> ranges;
    if (count < 1) {
        return ranges;
    }
    const int64_t sheets = (count + kMaxTiles - 1) / kMaxTiles;
    for (int64_t k = 0; k < sheets; ++k) {
        ranges.push_back({.first = k * count / sheets + 1, .last = (k + 1) * count / sheets});
    }
    return ranges;
}

ContactSheet::Geometry ContactSheet::geometry(int64_t count, double aspect) {
    if (count > kCountLimit) {
        throw std::invalid_argument("too many tiles for a contact sheet");
    }
    count = std::max<int64_t>(count, 1);
    if (!std::isfinite(aspect) || aspect <= 0) {
        aspect = 1;
    }
    aspect = std::clamp(aspect, 0.001, 1000.0);

    Geometry result;
    result.columns = static_cast<int64_t>(std::ceil(std::sqrt(static_cast<double>(count) * 1.5)));
    result.columns = std::min(result.columns, count < 7 ? count : kMaxColumns);
    result.columns = std::max<int64_t>(result.columns, 1);
    result.rows = (count + result.columns - 1) / result.columns;

    const int64_t gaps = result.rows * kGap + kGap;
    const int64_t cellHeight = (kHeightBudget - gaps) / result.rows;
    const double width = std::trunc(static_cast<double>(cellHeight - kLabelHeight) / aspect);
    result.tileWidth = width >= static_cast<double>(kMaxTileWidth) ? kMaxTileWidth
                       : width >= 1                                ? static_cast<int64_t>(width)
                                                                   : 1;
    result.tileHeight =
        std::max<int64_t>(std::llround(static_cast<double>(result.tileWidth) * aspect), 1);
    result.canvasWidth = (result.tileWidth + kGap) * result.columns + kGap;
    result.canvasHeight = result.rows * (result.tileHeight + kLabelHeight) + gaps;
    return result;
}

std::string ContactSheet::labelText(int64_t index, double time) {
    // Held far below where tenths would leave int64_t.
    const double seconds = std::isfinite(time) ? std::clamp(time, 0.0, 1e12) : 0.0;
    const int64_t tenths = std::llround(seconds * 10);
    const int64_t tenth = tenths % 10;
    const int64_t second = tenths / 10 % 60;
    const int64_t minutes = tenths / 600;
    const std::string shown = minutes < 60 ? fmt::format("{}:{:02d}.{}", minutes, second, tenth)
                                           : fmt::format("{}:{:02d}:{:02d}.{}", minutes / 60,
                                                         minutes % 60, second, tenth);
    return fmt::format("{} \u00B7 {}", index, shown);
}

std::vector<unsigned char> ContactSheet::render(std::span<const Tile> tiles, double aspect) {
    if (tiles.empty() || tiles.size() > static_cast<std::size_t>(kMaxTiles)) {
        throw Failure(Kind::drawing, fmt::format("{} tiles for one sheet", tiles.size()));
    }
    startVips();
    // Declared before every image, so that it runs after they are all released.
    const VipsThreadCleanup cleanup;
    const Geometry grid = geometry(static_cast<int64_t>(tiles.size()), aspect);
    VImage canvas = blankCanvas(grid);
    for (std::size_t i = 0; i < tiles.size(); ++i) {
        const auto column = static_cast<int64_t>(i) % grid.columns;
        const auto row = static_cast<int64_t>(i) / grid.columns;
        const VImage picture = thumbnail(tiles[i], grid);
        drawTile(canvas, picture, labelText(tiles[i].index, tiles[i].time),
                 kGap + column * (grid.tileWidth + kGap),
                 kGap + row * (grid.tileHeight + kLabelHeight + kGap), grid);
    }
    return encodedJpeg(canvas);
}

}  // namespace tessarin::engine
