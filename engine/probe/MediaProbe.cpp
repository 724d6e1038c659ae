#include "engine/probe/MediaProbe.hpp"

#include <locale.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "engine/model/NumberText.hpp"

namespace tessarin::engine {

namespace {

using nlohmann::json;

// A present value of another type than ffprobe writes there. Absent keys and null values are
// fine, and unknown keys are ignored; a wrong type means this is not an ffprobe document.
struct WrongType {};

const json* member(const json& object, const char* key) {
    const auto found = object.find(key);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

std::optional<std::string> stringField(const json& object, const char* key) {
    const json* value = member(object, key);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (!value->is_string()) {
        throw WrongType{};
    }
    return value->get<std::string>();
}

std::optional<int64_t> integerField(const json& object, const char* key) {
    const json* value = member(object, key);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (value->is_number_unsigned()) {
        const auto unsignedValue = value->get<uint64_t>();
        if (unsignedValue > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
            throw WrongType{};
        }
        return static_cast<int64_t>(unsignedValue);
    }
    if (!value->is_number_integer()) {
        throw WrongType{};
    }
    return value->get<int64_t>();
}

const json* objectField(const json& object, const char* key) {
    const json* value = member(object, key);
    if (value != nullptr && !value->is_object()) {
        throw WrongType{};
    }
    return value;
}

const json* arrayField(const json& object, const char* key) {
    const json* value = member(object, key);
    if (value != nullptr && !value->is_array()) {
        throw WrongType{};
    }
    return value;
}

// One entry of the "tags" map, which maps strings to strings.
std::optional<std::string> tag(const json& object, const char* name) {
    const json* tags = objectField(object, "tags");
    if (tags == nullptr) {
        return std::nullopt;
    }
    for (const auto& entry : tags->items()) {
        if (!entry.value().is_string()) {
            throw WrongType{};
        }
    }
    return stringField(*tags, name);
}

// The part of ffprobe's document the program reads, with ffprobe's types. Numbers that ffprobe
// prints as strings stay strings here.
struct Stream {
    std::optional<int64_t> index;
    std::optional<std::string> title;
    std::optional<std::string> language;
    std::optional<std::string> codecType;
    std::optional<std::string> codecName;
    std::optional<std::string> startTime;
    std::optional<std::string> duration;
    std::optional<int64_t> width;
    std::optional<int64_t> height;
    std::optional<int64_t> attachedPic;
    std::optional<std::string> colorTransfer;
    std::optional<std::string> colorPrimaries;
    std::optional<std::string> pixFmt;
    std::optional<std::string> nbFrames;

    // Only exactly 1 marks a picture; an absent disposition or key does not.
    [[nodiscard]] bool isAttachedPicture() const { return attachedPic == 1; }
};

struct Format {
    std::optional<std::string> formatName;
    std::optional<std::string> startTime;
    std::optional<std::string> duration;
};

struct FFprobeOutput {
    std::vector<Stream> streams;
    std::optional<Format> format;
    std::vector<MediaChapter> chapters;
};

Stream readStream(const json& value) {
    if (!value.is_object()) {
        throw WrongType{};
    }
    Stream stream;
    stream.index = integerField(value, "index");
    stream.title = tag(value, "title");
    stream.language = tag(value, "language");
    stream.codecType = stringField(value, "codec_type");
    stream.codecName = stringField(value, "codec_name");
    stream.startTime = stringField(value, "start_time");
    stream.duration = stringField(value, "duration");
    stream.width = integerField(value, "width");
    stream.height = integerField(value, "height");
    if (const json* disposition = objectField(value, "disposition")) {
        stream.attachedPic = integerField(*disposition, "attached_pic");
    }
    stream.colorTransfer = stringField(value, "color_transfer");
    stream.colorPrimaries = stringField(value, "color_primaries");
    stream.pixFmt = stringField(value, "pix_fmt");
    stream.nbFrames = stringField(value, "nb_frames");
    return stream;
}

MediaChapter readChapter(const json& value) {
    if (!value.is_object()) {
        throw WrongType{};
    }
    return MediaChapter{stringField(value, "start_time"), stringField(value, "end_time"),
                        tag(value, "title")};
}

FFprobeOutput readDocument(const json& document) {
    if (!document.is_object()) {
        throw WrongType{};
    }
    FFprobeOutput output;
    if (const json* streams = arrayField(document, "streams")) {
        for (const json& stream : *streams) {
            output.streams.push_back(readStream(stream));
        }
    }
    if (const json* format = objectField(document, "format")) {
        output.format =
            Format{stringField(*format, "format_name"), stringField(*format, "start_time"),
                   stringField(*format, "duration")};
    }
    if (const json* chapters = arrayField(document, "chapters")) {
        for (const json& chapter : *chapters) {
            output.chapters.push_back(readChapter(chapter));
        }
    }
    return output;
}

// The whole string as a finite number in the C locale's notation; anything else is absent.
std::optional<double> parseDouble(const std::optional<std::string>& text) {
    return text ? parseFiniteDouble(*text) : std::nullopt;
}

std::optional<double> nonNegative(std::optional<double> value) {
    return value && *value >= 0 ? value : std::nullopt;
}

// A decimal integer with an optional sign; "N/A" and anything else give nothing.
std::optional<int64_t> parseInteger(const std::optional<std::string>& text) {
    if (!text || text->empty()) {
        return std::nullopt;
    }
    const std::size_t digits = (text->front() == '+' || text->front() == '-') ? 1 : 0;
    if (digits == text->size()) {
        return std::nullopt;
    }
    for (std::size_t i = digits; i < text->size(); ++i) {
        if ((*text)[i] < '0' || (*text)[i] > '9') {
            return std::nullopt;
        }
    }
    errno = 0;
    const long long value = std::strtoll(text->c_str(), nullptr, 10);
    if (errno == ERANGE) {
        return std::nullopt;
    }
    return value;
}

bool looksHDR(const Stream& stream) {
    if (stream.colorTransfer == "smpte2084" || stream.colorTransfer == "arib-std-b67") {
        return true;
    }
    if (stream.colorPrimaries == "bt2020") {
        return true;
    }
    const std::string pixelFormat = stream.pixFmt.value_or("");
    for (const char* deep : {"10le", "10be", "12le", "12be"}) {
        if (pixelFormat.find(deep) != std::string::npos) {
            return true;
        }
    }
    return false;
}

MediaInfo reduce(FFprobeOutput output) {
    MediaInfo info;
    const Stream* primaryVideo = nullptr;
    const Stream* firstAudio = nullptr;
    int64_t position = 0;
    for (const Stream& stream : output.streams) {
        if (stream.codecType == "video") {
            info.videoCodecs.push_back(stream.codecName);
            if (primaryVideo == nullptr && !stream.isAttachedPicture()) {
                primaryVideo = &stream;
            }
        }
        if (stream.codecType == "audio" && firstAudio == nullptr) {
            firstAudio = &stream;
        }
        info.tracks.push_back(MediaTrack{
            stream.index.value_or(position), stream.codecType.value_or("unknown"), stream.codecName,
            stream.title, stream.language, stream.isAttachedPicture()});
        ++position;
    }
    if (primaryVideo != nullptr) {
        info.videoCodec = primaryVideo->codecName;
        info.videoStart = parseDouble(primaryVideo->startTime);
        info.videoDuration = nonNegative(parseDouble(primaryVideo->duration));
        info.videoFrameCount = parseInteger(primaryVideo->nbFrames);
        info.width = primaryVideo->width;
        info.height = primaryVideo->height;
        info.isHDR = looksHDR(*primaryVideo);
    }
    info.hasAudio = firstAudio != nullptr;
    if (firstAudio != nullptr) {
        info.audioCodec = firstAudio->codecName;
    }
    if (output.format) {
        info.container = output.format->formatName;
        info.timelineStart = parseDouble(output.format->startTime);
        info.durationSeconds = nonNegative(parseDouble(output.format->duration));
    }
    info.chapters = std::move(output.chapters);
    return info;
}

}  // namespace

MediaProbeError::MediaProbeError(Kind kind, int32_t exitCode, std::string stderrText)
    : std::runtime_error([&] {
          switch (kind) {
              case Kind::ffprobeFailed:
                  return "ffprobe failed (exit " + std::to_string(exitCode) + "): " + stderrText;
              case Kind::unparseableOutput:
                  return std::string("ffprobe's output could not be read");
              case Kind::outputTooLarge:
                  return std::string("ffprobe's output was too large to read");
              case Kind::timedOut:
                  return std::string("ffprobe did not finish in time");
              case Kind::cancelled:
                  return std::string("cancelled");
          }
          return std::string("ffprobe failed");
      }()),
      kind(kind),
      exitCode(exitCode),
      stderrText(std::move(stderrText)) {}

std::vector<std::string> MediaProbe::arguments(const std::filesystem::path& source,
                                               bool includeChapters, bool restricted) {
    std::vector<std::string> arguments = {"-v",   "error",        "-print_format",
                                          "json", "-show_format", "-show_streams"};
    if (includeChapters) {
        arguments.emplace_back("-show_chapters");
    }
    if (restricted) {
        arguments.insert(arguments.end(), {"-format_whitelist", std::string(kFormatAllowList),
                                           "-protocol_whitelist", "file"});
    }
    arguments.push_back(source.string());
    return arguments;
}

MediaInfo MediaProbe::probe(const std::filesystem::path& source, const Tools& tools,
                            MediaInputPolicy policy, ProcessRunner& runner, double timeout,
                            bool includeChapters) {
    ProcessResult result;
    try {
        result = runner.run(
            tools.ffprobe,
            arguments(source, includeChapters, policy == MediaInputPolicy::transcription),
            /*captureStdout=*/true, /*mergeStderr=*/false, timeout);
    } catch (const LaunchError& error) {
        throw MediaProbeError(MediaProbeError::Kind::ffprobeFailed, -1, error.what());
    }
    const std::optional<CancellationOutcome> outcome = runner.cancellationOutcome();
    if (outcome && outcome->escalation == Escalation::notLaunched) {
        throw MediaProbeError(MediaProbeError::Kind::cancelled);
    }
    if (result.timedOut) {
        throw MediaProbeError(MediaProbeError::Kind::timedOut);
    }
    if (result.wasCancelled) {
        throw MediaProbeError(MediaProbeError::Kind::cancelled);
    }
    if (result.exitCode != 0) {
        throw MediaProbeError(MediaProbeError::Kind::ffprobeFailed, result.exitCode,
                              result.stderrTail);
    }
    if (result.stdoutOverflowed) {
        throw MediaProbeError(MediaProbeError::Kind::outputTooLarge);
    }
    return decode(result.stdoutData.value_or(""));
}

MediaInfo MediaProbe::decode(std::string_view bytes) {
    // The parser stops at a NUL byte as if the input ended there; JSON never holds a raw one.
    if (bytes.find('\0') != std::string_view::npos) {
        throw MediaProbeError(MediaProbeError::Kind::unparseableOutput);
    }
    const json document = json::parse(bytes, nullptr, /*allow_exceptions=*/false);
    if (document.is_discarded()) {
        throw MediaProbeError(MediaProbeError::Kind::unparseableOutput);
    }
    try {
        return reduce(readDocument(document));
    } catch (const WrongType&) {
        throw MediaProbeError(MediaProbeError::Kind::unparseableOutput);
    }
}

bool MediaProbe::isPolicyRejection(std::string_view stderrText, MediaInputPolicy policy) {
    return policy == MediaInputPolicy::transcription &&
           stderrText.find("not on whitelist") != std::string_view::npos;
}

}  // namespace tessarin::engine
