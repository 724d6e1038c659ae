// Failure texts as the diagnostics report may keep them: no paths, no file names.
#pragma once

#include <string>
#include <string_view>

namespace tessarin::app {

// `text` with every absolute path (a run from "/" or "~/" to the next quote, line end or ": ")
// and every occurrence of `sourceName` replaced by "<path>", cut to its last 600 bytes at a
// line boundary.
[[nodiscard]] std::string redactFailureText(std::string_view text, std::string_view sourceName);

// The lower-cased extension when it is one of the common media extensions, else "other": what
// the logs may say of a file.
[[nodiscard]] std::string loggableExtension(std::string_view fileName);

}  // namespace tessarin::app
