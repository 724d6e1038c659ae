#include "engine/encoders/ExternalSoftwareHEVCValidationError.hpp"

#include <fmt/format.h>

#include <utility>

namespace tessarin::engine {

namespace {

using Kind = ExternalSoftwareHEVCValidationError::Kind;

std::string sentence(Kind kind, const std::string& subject, const std::string& detail,
                     int32_t exitCode) {
    switch (kind) {
        case Kind::missingExecutable:
            return fmt::format("The selected folder does not contain {}.", subject);
        case Kind::notRegularFile:
            return fmt::format("{} does not resolve to a regular file.", subject);
        case Kind::notExecutable:
            return fmt::format("{} is not executable.", subject);
        case Kind::unsupportedExecutable:
            return fmt::format("{} is not a native executable for this computer.", subject);
        case Kind::commandFailed:
            return fmt::format("{} validation failed (exit {}): {}", subject, exitCode, detail);
        case Kind::commandTimedOut:
            return fmt::format("{} did not finish validation within 15 seconds.", subject);
        case Kind::incompatibleVersions:
            return fmt::format("ffmpeg {} and ffprobe {} are not from the same version.", subject,
                               detail);
        case Kind::missingCapability:
            return fmt::format("The selected FFmpeg is missing required capability: {}.", subject);
        case Kind::duplicateExecutables:
            return "ffmpeg and ffprobe resolve to the same file.";
        case Kind::identityChanged:
            return "The selected FFmpeg or FFprobe changed. Revalidate it before use.";
    }
    return {};
}

}  // namespace

ExternalSoftwareHEVCValidationError::ExternalSoftwareHEVCValidationError(Kind kind,
                                                                         std::string subject,
                                                                         std::string detail,
                                                                         int32_t exitCode)
    : kind_(kind),
      subject_(std::move(subject)),
      detail_(std::move(detail)),
      exitCode_(exitCode),
      message_(sentence(kind_, subject_, detail_, exitCode_)) {}

ExternalSoftwareHEVCValidationError ExternalSoftwareHEVCValidationError::missingExecutable(
    std::string name) {
    return {Kind::missingExecutable, std::move(name), {}, 0};
}

ExternalSoftwareHEVCValidationError ExternalSoftwareHEVCValidationError::notRegularFile(
    std::string name) {
    return {Kind::notRegularFile, std::move(name), {}, 0};
}

ExternalSoftwareHEVCValidationError ExternalSoftwareHEVCValidationError::notExecutable(
    std::string name) {
    return {Kind::notExecutable, std::move(name), {}, 0};
}

ExternalSoftwareHEVCValidationError ExternalSoftwareHEVCValidationError::unsupportedExecutable(
    std::string name) {
    return {Kind::unsupportedExecutable, std::move(name), {}, 0};
}

ExternalSoftwareHEVCValidationError ExternalSoftwareHEVCValidationError::commandFailed(
    std::string command, int32_t exitCode, std::string detail) {
    return {Kind::commandFailed, std::move(command), std::move(detail), exitCode};
}

ExternalSoftwareHEVCValidationError ExternalSoftwareHEVCValidationError::commandTimedOut(
    std::string command) {
    return {Kind::commandTimedOut, std::move(command), {}, 0};
}

ExternalSoftwareHEVCValidationError ExternalSoftwareHEVCValidationError::incompatibleVersions(
    std::string ffmpegVersion, std::string ffprobeVersion) {
    return {Kind::incompatibleVersions, std::move(ffmpegVersion), std::move(ffprobeVersion), 0};
}

ExternalSoftwareHEVCValidationError ExternalSoftwareHEVCValidationError::missingCapability(
    std::string name) {
    return {Kind::missingCapability, std::move(name), {}, 0};
}

ExternalSoftwareHEVCValidationError ExternalSoftwareHEVCValidationError::duplicateExecutables() {
    return {Kind::duplicateExecutables, {}, {}, 0};
}

ExternalSoftwareHEVCValidationError ExternalSoftwareHEVCValidationError::identityChanged() {
    return {Kind::identityChanged, {}, {}, 0};
}

}  // namespace tessarin::engine
