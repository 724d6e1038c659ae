// Checks a user-chosen folder holding its own `ffmpeg` and `ffprobe` with libx265, and later
// checks that the validated files are still the same bytes before each use.
//
//   ExternalSoftwareHEVCValidator validator;
//   ExternalSoftwareHEVCToolchain identity = validator.validate(folder);  // settings, once
//   validator.revalidate(identity);                                       // job, every use
//
// Validation runs each tool a few times (version and capability queries), each under a
// 15-second time-out and a cap on captured output. Both calls block the calling background
// thread; a validator may be shared between threads as long as `runCommand` may be.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/encoders/ExternalSoftwareHEVCValidationError.hpp"
#include "engine/model/ExternalSoftwareHEVCToolchain.hpp"
#include "engine/process/ProcessResult.hpp"

namespace tessarin::engine {

class ExternalSoftwareHEVCValidator {
public:
    // Runs one validation command. May throw (a launch failure is reported as that command's
    // failure when it is a std::system_error).
    using RunCommand = std::function<ProcessResult(const std::filesystem::path& executable,
                                                   const std::vector<std::string>& arguments)>;

    static constexpr double kCommandTimeout = 15.0;
    // Far above what `-encoders` or `-filters` print; a tool printing more is refused.
    static constexpr std::size_t kOutputLimit = 1'048'576;

    // One executable after inspection: where its links led, and the digest of those bytes.
    struct Inspected {
        std::filesystem::path url;
        std::string sha256;
    };

    // Replaceable so validation can be driven without real tools.
    RunCommand runCommand = runWithValidationLimits;

    // The default `runCommand`: a ProcessRunner run with kCommandTimeout, standard output
    // captured up to kOutputLimit bytes. On the first byte beyond it the child is cancelled
    // (1-second grace) and the result has `stdoutOverflowed` set. Throws LaunchError.
    [[nodiscard]] static ProcessResult runWithValidationLimits(
        const std::filesystem::path& executable, const std::vector<std::string>& arguments);

    // Inspects `name` in `directory`: it must exist, resolve (through any links) to a regular
    // file, be executable and be a native executable; returns the resolved path and SHA-256.
    // Throws ExternalSoftwareHEVCValidationError, or std::system_error if the file can't be read.
    [[nodiscard]] static Inspected inspect(const std::filesystem::path& directory,
                                           std::string_view name);

    // The whole check of a chosen folder; returns the identity to store. Throws
    // ExternalSoftwareHEVCValidationError, or std::system_error if a file can't be read.
    [[nodiscard]] ExternalSoftwareHEVCToolchain validate(
        const std::filesystem::path& directory) const;

    // Inspects both files again from the stored folder, without running them. A different
    // resolved path or digest throws `identityChanged`; a file that no longer passes
    // inspection throws that inspection's error.
    void revalidate(const ExternalSoftwareHEVCToolchain& identity) const;

private:
    [[nodiscard]] ProcessResult runChecked(const std::filesystem::path& executable,
                                           const std::vector<std::string>& arguments,
                                           const std::string& label) const;
    [[nodiscard]] std::string version(const Inspected& tool, std::string_view name) const;
};

}  // namespace tessarin::engine
