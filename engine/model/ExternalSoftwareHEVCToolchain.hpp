// The identity of a user-chosen ffmpeg/ffprobe pair with a software HEVC encoder: where the
// executables resolved to and the digest each had when it was validated.
#pragma once

#include <string>

namespace tessarin::engine {

struct ExternalSoftwareHEVCToolchain {
    struct Executable {
        std::string resolvedPath;
        std::string sha256;  // lower-case hexadecimal
        std::string version;
        bool operator==(const Executable&) const = default;
    };

    std::string selectedDirectoryPath;
    Executable ffmpeg;
    Executable ffprobe;

    bool operator==(const ExternalSoftwareHEVCToolchain&) const = default;
};

}  // namespace tessarin::engine
