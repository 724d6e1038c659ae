// The proof that a tessarin:// link was made by this running application for an authenticated
// file-manager action: a one-time claim signed with a key that lives only in this process.
//
// Plain values and pure functions; safe from any thread. The store that mints and consumes
// tokens is IntakeTokenStore.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tessarin::engine {

enum class IntakeActionKind { convert, transcribe };

// "convert" or "transcribe".
[[nodiscard]] std::string_view text(IntakeActionKind kind);
[[nodiscard]] std::optional<IntakeActionKind> intakeActionKind(std::string_view text);

// A token lives this long; callers compare |now − createdAt| with it.
inline constexpr double kIntakeTokenLifetimeSeconds = 30.0;
inline constexpr int64_t kIntakeMaximumFileCount = 500;
inline constexpr int64_t kIntakeTokenAuthenticationVersion = 1;

struct IntakeToken {
    std::string nonce;      // a UUID in canonical text form; what a link carries as its token
    double createdAt = 0;   // seconds since 1970
    std::string presetID;   // empty for a transcription
    int64_t fileCount = 0;  // 1 to 500
    IntakeActionKind actionKind = IntakeActionKind::convert;
    std::vector<std::string> handoffFiles;  // empty when the client sent only a count
    std::string filesFingerprint;           // empty when handoffFiles is
    int64_t authenticationVersion = 0;
    std::string authenticationTag;  // base64 of the 32-byte HMAC-SHA-256

    bool operator==(const IntakeToken&) const = default;
};

// The keys above; on decoding, the kind defaults to convert, the files, fingerprint and tag to
// empty and the version to 0, so that an old record decodes and then fails verification.
// from_json throws nlohmann::json::exception on a wrong type.
void to_json(nlohmann::json& json, const IntakeToken& token);
void from_json(const nlohmann::json& json, IntakeToken& token);

// FNV-1a (64 bits) over the sorted paths joined by NUL, in upper-case hexadecimal without
// leading zeros. The order of `files` doesn't matter.
[[nodiscard]] std::string fingerprint(std::vector<std::string> files);

// The authenticated bytes: a domain label, then every field counted, big-endian, so that two
// different tokens never share a message. Throws std::invalid_argument when the version does
// not fit 32 bits or there are more than 2^32 − 1 files.
[[nodiscard]] std::string signingMessage(const IntakeToken& token);

// Whether `nonce` may be looked up at all: non-empty, at most 64 characters, hexadecimal digits
// and "-" only. A link's token is hostile text until this holds.
[[nodiscard]] bool isPlausibleNonce(std::string_view nonce);

}  // namespace tessarin::engine
