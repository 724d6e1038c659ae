// Checks of an output folder before work, and the copy of a finished encode to a network
// destination.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "engine/model/JobFailure.hpp"
#include "engine/publish/VolumeInfo.hpp"

namespace tessarin::engine {

inline constexpr std::string_view kDestinationGone =
    "The destination is no longer available (was the drive ejected or disconnected?).";

// A byte count for people, in decimal units as file managers show sizes: "999 bytes", "12 KB",
// "1.5 MB", "4.38 GB".
[[nodiscard]] std::string formatByteCount(int64_t bytes);

// Checks that `folder` exists as a directory, is writable, and (when `lowSpace`) that its volume
// has at least 52,428,800 bytes free when that is known. Throws JobFailure with step "preflight"
// and the sentence of the first check that fails. Blocks on file-system calls.
void checkDestination(const std::filesystem::path& folder, bool lowSpace,
                      const VolumeOverrides& overrides = {});

// Copies the finished encode `encoded` into `outputFolder` as ".converting-<8 hex>-<finalName>"
// and returns that path, which the caller then publishes (and removes on failure). Checks room
// first, calls onPhase(copyingToDestination), reports progress from `top` to 1, checks
// `isCancelled` before every 4 MiB chunk, flushes to disk and checks the size. Throws JobFailure
// with step "destination" or "copy" (wasCancelled when cancelled); the temporary is removed on
// every failure. Blocks; the callbacks run on the calling thread.
[[nodiscard]] std::filesystem::path copyToDestination(
    const std::filesystem::path& encoded, const std::filesystem::path& outputFolder,
    std::string_view finalName, const std::function<bool()>& isCancelled,
    const std::function<void(JobPhase)>& onPhase,
    const std::function<void(std::optional<double>)>& onProgress, double top,
    const VolumeOverrides& overrides = {});

}  // namespace tessarin::engine
