// tessarin:// links as any program may send them: the parser never accepts a request that names
// a file outside what the link (or its token) gave as candidates, nor more than 500 of either,
// and its reasons are safe to log.
//
// The input is the link itself. A token "abc" stands for a handoff whose paths are fixed here.

#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "engine/intake/URLIntakeParser.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using namespace tessarin::engine;
using tessarin::fuzz::require;

constexpr double kNow = 1'800'000'000.0;

std::optional<IntakeToken> consume(std::string_view nonce) {
    if (nonce != "abc") {
        return std::nullopt;
    }
    IntakeToken token;
    token.nonce = "abc";
    token.createdAt = kNow;
    token.presetID = "mp4-h264";
    token.handoffFiles = {"/tmp", "/nonexistent.mp4"};
    token.fileCount = 2;
    token.filesFingerprint = fingerprint(token.handoffFiles);
    return token;
}

// The path as the parser should have resolved it, computed on its own; empty when the kernel
// can't resolve it.
std::string resolved(const std::string& path) {
    std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), &free);
    return real ? std::string(real.get()) : std::string();
}

bool isLoggable(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= 0x20 && byte < 0x7F;
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string_view url(reinterpret_cast<const char*>(data), size);
    static const std::set<std::string> known{"mp4-h264", "gif-full"};
    const URLIntakeParseResult result = parseIntakeURL(url, known, &consume, kNow);
    if (const auto* reason = std::get_if<URLIntakeRejectReason>(&result)) {
        require(isLoggable(reason->text()), "a reject reason holds only printable ASCII");
        require(reason->text().size() <= 80, "a reject reason is short");
        return 0;
    }
    const auto& request = std::get<URLIntakeRequest>(result);
    require(url.size() <= kIntakeURLByteLimit, "an accepted link is at most 16,384 bytes");
    require(!request.candidatePaths.empty() && request.candidatePaths.size() <= 500,
            "an accepted link has 1 to 500 candidates");
    require(!request.files.empty() && request.files.size() <= request.candidatePaths.size(),
            "an accepted link has files, no more than its candidates");
    std::set<std::string> allowed;
    for (const std::string& candidate : request.candidatePaths) {
        if (candidate.starts_with('/') && !resolved(candidate).empty()) {
            allowed.insert(resolved(candidate));
        }
    }
    for (const std::string& file : request.files) {
        require(allowed.contains(file), "every file is a resolved absolute candidate");
    }
    require(request.action.kind == IntakeActionKind::transcribe
                ? request.action.presetID.empty()
                : known.contains(request.action.presetID),
            "the action is a transcription or a known preset");
    if (request.consumedToken) {
        require(request.candidatePaths == request.consumedToken->handoffFiles,
                "a handoff's candidates are its token's paths");
    }
    return 0;
}
