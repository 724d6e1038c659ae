#include "engine/recording/TakeManifest.hpp"

#include <filesystem>
#include <nlohmann/json.hpp>

namespace tessarin::engine {

namespace {

using nlohmann::json;

[[noreturn]] void invalid(const char* reason) {
    throw TakeManifestInvalid(reason);
}

// An integer field: absent (or null) leaves `fallback`; another type is refused.
int64_t integerField(const json& document, const char* key, int64_t fallback) {
    const auto found = document.find(key);
    if (found == document.end() || found->is_null()) {
        return fallback;
    }
    if (!found->is_number_integer() ||
        (found->is_number_unsigned() && found->get<uint64_t>() > static_cast<uint64_t>(INT64_MAX))) {
        invalid("an integer field holds something else");
    }
    return found->get<int64_t>();
}

std::optional<std::string> textField(const json& document, const char* key) {
    const auto found = document.find(key);
    if (found == document.end() || found->is_null()) {
        return std::nullopt;
    }
    if (!found->is_string()) {
        invalid("a text field holds something else");
    }
    return found->get<std::string>();
}

}  // namespace

bool isPlainAbsolutePath(std::string_view path) {
    if (path.empty() || path.front() != '/' || path.find('\0') != std::string_view::npos) {
        return false;
    }
    std::size_t start = 1;
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view component = path.substr(start, end - start);
        if (component == "." || component == ".." || (component.empty() && end != path.size())) {
            return false;
        }
        start = end + 1;
    }
    return true;
}

bool isAllowedTakeFilename(std::string_view name) {
    return name.size() > 4 && name.ends_with(".mp4") && name.front() != '.' &&
           name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

TakeManifest decodeTakeManifest(std::string_view bytes) {
    if (bytes.size() > TakeManifest::kMaximumBytes) {
        invalid("the manifest is too large");
    }
    const json document = json::parse(bytes, nullptr, false);
    if (document.is_discarded() || !document.is_object()) {
        invalid("the manifest is not a JSON object");
    }
    TakeManifest manifest;
    manifest.version = integerField(document, "version", 0);
    if (manifest.version != 1 && manifest.version != 2) {
        invalid("unknown version");
    }
    const std::optional<std::string> filename = textField(document, "filename");
    if (!filename || !isAllowedTakeFilename(*filename) ||
        std::filesystem::path(*filename).filename().string() != *filename) {
        invalid("the file name is not allowed");
    }
    manifest.filename = *filename;
    manifest.framesPerSecond = integerField(document, "framesPerSecond", 30);
    if (manifest.framesPerSecond != 30 && manifest.framesPerSecond != 60) {
        invalid("frames per second must be 30 or 60");
    }
    manifest.startedSegments = integerField(document, "startedSegments", 0);
    if (manifest.startedSegments < 0) {
        invalid("negative segment count");
    }
    if (document.contains("expectedAudioTrackCount") &&
        !document["expectedAudioTrackCount"].is_null()) {
        const int64_t count = integerField(document, "expectedAudioTrackCount", 0);
        if (count < 0 || count >= 3) {
            invalid("audio track count out of range");
        }
        manifest.expectedAudioTrackCount = count;
    }
    manifest.destinationPath = textField(document, "destinationPath");
    if (manifest.destinationPath) {
        // The destination's last component must be the file name, so it names no other file.
        if (!isPlainAbsolutePath(*manifest.destinationPath) ||
            std::filesystem::path(*manifest.destinationPath).filename().string() !=
                manifest.filename) {
            invalid("the destination path is not allowed");
        }
    }
    manifest.legacyDirectory = textField(document, "legacyDirectory");
    if (manifest.legacyDirectory && !isPlainAbsolutePath(*manifest.legacyDirectory)) {
        invalid("the legacy folder is not allowed");
    }
    if (const auto identity = document.find("destinationIdentity");
        identity != document.end() && !identity->is_null()) {
        manifest.destinationIdentity = destinationIdentityFromJson(*identity);
        if (!manifest.destinationIdentity) {
            invalid("the destination identity is malformed");
        }
    }
    if (manifest.version == 2 && !manifest.destinationIdentity) {
        invalid("version 2 needs a destination identity");
    }
    if (manifest.version == 1 && !manifest.destinationPath) {
        invalid("version 1 needs a destination path");
    }
    return manifest;
}

std::string encodeTakeManifest(const TakeManifest& manifest) {
    json document = json::object();  // std::map keys: sorted
    document["version"] = manifest.version;
    document["filename"] = manifest.filename;
    document["framesPerSecond"] = manifest.framesPerSecond;
    document["startedSegments"] = manifest.startedSegments;
    if (manifest.destinationPath) {
        document["destinationPath"] = *manifest.destinationPath;
    }
    if (manifest.destinationIdentity) {
        document["destinationIdentity"] = toJson(*manifest.destinationIdentity);
    }
    if (manifest.legacyDirectory) {
        document["legacyDirectory"] = *manifest.legacyDirectory;
    }
    if (manifest.expectedAudioTrackCount) {
        document["expectedAudioTrackCount"] = *manifest.expectedAudioTrackCount;
    }
    return document.dump(2) + "\n";
}

}  // namespace tessarin::engine
