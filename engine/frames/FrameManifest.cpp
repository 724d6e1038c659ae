#include "engine/frames/FrameManifest.hpp"

#include <fmt/format.h>

#include <cmath>
#include <limits>
#include <regex>
#include <utility>

namespace tessarin::engine {

namespace {

using nlohmann::json;

// ---- Encoding ------------------------------------------------------------------------------

double finite(double value, std::string_view key) {
    if (!std::isfinite(value)) {
        throw std::invalid_argument(fmt::format("{} is not a finite number", key));
    }
    return value;
}

double storedTime(double seconds, std::string_view key) {
    return roundedToMicroseconds(finite(seconds, key));
}

json encodedSheets(const std::vector<FrameManifest::Sheet>& sheets) {
    json array = json::array();
    for (const FrameManifest::Sheet& sheet : sheets) {
        array.push_back({
            {"file", sheet.file},
            {"firstFrame", sheet.firstFrame},
            {"lastFrame", sheet.lastFrame},
        });
    }
    return array;
}

json encodedSummary(const FrameManifest::Summary& summary) {
    return {
        {"candidates", summary.candidates},
        {"kept", summary.kept},
        {"prunedByBudget", summary.prunedByBudget},
    };
}

json encodedWarnings(const std::vector<FrameWarning>& warnings) {
    json array = json::array();
    for (FrameWarning warning : warnings) {
        array.push_back(rawValue(warning));
    }
    return array;
}

json encodedSource(const FrameManifest::Source& source) {
    json object = {
        {"name", source.name},
        {"bytes", source.bytes},
        {"modified", storedTime(source.modified, "source.modified")},
        {"durationSeconds", storedTime(source.durationSeconds, "source.durationSeconds")},
        {"width", source.width},
        {"height", source.height},
    };
    if (source.videoCodec) {
        object["videoCodec"] = *source.videoCodec;
    }
    return object;
}

json encodedFrame(const FrameManifest::Frame& frame) {
    json object = {
        {"index", frame.index},
        {"file", frame.file},
        {"time", storedTime(frame.time, "frames.time")},
        {"pts", frame.pts},
        {"timeBase", frame.timeBase},
        {"width", frame.width},
        {"height", frame.height},
        {"reason", rawValue(frame.reason)},
        {"holdsUntil", storedTime(frame.holdsUntil, "frames.holdsUntil")},
        {"followingSpanPruned", frame.followingSpanPruned},
    };
    if (frame.changedCells) {
        object["changedCells"] = *frame.changedCells;
    }
    return object;
}

// ---- Decoding ------------------------------------------------------------------------------

// A value inside the document being decoded, with its key path for error messages.
class Reader {
public:
    Reader(const json& value, std::string path) : value_(value), path_(std::move(path)) {}

    [[nodiscard]] Reader member(std::string_view key) const {
        std::optional<Reader> found = optionalMember(key);
        if (!found) {
            fail(fmt::format("missing key \"{}\"", key));
        }
        return *found;
    }

    // Absent or null gives nothing.
    [[nodiscard]] std::optional<Reader> optionalMember(std::string_view key) const {
        if (!value_.is_object()) {
            fail("not an object");
        }
        const auto found = value_.find(std::string(key));
        if (found == value_.end() || found->is_null()) {
            return std::nullopt;
        }
        return Reader(*found, path_.empty() ? std::string(key) : fmt::format("{}.{}", path_, key));
    }

    [[nodiscard]] std::vector<Reader> elements() const {
        if (!value_.is_array()) {
            fail("not an array");
        }
        std::vector<Reader> result;
        result.reserve(value_.size());
        for (std::size_t i = 0; i < value_.size(); ++i) {
            result.emplace_back(value_[i], fmt::format("{}[{}]", path_, i));
        }
        return result;
    }

