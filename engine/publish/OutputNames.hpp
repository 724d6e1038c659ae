// Output names: which suffix and extension a task writes, the first free name in a folder, and
// the recognisable names of the work files that a later run may sweep.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "engine/model/MediaTask.hpp"
#include "engine/model/Preset.hpp"

namespace tessarin::engine {

// Below this many free bytes a destination is critically low.
inline constexpr int64_t kCriticallyLowFreeBytes = 52'428'800;
// A ".converting-" file in an output folder older than this is a crash's remains.
inline constexpr int64_t kStaleTemporaryFileSeconds = 600;
// A "tessarin-work-" folder in the temporary directory older than this is abandoned.
inline constexpr int64_t kStaleWorkFolderSeconds = 21'600;
// The copy to a destination reads this much at a time.
inline constexpr std::size_t kCopyChunkBytes = 4'194'304;
// Publication gives up after this many taken names.
inline constexpr int kPublicationTries = 64;

inline constexpr std::string_view kWorkFolderPrefix = "tessarin-work-";
inline constexpr std::string_view kConvertingPrefix = ".converting-";
inline constexpr std::string_view kScratchPrefix = ".tessarin-scratch-";

// The suffix and extension of the task's output: the preset's for convert, the preset's with
// "-joined" for join, the options' naming for extractAudio, "-cut" and "mp4" for fastCut.
[[nodiscard]] OutputNaming outputNaming(const MediaTask& task);

// A new random (version 4) UUID in lower-case text form.
[[nodiscard]] std::string newUuidText();
// The first 8 characters of a new UUID's text form.
[[nodiscard]] std::string newShortId();

// "tessarin-work-" + 8 hex digits: a private work folder in the temporary directory.
[[nodiscard]] std::string newWorkFolderName();
// ".converting-" + 8 hex digits + "-" + finalName: an encode target or a copy's temporary.
[[nodiscard]] std::string newConvertingName(std::string_view finalName);
// ".converting-" + 8 hex digits + "-opt-" + finalName: gifsicle's output beside the output.
[[nodiscard]] std::string newOptimizedName(std::string_view finalName);
// ".tessarin-scratch-" + UUID: a private scratch folder inside a destination folder.
[[nodiscard]] std::string newScratchName();

// True for exactly "tessarin-work-" followed by 8 hex digits.
[[nodiscard]] bool isWorkFolderName(std::string_view name);
// True for ".converting-", 8 hex digits, "-" and anything after.
[[nodiscard]] bool isConvertingName(std::string_view name);
// True for exactly ".tessarin-scratch-" followed by a UUID in text form.
[[nodiscard]] bool isScratchName(std::string_view name);

// The folder outputs go to: `outputDirectory` if given, otherwise the source's folder.
[[nodiscard]] std::filesystem::path outputFolder(
    const std::filesystem::path& source,
    const std::optional<std::filesystem::path>& outputDirectory);

// The first candidate name that `lstat` cannot find in the output folder: stem + suffix + "." +
// extension, then stem + suffix + "-n." + extension for n = 2, 3, ... A dangling link counts as
// taken. Only a first guess: publication is what settles a race. Blocks on file-system calls.
[[nodiscard]] std::filesystem::path firstFreeName(
    const std::filesystem::path& source, std::string_view suffix, std::string_view extension,
    const std::optional<std::filesystem::path>& outputDirectory);

}  // namespace tessarin::engine
