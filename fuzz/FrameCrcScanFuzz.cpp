// Arbitrary text as ffmpeg's framecrc listing of one segment: the reading never fails, a video
// span is present only with a video stream and is finite and never negative, no more streams are
// counted than the header describes, and the span doesn't depend on the order of the packet lines
// (a segment's readable length is a property of its packets, not of how they were interleaved).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/recording/FrameCrcScan.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::FrameCrcScan;
using tessarin::fuzz::require;

std::vector<std::string_view> linesOf(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        lines.push_back(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    }
    return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<std::string_view> lines =
        linesOf(std::string_view(reinterpret_cast<const char*>(data), size));
    FrameCrcScan scan;
    std::vector<std::string_view> headers;
    std::vector<std::string_view> packets;
    for (const std::string_view line : lines) {
        scan.addLine(line);
        (!line.empty() && line.front() == '#' ? headers : packets).push_back(line);
    }
    const auto typeLines = [&](std::string_view type) {
        return std::count_if(headers.begin(), headers.end(), [type](std::string_view line) {
            return line.starts_with("#media_type") && line.find(type) != std::string_view::npos;
        });
    };
    require(scan.videoStreams() <= typeLines("video"), "no more video streams than described");
    require(scan.audioStreams() <= typeLines("audio"), "no more audio streams than described");
    const std::optional<double> span = scan.videoSeconds();
    if (span) {
        require(scan.videoStreams() >= 1, "a video span needs a video stream");
        require(std::isfinite(*span) && *span >= 0, "a span is finite and not negative");
    }

    // The same header, then the packet lines in reverse order.
    FrameCrcScan reordered;
    for (const std::string_view line : headers) {
        reordered.addLine(line);
    }
    for (auto it = packets.rbegin(); it != packets.rend(); ++it) {
        reordered.addLine(*it);
    }
    // Header lines mixed among packets count only from where they stand, so the comparison
    // holds when every header line came first.
    const bool headerFirst =
        std::find_if(lines.begin(), lines.end(), [](std::string_view line) {
            return line.empty() || line.front() != '#';
        }) == lines.begin() + static_cast<std::ptrdiff_t>(headers.size());
    if (headerFirst) {
        require(reordered.videoSeconds() == span, "packet order doesn't change the span");
        require(reordered.videoStreams() == scan.videoStreams(), "stream counts stay");
    }
    return 0;
}