    [[nodiscard]] int64_t integer() const {
        if (value_.is_number_unsigned()) {
            const auto value = value_.get<uint64_t>();
            if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
                fail("integer out of range");
            }
            return static_cast<int64_t>(value);
        }
        if (!value_.is_number_integer()) {
            fail("not an integer");
        }
        return value_.get<int64_t>();
    }

    [[nodiscard]] double number() const {
        if (!value_.is_number()) {
            fail("not a number");
        }
        return value_.get<double>();
    }

    [[nodiscard]] bool boolean() const {
        if (!value_.is_boolean()) {
            fail("not a Boolean");
        }
        return value_.get<bool>();
    }

    [[nodiscard]] std::string text() const {
        if (!value_.is_string()) {
            fail("not a string");
        }
        return value_.get<std::string>();
    }

    // A raw value of an enumeration, through its `fromRaw` function.
    template <typename Value>
    [[nodiscard]] Value raw(std::optional<Value> (*fromRaw)(std::string_view)) const {
        const std::string value = text();
        const std::optional<Value> decoded = fromRaw(value);
        if (!decoded) {
            fail(fmt::format("unknown value \"{}\"", value));
        }
        return *decoded;
    }

    [[noreturn]] void fail(std::string_view problem) const {
        throw FrameManifest::DecodingError(
            fmt::format("{}: {}", path_.empty() ? "manifest" : path_, problem));
    }

private:
    const json& value_;
    std::string path_;
};

FrameAnalysisSettings decodedAnalysis(const Reader& reader) {
    return {
        .gridLongEdge = reader.member("gridLongEdge").integer(),
        .pruneLongEdge = reader.member("pruneLongEdge").integer(),
        .cellDelta = reader.member("cellDelta").integer(),
        .minFraction = reader.member("minFraction").number(),
        .quietFraction = reader.member("quietFraction").number(),
        .settleSeconds = reader.member("settleSeconds").number(),
        .spacingSeconds = reader.member("spacingSeconds").number(),
        .activitySeconds = reader.member("activitySeconds").number(),
        .cutFraction = reader.member("cutFraction").number(),
        .cutHoldSeconds = reader.member("cutHoldSeconds").number(),
        .pruneGapFactor = reader.member("pruneGapFactor").number(),
    };
}

FrameManifest::Source decodedSource(const Reader& reader) {
    FrameManifest::Source source{
        .name = reader.member("name").text(),
        .bytes = reader.member("bytes").integer(),
        .modified = reader.member("modified").number(),
        .durationSeconds = reader.member("durationSeconds").number(),
        .width = reader.member("width").integer(),
        .height = reader.member("height").integer(),
        .videoCodec = std::nullopt,
    };
    if (const std::optional<Reader> codec = reader.optionalMember("videoCodec")) {
        source.videoCodec = codec->text();
    }
    return source;
}

FrameManifest::Settings decodedSettings(const Reader& reader) {
    return {
        .mode = reader.member("mode").raw(&frameSelectionModeFromRaw),
        .maxFrames = reader.member("maxFrames").integer(),
        .maxSize = reader.member("maxSize").integer(),
        .format = reader.member("format").raw(&frameImageFormatFromRaw),
        .analysis = decodedAnalysis(reader.member("analysis")),
    };
}

FrameManifest::Frame decodedFrame(const Reader& reader) {
    FrameManifest::Frame frame{
        .index = reader.member("index").integer(),
        .file = reader.member("file").text(),
        .time = reader.member("time").number(),
        .pts = reader.member("pts").integer(),
        .timeBase = reader.member("timeBase").text(),
        .width = reader.member("width").integer(),
        .height = reader.member("height").integer(),
        .reason = reader.member("reason").raw(&frameReasonFromRaw),
        .changedCells = std::nullopt,
        .holdsUntil = reader.member("holdsUntil").number(),
        .followingSpanPruned = reader.member("followingSpanPruned").boolean(),
    };
    if (const std::optional<Reader> cells = reader.optionalMember("changedCells")) {
        frame.changedCells = cells->integer();
    }
    return frame;
}

FrameManifest::Sheet decodedSheet(const Reader& reader) {
    return {
        .file = reader.member("file").text(),
        .firstFrame = reader.member("firstFrame").integer(),
        .lastFrame = reader.member("lastFrame").integer(),
    };
}

FrameManifest decodedManifest(const Reader& reader) {
    FrameManifest manifest;
    manifest.version = reader.member("version").integer();
    manifest.source = decodedSource(reader.member("source"));
    const Reader window = reader.member("window");
    manifest.window = {.start = window.member("start").number(),
                       .end = window.member("end").number()};
    manifest.decodedUntil = reader.member("decodedUntil").number();
    manifest.settings = decodedSettings(reader.member("settings"));
    const Reader summary = reader.member("summary");
    manifest.summary = {.candidates = summary.member("candidates").integer(),
                        .kept = summary.member("kept").integer(),
                        .prunedByBudget = summary.member("prunedByBudget").integer()};
    for (const Reader& frame : reader.member("frames").elements()) {
        manifest.frames.push_back(decodedFrame(frame));
    }
    for (const Reader& warning : reader.member("warnings").elements()) {
        manifest.warnings.push_back(warning.raw(&frameWarningFromRaw));
    }
    if (const std::optional<Reader> sheets = reader.optionalMember("contactSheets")) {
        manifest.contactSheets.emplace();
        for (const Reader& sheet : sheets->elements()) {
            manifest.contactSheets->push_back(decodedSheet(sheet));
        }
    }
    return manifest;
}

}  // namespace

