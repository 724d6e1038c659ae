// Turns a tessarin:// link into files for the queue, or into a reason to refuse it. Every link
// is hostile until proven otherwise: bounds first (size, item count), then the file system.
//
//   std::set<std::string> known = {"mp4-h264", ...};
//   auto parsed = parseIntakeURL(link, known, [](std::string_view n) { return store.consume(n); },
//                                IntakeTokenStore::systemNow());
//   if (auto* request = std::get_if<URLIntakeRequest>(&parsed)) {
//       auto [trusted, provenance] = authorize(*request, consume, now);
//   }
//
// Link form: tessarin://convert?preset=ID&file=/abs/path&file=…[&token=NONCE], or
// action=transcribe instead of preset. Query values are percent-decoded; "+" stays "+".
//
// Pure apart from lstat/stat/realpath of the candidates and the calls of `consumeToken`; safe
// from any thread. Blocks as long as the file system does (a dead network volume): callers run
// it off the main thread under a time limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "engine/intake/IntakeToken.hpp"

namespace tessarin::engine {

inline constexpr std::size_t kIntakeURLByteLimit = 16'384;

struct IntakeAction {
    IntakeActionKind kind = IntakeActionKind::convert;
    std::string presetID;  // empty for a transcription

    bool operator==(const IntakeAction&) const = default;
};

struct URLIntakeRequest {
    std::vector<std::string> files;           // absolute, links resolved, each file once
    std::vector<std::string> candidatePaths;  // every path the link or its token named
    IntakeAction action;
    std::optional<std::string> token;         // as the link carried it
    std::optional<IntakeToken> consumedToken;  // when parsing consumed it
};

struct URLIntakeRejectReason {
    enum class Kind {
        unknownPreset,
        fileCountOutOfRange,
        noValidVideoFiles,
        unknownAction,
        actionCarriesPreset,
        malformedURL,
        oversizedURL,
        unusableHandoff,
    };

    Kind kind = Kind::malformedURL;
    std::optional<std::string> value;  // unknownPreset, unknownAction, actionCarriesPreset
    int64_t count = 0;                 // fileCountOutOfRange, noValidVideoFiles

    // The log text: "unknown-preset(x)", "no-valid-video-files(1 candidate)"…, with a value from
    // the link sanitised (sanitizedLogValue).
    [[nodiscard]] std::string text() const;
    bool operator==(const URLIntakeRejectReason&) const = default;
};

using URLIntakeParseResult = std::variant<URLIntakeRequest, URLIntakeRejectReason>;
using ConsumeToken = std::function<std::optional<IntakeToken>(std::string_view nonce)>;

// A value from a link as it may be logged: each character (UTF-8 sequence) that isn't an ASCII
// letter, digit, "-", "_" or "." becomes "?", and at most 48 characters are kept.
[[nodiscard]] std::string sanitizedLogValue(std::string_view value);

// Whether a regular file's name has a video type: its lower-cased extension is one of the movie
// and video types (mp4, mov, mkv, webm, flv, wmv, ts, m2ts…).
[[nodiscard]] bool hasIntakeVideoType(std::string_view path);

// The checks of a link, in order: scheme and components, host "convert" with query items, at
// most 16,384 bytes, the action, a token that carries the paths (consumed here, valid against
// the link and `now`), 1 to 500 candidates, then each candidate on the file system (absolute,
// links resolved, a regular file of a video type or a folder, each identity once).
[[nodiscard]] URLIntakeParseResult parseIntakeURL(std::string_view url,
                                                  const std::set<std::string>& knownPresetIDs,
                                                  const ConsumeToken& consumeToken, double now);

struct IntakeAuthorization {
    bool trusted = false;
    std::string provenance;  // "no-token", "token-unusable", "token-mismatch" or "ok"

    bool operator==(const IntakeAuthorization&) const = default;
};

// Whether `request` carries a token of this process that matches it: its consumed token, or
// the token consumed now.
[[nodiscard]] IntakeAuthorization authorize(const URLIntakeRequest& request,
                                            const ConsumeToken& consumeToken, double now);

}  // namespace tessarin::engine
