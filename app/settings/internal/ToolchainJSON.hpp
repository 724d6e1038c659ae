// The stored form of an external software HEVC toolchain: an object with `selectedDirectoryPath`
// and the objects `ffmpeg` and `ffprobe`, each with `resolvedPath`, `sha256` and `version`, all
// strings. Pure functions, safe from any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "engine/model/ExternalSoftwareHEVCToolchain.hpp"

namespace tessarin::app::settings_internal {

[[nodiscard]] nlohmann::json toolchainToJSON(
    const engine::ExternalSoftwareHEVCToolchain& toolchain);

// Nothing unless every member is present with its type; other members are ignored.
[[nodiscard]] std::optional<engine::ExternalSoftwareHEVCToolchain> toolchainFromJSON(
    const nlohmann::json& json);

}  // namespace tessarin::app::settings_internal
