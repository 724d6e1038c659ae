#include "cli/Confirmation.hpp"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>

namespace tessarin::cli {

namespace {

// More than any answer needs; the rest of a longer line is read and dropped.
constexpr std::size_t kAnswerLimit = 64;

bool isYes(const std::string& line) {
    const auto first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return false;
    }
    const auto last = line.find_last_not_of(" \t\r");
    std::string word = line.substr(first, last - first + 1);
    for (char& c : word) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return word == "y" || word == "yes";
}

}  // namespace

bool canAsk() {
    return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1;
}

Answer ask(const std::string& question, const Interruption& interruption) {
    std::cerr << question << std::flush;
    std::string line;
    // Signals are blocked in every thread, so a plain read would not end on Ctrl-C; the wait
    // also watches the interruption's descriptor.
    pollfd waits[2] = {{STDIN_FILENO, POLLIN, 0}, {interruption.descriptor(), POLLIN, 0}};
    for (;;) {
        if (::poll(waits, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return Answer::no;
        }
        if (interruption.interrupted()) {
            std::cerr << "\n";
            return Answer::interrupted;
        }
        char buffer[256];
        const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            std::cerr << "\n";  // the end of input left the cursor after the question
            return isYes(line) ? Answer::yes : Answer::no;
        }
        for (ssize_t i = 0; i < got; ++i) {
            if (buffer[i] == '\n') {
                return isYes(line) ? Answer::yes : Answer::no;
            }
            if (line.size() < kAnswerLimit) {
                line.push_back(buffer[i]);
            }
        }
    }
}

}  // namespace tessarin::cli
