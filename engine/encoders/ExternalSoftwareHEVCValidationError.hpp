// Why a user-chosen ffmpeg/ffprobe folder was refused, one fixed sentence per case.
// A value type; what() is the sentence shown in settings and carried by the job's failure.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace tessarin::engine {

class ExternalSoftwareHEVCValidationError : public std::exception {
public:
    enum class Kind {
        missingExecutable,
        notRegularFile,
        notExecutable,
        unsupportedExecutable,
        commandFailed,
        commandTimedOut,
        incompatibleVersions,
        missingCapability,
        duplicateExecutables,
        identityChanged,
    };

    [[nodiscard]] static ExternalSoftwareHEVCValidationError missingExecutable(std::string name);
    [[nodiscard]] static ExternalSoftwareHEVCValidationError notRegularFile(std::string name);
    [[nodiscard]] static ExternalSoftwareHEVCValidationError notExecutable(std::string name);
    [[nodiscard]] static ExternalSoftwareHEVCValidationError unsupportedExecutable(
        std::string name);
    [[nodiscard]] static ExternalSoftwareHEVCValidationError commandFailed(std::string command,
                                                                           int32_t exitCode,
                                                                           std::string detail);
    [[nodiscard]] static ExternalSoftwareHEVCValidationError commandTimedOut(std::string command);
    [[nodiscard]] static ExternalSoftwareHEVCValidationError incompatibleVersions(
        std::string ffmpegVersion, std::string ffprobeVersion);
    // `name` is the capability in words, e.g. "the exact libx265 encoder".
    [[nodiscard]] static ExternalSoftwareHEVCValidationError missingCapability(std::string name);
    [[nodiscard]] static ExternalSoftwareHEVCValidationError duplicateExecutables();
    [[nodiscard]] static ExternalSoftwareHEVCValidationError identityChanged();

    [[nodiscard]] Kind kind() const { return kind_; }
    // The tool or capability name for the cases that carry one; the command label for the
    // two command cases; the ffmpeg version for incompatibleVersions.
    [[nodiscard]] const std::string& subject() const { return subject_; }
    // commandFailed: the detail; incompatibleVersions: the ffprobe version.
    [[nodiscard]] const std::string& detail() const { return detail_; }
    [[nodiscard]] int32_t exitCode() const { return exitCode_; }

    [[nodiscard]] const char* what() const noexcept override { return message_.c_str(); }

    bool operator==(const ExternalSoftwareHEVCValidationError& other) const {
        return kind_ == other.kind_ && subject_ == other.subject_ && detail_ == other.detail_ &&
               exitCode_ == other.exitCode_;
    }

private:
    ExternalSoftwareHEVCValidationError(Kind kind, std::string subject, std::string detail,
                                        int32_t exitCode);

    Kind kind_;
    std::string subject_;
    std::string detail_;
    int32_t exitCode_ = 0;
    std::string message_;
};

}  // namespace tessarin::engine
