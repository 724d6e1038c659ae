// Arbitrary bytes as a take's "take.json": a manifest is accepted only within its size limit, and
// every accepted one names a final file that lies directly in the destination folder and whose
// segments lie directly in the take's folder, an absolute destination without "." or ".."
// components that ends in that file, frames per second of 30 or 60, no negative segment count,
// the destination its version needs; and it survives being written and read back unchanged.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "engine/recording/RecordingFiles.hpp"
#include "engine/recording/TakeManifest.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

namespace fs = std::filesystem;
using tessarin::engine::decodeTakeManifest;
using tessarin::engine::encodeTakeManifest;
using tessarin::engine::segmentName;
using tessarin::engine::TakeManifest;
using tessarin::engine::TakeManifestInvalid;
using tessarin::fuzz::require;

// Checked here without the unit's own helpers: absolute, and every component a real name.
bool plainAbsolute(const std::string& path) {
    if (path.empty() || path[0] != '/' || path.find("//") != std::string::npos) {
        return false;
    }
    std::size_t start = 1;
    while (start < path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string part = path.substr(start, end - start);
        if (part == "." || part == "..") {
            return false;
        }
        start = end + 1;
    }
    return true;
}

bool directlyIn(const fs::path& folder, const std::string& name) {
    const fs::path joined = (folder / name).lexically_normal();
    return joined.parent_path() == folder && joined.filename() == name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    TakeManifest manifest;
    try {
        manifest = decodeTakeManifest(text);
    } catch (const TakeManifestInvalid&) {
        return 0;
    }
    require(size <= TakeManifest::kMaximumBytes, "only manifests within the limit are read");
    const fs::path takeFolder = "/home/u/.local/share/tessarin/Tessarin Recording Recovery/take";
    require(!manifest.filename.empty() && manifest.filename[0] != '.' &&
                manifest.filename.find('/') == std::string::npos &&
                manifest.filename.find('\0') == std::string::npos &&
                manifest.filename.ends_with(".mp4"),
            "the final name is a plain .mp4 name");
    require(directlyIn(takeFolder, manifest.filename), "the final name stays in its folder");
    for (int64_t number = 0; number < std::min<int64_t>(manifest.startedSegments, 3); ++number) {
        require(directlyIn(takeFolder, segmentName(number)), "segments stay in the take folder");
    }
    require(manifest.framesPerSecond == 30 || manifest.framesPerSecond == 60, "30 or 60 fps");
    require(manifest.startedSegments >= 0, "no negative segment count");
    require(!manifest.expectedAudioTrackCount ||
                (*manifest.expectedAudioTrackCount >= 0 && *manifest.expectedAudioTrackCount < 3),
            "0 to 2 audio tracks");
    require(manifest.version == 1 || manifest.version == 2, "a known version");
    require(manifest.version != 1 || manifest.destinationPath.has_value(),
            "version 1 has a destination path");
    require(manifest.version != 2 || manifest.destinationIdentity.has_value(),
            "version 2 has a destination identity");
    if (manifest.destinationPath) {
        require(plainAbsolute(*manifest.destinationPath), "the destination is a plain absolute path");
        require(fs::path(*manifest.destinationPath).filename() == manifest.filename,
                "the destination ends in the final name");
    }
    if (manifest.legacyDirectory) {
        require(plainAbsolute(*manifest.legacyDirectory), "the legacy folder is a plain path");
    }
    const std::string written = encodeTakeManifest(manifest);
    TakeManifest again;
    try {
        again = decodeTakeManifest(written);
    } catch (const TakeManifestInvalid&) {
        require(false, "a manifest written from an accepted one is accepted");
    }
    require(again == manifest, "writing and reading back changes nothing");
    return 0;
}
