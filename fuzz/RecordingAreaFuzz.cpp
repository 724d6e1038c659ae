// Arbitrary bytes as the command line's --area: an accepted area has coordinates within the
// limit and a non-empty size, is exactly its own canonical text (so no sign, space, leading
// junk or second reading slips through), and reads back the same.
#include <cstdint>
#include <string>
#include <string_view>

#include "engine/recording/capture/RecordingAreaText.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using tessarin::engine::kMaximumAreaCoordinate;
using tessarin::engine::parseRecordingArea;
using tessarin::engine::recordingAreaText;
using tessarin::fuzz::require;

bool withinLimit(int64_t value) { return value >= 0 && value <= kMaximumAreaCoordinate; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto area = parseRecordingArea(text);
    if (!area) {
        return 0;
    }
    require(withinLimit(area->x) && withinLimit(area->y) && withinLimit(area->width) &&
                withinLimit(area->height),
            "a coordinate beyond the limit was accepted");
    require(area->width >= 1 && area->height >= 1, "an empty area was accepted");
    const std::string canonical = recordingAreaText(*area);
    // Leading zeros are the one spelling besides the canonical one; strip them to compare.
    std::string stripped;
    bool atStart = true;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == ',') {
            stripped += c;
            atStart = true;
            continue;
        }
        if (atStart && c == '0' && i + 1 < text.size() && text[i + 1] != ',') {
            continue;
        }
        atStart = false;
        stripped += c;
    }
    require(stripped == canonical, "the text held more than the four numbers");
    require(parseRecordingArea(canonical) == area, "the canonical text reads back differently");
    return 0;
}
