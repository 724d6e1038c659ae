// The files and folders of one conversion run, removed on every way out of it. Private to the
// job's source files.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

#include "engine/job/ConversionJob.hpp"

namespace tessarin::engine {

// The files and folders of one run, removed in this order on every way out.
struct ConversionJob::Workspace {
    std::optional<std::filesystem::path> encodeTarget;
    std::optional<std::filesystem::path> copyTemporary;  // the network copy beside the destination
    std::optional<std::filesystem::path> scratch;  // the private scratch on the destination volume
    std::optional<std::filesystem::path> gifFolder;
    std::optional<std::filesystem::path>
        workFolder;  // the network job's folder in the temporary directory
    std::string finalName;

    Workspace() = default;
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;
    ~Workspace() {
        const auto removeQuietly = [](const std::optional<std::filesystem::path>& path) {
            if (path) {
                std::error_code ignored;
                std::filesystem::remove_all(*path, ignored);
            }
        };
        removeQuietly(encodeTarget);
        removeQuietly(copyTemporary);
        removeQuietly(scratch);
        removeQuietly(gifFolder);
        removeQuietly(workFolder);
    }
};

}  // namespace tessarin::engine
