// "take.json", the manifest of one take: what the final file is called, where it goes, and how
// many segments were begun. Version 2 marks a private take folder, version 1 the older layout.
// Decoding is where a hostile or damaged take folder is refused: every manifest it accepts names
// one plain file name, an absolute destination that ends in that name and holds no "." or ".."
// component, and nothing else that reaches outside the take's folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "engine/recording/RecordingNamespace.hpp"

namespace tessarin::engine {

struct TakeManifest {
    static constexpr std::size_t kMaximumBytes = 65'536;

    int64_t version = 2;
    std::optional<std::string> destinationPath;  // required in version 1
    std::optional<RecordingNamespace::DestinationIdentity> destinationIdentity;  // version 2
    std::optional<std::string> legacyDirectory;
    std::string filename;
    int64_t framesPerSecond = 30;
    int64_t startedSegments = 0;
    std::optional<int64_t> expectedAudioTrackCount;

    bool operator==(const TakeManifest&) const = default;
};

// The folder is no take: the manifest is missing, too large, not JSON, or breaks a rule.
class TakeManifestInvalid : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Decodes and checks manifest text (at most kMaximumBytes). Unknown keys are ignored. Throws
// TakeManifestInvalid with a short reason. Pure; any thread.
[[nodiscard]] TakeManifest decodeTakeManifest(std::string_view bytes);

// The manifest as pretty-printed JSON with sorted keys; absent fields are left out.
[[nodiscard]] std::string encodeTakeManifest(const TakeManifest& manifest);

// Whether `path` is absolute and holds no empty, "." or ".." component.
[[nodiscard]] bool isPlainAbsolutePath(std::string_view path);

// Whether `name` is a final file name a manifest may carry: ends in ".mp4", one component, no
// "/", not beginning with ".", no NUL.
[[nodiscard]] bool isAllowedTakeFilename(std::string_view name);

}  // namespace tessarin::engine