// ---- FrameManifest -----------------------------------------------------------------------------

json FrameManifest::encoded() const {
    json frameArray = json::array();
    for (const Frame& frame : frames) {
        frameArray.push_back(encodedFrame(frame));
    }
    json object = {
        {"version", version},
        {"source", encodedSource(source)},
        {"window",
         {{"start", storedTime(window.start, "window.start")},
          {"end", storedTime(window.end, "window.end")}}},
        {"decodedUntil", storedTime(decodedUntil, "decodedUntil")},
        {"settings",
         {{"mode", rawValue(settings.mode)},
          {"maxFrames", settings.maxFrames},
          {"maxSize", settings.maxSize},
          {"format", rawValue(settings.format)},
          {"analysis", engine::encoded(settings.analysis)}}},
        {"summary", encodedSummary(summary)},
        {"frames", std::move(frameArray)},
        {"warnings", encodedWarnings(warnings)},
    };
    if (contactSheets) {
        object["contactSheets"] = encodedSheets(*contactSheets);
    }
    return object;
}

std::string FrameManifest::encodedText() const {
    return encoded().dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

FrameManifest FrameManifest::decoded(const json& json) {
    return decodedManifest(Reader(json, ""));
}

FrameManifest FrameManifest::decodedText(std::string_view text) {
    json parsed;
    try {
        parsed = json::parse(text);
    } catch (const json::parse_error& error) {
        throw DecodingError(fmt::format("manifest: not JSON ({})", error.what()));
    }
    return decoded(parsed);
}

json encoded(const FrameAnalysisSettings& settings) {
    return {
        {"gridLongEdge", settings.gridLongEdge},
        {"pruneLongEdge", settings.pruneLongEdge},
        {"cellDelta", settings.cellDelta},
        {"minFraction", finite(settings.minFraction, "analysis.minFraction")},
        {"quietFraction", finite(settings.quietFraction, "analysis.quietFraction")},
        {"settleSeconds", finite(settings.settleSeconds, "analysis.settleSeconds")},
        {"spacingSeconds", finite(settings.spacingSeconds, "analysis.spacingSeconds")},
        {"activitySeconds", finite(settings.activitySeconds, "analysis.activitySeconds")},
        {"cutFraction", finite(settings.cutFraction, "analysis.cutFraction")},
        {"cutHoldSeconds", finite(settings.cutHoldSeconds, "analysis.cutHoldSeconds")},
        {"pruneGapFactor", finite(settings.pruneGapFactor, "analysis.pruneGapFactor")},
    };
}

FrameAnalysisSettings decodedFrameAnalysisSettings(const json& json) {
    return decodedAnalysis(Reader(json, ""));
}

// ---- FrameIndex --------------------------------------------------------------------------------

FrameIndex::FrameIndex(const FrameManifest& manifest, const std::filesystem::path& directory)
    : directory(directory.string()),
      version(manifest.version),
      contactSheets(manifest.contactSheets),
      summary(manifest.summary),
      warnings(manifest.warnings) {
    bool oneSize = !manifest.frames.empty();
    for (const FrameManifest::Frame& frame : manifest.frames) {
        const FrameManifest::Frame& first = manifest.frames.front();
        oneSize = oneSize && frame.width == first.width && frame.height == first.height;
    }
    if (oneSize) {
        frameSize = Size{manifest.frames.front().width, manifest.frames.front().height};
    }
    frames.reserve(manifest.frames.size());
    for (const FrameManifest::Frame& frame : manifest.frames) {
        Entry entry{
            .file = frame.file,
            .time = frame.time,
            .reason = frame.reason,
            .holdsUntil = frame.holdsUntil,
            .followingSpanPruned = frame.followingSpanPruned,
            .size = std::nullopt,
        };
        if (!oneSize) {
            entry.size = Size{frame.width, frame.height};
        }
        frames.push_back(std::move(entry));
    }
}

json FrameIndex::encoded() const {
    json entries = json::array();
    for (const Entry& entry : frames) {
        json object = {
            {"file", entry.file},
            {"time", storedTime(entry.time, "frames.time")},
            {"reason", rawValue(entry.reason)},
            {"holdsUntil", storedTime(entry.holdsUntil, "frames.holdsUntil")},
        };
        if (entry.followingSpanPruned) {
            object["followingSpanPruned"] = true;
        }
        if (entry.size) {
            object["size"] = *entry.size;
        }
        entries.push_back(std::move(object));
    }
    json object = {
        {"directory", directory},
        {"version", version},
        {"summary", encodedSummary(summary)},
        {"warnings", encodedWarnings(warnings)},
        {"frames", std::move(entries)},
    };
    if (contactSheets) {
        object["contactSheets"] = encodedSheets(*contactSheets);
    }
    if (frameSize) {
        object["frameSize"] = *frameSize;
    }
    return object;
}

// ---- Names -------------------------------------------------------------------------------------

double roundedToMicroseconds(double seconds) {
    const double rounded = std::round(seconds * 1'000'000.0) / 1'000'000.0;
    return rounded == 0 ? 0.0 : rounded;
}

std::string frameFileName(int64_t index, double time, FrameImageFormat format) {
    // A frame allowed a microsecond before a range that starts at 0 would otherwise be named
    // "-0.000s", which the staging pattern (and a reader) would not expect.
    const double shown = (time < 0 && time > -0.0005) ? 0.0 : time;
    return fmt::format("frame-{:03d}-{:.3f}s.{}", index, shown, fileExtension(format));
}

std::string scratchFrameFileName(int64_t index, FrameImageFormat format) {
    return fmt::format("{:06d}.{}", index, fileExtension(format));
}

bool isFramesStagingName(std::string_view name) {
    // std::regex with ECMAScript ranges compares code units, so the user's locale plays no part.
    static const std::array<std::regex, 4> kPatterns = {
        std::regex(R"(contact-sheet(-[0-9]+)?\.jpg)"),
        std::regex(R"([0-9]{6}\.(jpg|png))"),
        std::regex(R"(frame-[0-9]{3}-[0-9]+\.[0-9]{3}s\.(jpg|png))"),
        std::regex(R"(frames\.json)"),
    };
    for (const std::regex& pattern : kPatterns) {
        if (std::regex_match(name.begin(), name.end(), pattern)) {
            return true;
        }
    }
    return false;
}

}  // namespace tessarin::engine
