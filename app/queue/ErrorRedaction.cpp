#include "app/queue/ErrorRedaction.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace tessarin::app {

namespace {

constexpr std::size_t kKeptBytes = 600;
constexpr std::string_view kPathMark = "<path>";

constexpr std::array<std::string_view, 24> kLoggableExtensions{
    "3gp", "aac",  "avi", "flac", "flv", "gif", "m2ts", "m4a", "m4v", "mkv",  "mov", "mp3",
    "mp4", "mpeg", "mpg", "mts",  "mxf", "ogv", "opus", "ts",  "wav", "webm", "wmv", "srt"};

bool isBlank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

// Paths may hold blanks, so a path runs to a quote, the end of the line, or the ": " with
// which tools follow a file name; taking too much is the safe side.
bool endsPath(std::string_view text, std::size_t at) {
    const char c = text[at];
    return c == '\n' || c == '"' || c == '\'' ||
           (c == ':' && (at + 1 == text.size() || isBlank(text[at + 1])));
}

bool startsPath(std::string_view text, std::size_t at) {
    const char before = at == 0 ? ' ' : text[at - 1];
    const bool atBoundary = isBlank(before) || before == '"' || before == '\'' || before == '(' ||
                            before == '[' || before == '=' || before == ':';
    if (!atBoundary) {
        return false;
    }
    return text[at] == '/' || (text[at] == '~' && at + 1 < text.size() && text[at + 1] == '/');
}

}  // namespace

std::string redactFailureText(std::string_view text, std::string_view sourceName) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        if (!sourceName.empty() && text.substr(i, sourceName.size()) == sourceName) {
            out += kPathMark;
            i += sourceName.size();
        } else if (startsPath(text, i)) {
            while (i < text.size() && !endsPath(text, i)) {
                ++i;
            }
            out += kPathMark;
        } else {
            out += text[i++];
        }
    }
    if (out.size() > kKeptBytes) {
        std::size_t cut = out.size() - kKeptBytes;
        const std::size_t newline = out.find('\n', cut);
        cut = newline == std::string::npos ? cut : newline + 1;
        // Never start inside a UTF-8 sequence.
        while (cut < out.size() && (static_cast<unsigned char>(out[cut]) & 0xC0) == 0x80) {
            ++cut;
        }
        out.erase(0, cut);
    }
    return out;
}

std::string loggableExtension(std::string_view fileName) {
    const std::size_t dot = fileName.rfind('.');
    if (dot == std::string_view::npos || dot + 1 >= fileName.size()) {
        return "other";
    }
    std::string extension(fileName.substr(dot + 1));
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const bool known = std::find(kLoggableExtensions.begin(), kLoggableExtensions.end(),
                                 extension) != kLoggableExtensions.end();
    return known ? extension : "other";
}

}  // namespace tessarin::app
