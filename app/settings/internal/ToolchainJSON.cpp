#include "app/settings/internal/ToolchainJSON.hpp"

#include <string>

namespace tessarin::app::settings_internal {

namespace {

using Executable = engine::ExternalSoftwareHEVCToolchain::Executable;

nlohmann::json executableToJSON(const Executable& executable) {
    return {
        {"resolvedPath", executable.resolvedPath},
        {"sha256", executable.sha256},
        {"version", executable.version},
    };
}

std::optional<std::string> stringMember(const nlohmann::json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) {
        return std::nullopt;
    }
    return found->get<std::string>();
}

std::optional<Executable> executableFromJSON(const nlohmann::json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || !found->is_object()) {
        return std::nullopt;
    }
    auto resolvedPath = stringMember(*found, "resolvedPath");
    auto sha256 = stringMember(*found, "sha256");
    auto version = stringMember(*found, "version");
    if (!resolvedPath || !sha256 || !version) {
        return std::nullopt;
    }
    return Executable{std::move(*resolvedPath), std::move(*sha256), std::move(*version)};
}

}  // namespace

nlohmann::json toolchainToJSON(const engine::ExternalSoftwareHEVCToolchain& toolchain) {
    return {
        {"selectedDirectoryPath", toolchain.selectedDirectoryPath},
        {"ffmpeg", executableToJSON(toolchain.ffmpeg)},
        {"ffprobe", executableToJSON(toolchain.ffprobe)},
    };
}

std::optional<engine::ExternalSoftwareHEVCToolchain> toolchainFromJSON(const nlohmann::json& json) {
    if (!json.is_object()) {
        return std::nullopt;
    }
    auto directory = stringMember(json, "selectedDirectoryPath");
    auto ffmpeg = executableFromJSON(json, "ffmpeg");
    auto ffprobe = executableFromJSON(json, "ffprobe");
    if (!directory || !ffmpeg || !ffprobe) {
        return std::nullopt;
    }
    return engine::ExternalSoftwareHEVCToolchain{std::move(*directory), std::move(*ffmpeg),
                                                 std::move(*ffprobe)};
}

}  // namespace tessarin::app::settings_internal
