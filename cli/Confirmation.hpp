// The one question a command may ask before it writes anything: on the terminal, answered with
// a line of standard input.
#pragma once

#include <string>

#include "cli/Interruption.hpp"

namespace tessarin::cli {

enum class Answer { yes, no, interrupted };

// True when a person can answer: standard input and standard error are both terminals.
[[nodiscard]] bool canAsk();

// Writes `question` to standard error and reads one line from standard input: "y" or "yes" in
// any case, with spaces around, is yes; anything else, or the end of input, is no. Ends with
// `interrupted` as soon as Ctrl-C or SIGTERM arrives. Blocks the calling thread.
[[nodiscard]] Answer ask(const std::string& question, const Interruption& interruption);

}  // namespace tessarin::cli
