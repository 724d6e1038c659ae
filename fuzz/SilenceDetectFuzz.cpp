// silencedetect's metadata and ffmpeg's progress as SilenceSuggestions reads them. Either the
// scan is refused as incomplete, or the suggestions lie within the video, in order and apart,
// none shorter than the minimum clip, at most 500, named "Suggested 1", "Suggested 2"...
//
// The input is a four-byte header (length, padding, minimum clip, and whether to finish the
// progress for the fuzzer), then the metadata text; a byte 0x01 in it starts the progress text.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "engine/clips/SilenceSuggestions.hpp"
#include "engine/model/TimeText.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::ClipSelection;
using tessarin::engine::parseTimeSeconds;
using tessarin::engine::SilenceSettings;
using tessarin::engine::SilenceSuggestions;
using tessarin::fuzz::require;

int64_t microseconds(const std::optional<std::string>& text) {
    const std::optional<double> seconds = parseTimeSeconds(text.value_or(""));
    require(text.has_value() && seconds.has_value(), "both sides of a suggestion are times");
    return std::llround(*seconds * 1e6);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4) {
        return 0;
    }
    const double length = 0.5 + data[0] * 0.25;  // 0.5 to 64.25 s
    SilenceSettings settings;
    settings.padding = (data[1] % 21) * 0.1;            // 0 to 2 s
    settings.minimumClip = 0.1 + (data[2] % 20) * 0.1;  // 0.1 to 2 s
    const bool finish = (data[3] & 1) != 0;
    std::string_view rest(reinterpret_cast<const char*>(data + 4), size - 4);
    std::string metadata(rest.substr(0, rest.find('\x01')));
    std::string progress;
    if (const std::size_t split = rest.find('\x01'); split != std::string_view::npos) {
        progress = rest.substr(split + 1);
    }
    if (finish) {
        progress +=
            "out_time_us=" + std::to_string(std::llround(length * 1e6)) + "\nprogress=end\n";
    }

    std::vector<ClipSelection> clips;
    try {
        clips = SilenceSuggestions::interpret(metadata, progress, settings, length);
    } catch (const SilenceSuggestions::Failure& failure) {
        require(failure.kind() == SilenceSuggestions::Failure::Kind::incomplete,
                "a refused scan is incomplete");
        return 0;
    }
    require(clips.size() <= ClipSelection::kClipLimit, "at most 500 suggestions");
    const int64_t total = std::llround(length * 1e6);
    const int64_t shortest = std::llround(settings.minimumClip * 1e6);
    int64_t previousEnd = 0;
    for (std::size_t index = 0; index < clips.size(); ++index) {
        const int64_t start = microseconds(clips[index].trim().start);
        const int64_t end = microseconds(clips[index].trim().end);
        require(start >= previousEnd, "suggestions are in order and apart");
        require(end <= total, "suggestions lie within the video");
        require(end - start >= shortest, "no suggestion is shorter than the minimum clip");
        require(clips[index].name() == "Suggested " + std::to_string(index + 1),
                "suggestions are named by position");
        previousEnd = end;
    }
    return 0;
}
