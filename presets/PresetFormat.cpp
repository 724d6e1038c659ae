#include "presets/PresetFormat.hpp"

#include <algorithm>

namespace tessarin::presets {

namespace {

using engine::OutputFormat;
using engine::VideoCodec;

struct FormatRow {
    PresetFormat format;
    std::string_view raw;
    std::string_view label;
    VideoCodec codec;
    bool isWebM;
    std::string_view extension;
    int defaultQuality;
    QualityRange range;
    bool speedPreset;
};

// One row per format, in enumeration order. The GIF row's codec is unused.
constexpr std::array<FormatRow, 7> kFormatRows = {{
    {PresetFormat::gif, "gif", "GIF", VideoCodec::h264, false, "gif", 0, {0, 63}, false},
    {PresetFormat::h264, "h264", "H.264", VideoCodec::h264, false, "mp4", 23, {0, 63}, true},
    {PresetFormat::h265, "h265", "H.265", VideoCodec::h265, false, "mp4", 28, {0, 51}, true},
    {PresetFormat::av1, "av1", "AV1", VideoCodec::av1, false, "mp4", 32, {0, 63}, false},
    {PresetFormat::vp9, "vp9", "VP9", VideoCodec::vp9, true, "webm", 33, {0, 63}, false},
    {PresetFormat::h264VT,
     "h264VT",
     "H.264 hardware",
     VideoCodec::h264VT,
     false,
     "mp4",
     50,
     {1, 100},
     false},
    {PresetFormat::hevcVT,
     "hevcVT",
     "H.265 hardware",
     VideoCodec::hevcVT,
     false,
     "mp4",
     50,
     {1, 100},
     false},
}};

const FormatRow& row(PresetFormat format) {
    return kFormatRows[static_cast<std::size_t>(format)];
}

}  // namespace

int QualityRange::clamp(int quality) const {
    return std::clamp(quality, low, high);
}

std::string_view rawValue(PresetFormat format) {
    return row(format).raw;
}

std::optional<PresetFormat> presetFormatFromRawValue(std::string_view raw) {
    for (const FormatRow& candidate : kFormatRows) {
        if (candidate.raw == raw) {
            return candidate.format;
        }
    }
    return std::nullopt;
}

std::string_view label(PresetFormat format) {
    return row(format).label;
}

OutputFormat outputFormat(PresetFormat format) {
    const FormatRow& r = row(format);
    if (format == PresetFormat::gif) {
        return OutputFormat::gif();
    }
    return r.isWebM ? OutputFormat::webm(r.codec) : OutputFormat::mp4(r.codec);
}

std::string_view fileExtension(PresetFormat format) {
    return row(format).extension;
}

int defaultQuality(PresetFormat format) {
    return row(format).defaultQuality;
}

QualityRange qualityRange(PresetFormat format) {
    return row(format).range;
}

bool speedPresetApplies(PresetFormat format) {
    return row(format).speedPreset;
}

PresetFormat presetFormat(const OutputFormat& format) {
    switch (format.kind) {
        case OutputFormat::Kind::gif:
            return PresetFormat::gif;
        case OutputFormat::Kind::webm:
            return PresetFormat::vp9;
        case OutputFormat::Kind::mp4:
            break;
    }
    switch (format.codec) {
        case VideoCodec::h264:
            return PresetFormat::h264;
        case VideoCodec::h265:
            return PresetFormat::h265;
        case VideoCodec::av1:
            return PresetFormat::av1;
        case VideoCodec::vp9:
            return PresetFormat::vp9;
        case VideoCodec::h264VT:
            return PresetFormat::h264VT;
        case VideoCodec::hevcVT:
            return PresetFormat::hevcVT;
    }
    return PresetFormat::h264;
}

}  // namespace tessarin::presets
