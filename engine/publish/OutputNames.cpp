#include "engine/publish/OutputNames.hpp"

#include <fmt/format.h>
#include <sys/stat.h>

#include <type_traits>

#include "engine/clips/Uuid.hpp"

namespace tessarin::engine {

namespace {

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool allHex(std::string_view text) {
    for (char c : text) {
        if (!isHexDigit(c)) {
            return false;
        }
    }
    return true;
}

bool isUuidText(std::string_view text) {
    if (text.size() != 36) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool dashPlace = i == 8 || i == 13 || i == 18 || i == 23;
        if (dashPlace ? text[i] != '-' : !isHexDigit(text[i])) {
            return false;
        }
    }
    return true;
}

}  // namespace

OutputNaming outputNaming(const MediaTask& task) {
    return std::visit(
        [](const auto& kind) -> OutputNaming {
            using Kind = std::decay_t<decltype(kind)>;
            if constexpr (std::is_same_v<Kind, MediaTask::Convert>) {
                return {kind.preset.filenameSuffix, kind.preset.fileExtension};
            } else if constexpr (std::is_same_v<Kind, MediaTask::Join>) {
                return {kind.preset.filenameSuffix + "-joined", kind.preset.fileExtension};
            } else if constexpr (std::is_same_v<Kind, MediaTask::ExtractAudio>) {
                return kind.options.naming;
            } else {
                return {"-cut", "mp4"};
            }
        },
        task.kind);
}

std::string newUuidText() {
    return Uuid::random().text();
}

std::string newShortId() {
    return newUuidText().substr(0, 8);
}

std::string newWorkFolderName() {
    return std::string(kWorkFolderPrefix) + newShortId();
}

std::string newConvertingName(std::string_view finalName) {
    return fmt::format("{}{}-{}", kConvertingPrefix, newShortId(), finalName);
}

std::string newOptimizedName(std::string_view finalName) {
    return fmt::format("{}{}-opt-{}", kConvertingPrefix, newShortId(), finalName);
}

std::string newScratchName() {
    return std::string(kScratchPrefix) + newUuidText();
}

bool isWorkFolderName(std::string_view name) {
    if (!name.starts_with(kWorkFolderPrefix)) {
        return false;
    }
    const std::string_view rest = name.substr(kWorkFolderPrefix.size());
    return rest.size() == 8 && allHex(rest);
}

bool isConvertingName(std::string_view name) {
    if (!name.starts_with(kConvertingPrefix)) {
        return false;
    }
    const std::string_view rest = name.substr(kConvertingPrefix.size());
    return rest.size() >= 9 && allHex(rest.substr(0, 8)) && rest[8] == '-';
}

bool isScratchName(std::string_view name) {
    return name.starts_with(kScratchPrefix) && isUuidText(name.substr(kScratchPrefix.size()));
}

std::filesystem::path outputFolder(const std::filesystem::path& source,
                                   const std::optional<std::filesystem::path>& outputDirectory) {
    if (outputDirectory) {
        return *outputDirectory;
    }
    return source.parent_path().empty() ? std::filesystem::path(".") : source.parent_path();
}

std::filesystem::path firstFreeName(const std::filesystem::path& source, std::string_view suffix,
                                    std::string_view extension,
                                    const std::optional<std::filesystem::path>& outputDirectory) {
    const std::filesystem::path folder = outputFolder(source, outputDirectory);
    const std::string base = source.stem().string();
    const auto isFree = [](const std::filesystem::path& candidate) {
        struct stat st {};
        return ::lstat(candidate.c_str(), &st) != 0;
    };
    std::filesystem::path candidate = folder / fmt::format("{}{}.{}", base, suffix, extension);
    for (uint64_t n = 2; !isFree(candidate); ++n) {
        candidate = folder / fmt::format("{}{}-{}.{}", base, suffix, n, extension);
    }
    return candidate;
}

}  // namespace tessarin::engine
