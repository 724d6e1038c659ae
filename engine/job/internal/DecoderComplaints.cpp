#include "engine/job/internal/DecoderComplaints.hpp"

#include <algorithm>
#include <array>
#include <initializer_list>

namespace tessarin::engine::job_internal {

namespace {

struct Complaint {
    std::initializer_list<std::string_view> markers;
    std::string_view sentence;
};

const std::array<Complaint, 2> kComplaints = {{
    {{"no decoder found for: hevc"},
     "H.265 (HEVC) video isn't supported in this edition due to licensing restrictions. Export "
     "an H.264 copy first (for example with your video editor's export), then convert that "
     "copy."},
    {{"support hardware accelerated av1 decoding", "no decoder found for: av1"},
     "This is an AV1 video, which this app can create but not read back on this computer. "
     "Convert from the original (non-AV1) file instead."},
}};

std::string lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](unsigned char c) {
        return static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    });
    return result;
}

}  // namespace

std::optional<std::string> friendlyDecoderComplaint(std::string_view stderrTail) {
    const std::string text = lowered(stderrTail);
    for (const Complaint& complaint : kComplaints) {
        for (const std::string_view marker : complaint.markers) {
            if (text.find(marker) != std::string::npos) {
                return std::string(complaint.sentence);
            }
        }
    }
    return std::nullopt;
}

std::string toolFailureText(std::string_view stderrTail) {
    if (std::optional<std::string> sentence = friendlyDecoderComplaint(stderrTail)) {
        return *sentence + "\n\n" + std::string(stderrTail);
    }
    return std::string(stderrTail);
}

}  // namespace tessarin::engine::job_internal
