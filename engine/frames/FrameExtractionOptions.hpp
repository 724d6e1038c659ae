// What a frame export is asked for, its checks, and the ffmpeg argument vectors of its two
// passes. Pure values and functions: any thread.
#pragma once

#include <cstdint>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/frames/FrameTypes.hpp"
#include "engine/model/Preset.hpp"

namespace tessarin::engine {

enum class FrameImageFormat { jpeg, png };

// "jpeg"/"png", and the file extension "jpg"/"png".
[[nodiscard]] std::string_view rawValue(FrameImageFormat format);
[[nodiscard]] std::string_view fileExtension(FrameImageFormat format);
[[nodiscard]] std::optional<FrameImageFormat> frameImageFormatFromRaw(std::string_view raw);

struct FrameExtractionOptions {
    // A refused option; what() is the sentence for the user.
    class Invalid : public std::exception {
    public:
        enum class Kind { maxFrames, maxSize };
        explicit Invalid(Kind kind) noexcept : kind_(kind) {}
        [[nodiscard]] Kind kind() const noexcept { return kind_; }
        [[nodiscard]] const char* what() const noexcept override;

    private:
        Kind kind_;
    };

    static constexpr int64_t kMinimumFrames = 2;
    static constexpr int64_t kMaximumFrames = 1000;
    static constexpr int64_t kMinimumSize = 64;
    static constexpr int64_t kMaximumSize = 2576;
    static constexpr int64_t kDefaultSize = 1568;

    FrameSelectionMode mode = FrameSelectionMode::changes;
    std::optional<int64_t> maxFrames;  // absent: chosen from the window's length
    int64_t maxSize = kDefaultSize;    // long edge of the written pictures, in pixels
    FrameImageFormat format = FrameImageFormat::jpeg;
    Trim trim;
    bool contactSheet = true;

    // Throws Invalid when maxFrames is outside 2 to 1000 or maxSize outside 64 to 2576.
    void validate() const;

    bool operator==(const FrameExtractionOptions&) const = default;
};

// The budget when none is asked for: one frame per 5 s of the window, 24 to 1000.
[[nodiscard]] int64_t automaticFrameBudget(double windowSeconds);

// The bytes a frame export of `frames` may need on its destination.
[[nodiscard]] int64_t frameExportBytesNeeded(int64_t frames);

// ffmpeg's scale filter holding the long edge to `edge` without upscaling; the other edge is
// `freeEdge` (-1 keeps the aspect, -2 keeps it on an even number).
[[nodiscard]] std::string longEdgeScale(int64_t edge, int64_t freeEdge);

// The analysis pass: tiny gray frames on standard output, the showinfo log on standard error.
[[nodiscard]] std::vector<std::string> frameAnalysisArguments(const std::filesystem::path& input,
                                                              double start, double window,
                                                              bool av1);

// The select expression that keeps exactly the frames with these timestamps.
[[nodiscard]] std::string frameSelectExpression(const std::vector<int64_t>& pts);

// The extraction pass: the selected frames as numbered pictures in `outLink`, progress of the
// whole range on standard output.
[[nodiscard]] std::vector<std::string> frameExtractionArguments(
    const std::filesystem::path& input, const std::filesystem::path& outLink, double start,
    double window, const std::vector<int64_t>& pts, int64_t maxSize, FrameImageFormat format,
    bool av1);

}  // namespace tessarin::engine
