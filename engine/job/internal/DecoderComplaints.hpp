// The friendly sentence for a decoder complaint in a tool's error output, for sources the
// installed ffmpeg cannot read.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tessarin::engine::job_internal {

// The sentence for the first known complaint in `stderrTail` (compared without regard to case),
// or nothing. Pure.
[[nodiscard]] std::optional<std::string> friendlyDecoderComplaint(std::string_view stderrTail);

// The text of a failed tool run: the tail, with the friendly sentence and a blank line before it
// when a known complaint is recognised.
[[nodiscard]] std::string toolFailureText(std::string_view stderrTail);

}  // namespace tessarin::engine::job_internal
