#include "engine/encoders/EncoderInventory.hpp"

#include <sys/stat.h>

#include <system_error>
#include <utility>

#include "engine/process/ProcessRunner.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// Field number `wanted` (from 0) of the blank-separated fields of `line`, or empty.
std::string_view field(std::string_view line, int wanted) {
    std::size_t index = 0;
    for (int current = 0;; ++current) {
        while (index < line.size() && isBlank(line[index])) {
            ++index;
        }
        const std::size_t start = index;
        while (index < line.size() && !isBlank(line[index])) {
            ++index;
        }
        if (start == index) {
            return {};
        }
        if (current == wanted) {
            return line.substr(start, index - start);
        }
    }
}

}  // namespace

EncoderInventory::EncoderInventory(RunCommand runCommand) : runCommand_(std::move(runCommand)) {}

EncoderInventory& EncoderInventory::shared() {
    static EncoderInventory inventory;
    return inventory;
}

ProcessResult EncoderInventory::runQuery(const fs::path& executable,
                                         const std::vector<std::string>& arguments) {
    ProcessRunner runner;
    return runner.run(executable, arguments, /*captureStdout=*/true, /*mergeStderr=*/false,
                      kQueryTimeout);
}

EncoderInventory::EncoderNames EncoderInventory::parseEncoderList(std::string_view output) {
    EncoderNames names;
    bool inTable = false;
    while (!output.empty()) {
        const std::size_t end = output.find('\n');
        const std::string_view line = output.substr(0, end);
        output = end == std::string_view::npos ? std::string_view() : output.substr(end + 1);
        if (!inTable) {
            inTable = field(line, 0) == "------";
            continue;
        }
        if (const std::string_view name = field(line, 1); !name.empty()) {
            names.emplace(name);
        }
    }
    return names;
}

std::optional<EncoderInventory::Identity> EncoderInventory::identityOf(const fs::path& ffmpeg) {
    std::error_code error;
    const fs::path resolved = fs::canonical(ffmpeg, error);
    struct stat info {};
    if (error || ::stat(resolved.c_str(), &info) != 0) {
        return std::nullopt;
    }
    return Identity{
        resolved.string(), static_cast<std::uint64_t>(info.st_dev),
        static_cast<std::uint64_t>(info.st_ino), static_cast<std::int64_t>(info.st_size),
        static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec};
}

std::optional<std::shared_ptr<const EncoderInventory::EncoderNames>> EncoderInventory::encoders(
    const fs::path& ffmpeg) {
    const std::optional<Identity> identity = identityOf(ffmpeg);
    if (!identity) {
        return std::nullopt;
    }
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = cache_.find(*identity); found != cache_.end()) {
            return found->second;
        }
    }
    ProcessResult result;
    try {
        result = runCommand_(fs::path(std::get<0>(*identity)), {"-hide_banner", "-encoders"});
    } catch (const std::system_error&) {
        return std::nullopt;
    }
    if (result.wasCancelled || result.timedOut || result.stdoutOverflowed ||
        result.outputIncomplete || result.exitCode != 0 || !result.stdoutData) {
        return std::nullopt;
    }
    auto names = std::make_shared<const EncoderNames>(parseEncoderList(*result.stdoutData));
    const std::lock_guard lock(mutex_);
    return cache_.try_emplace(*identity, std::move(names)).first->second;
}

bool EncoderInventory::hasEncoder(const fs::path& ffmpeg, std::string_view name) {
    const auto names = encoders(ffmpeg);
    return names && (*names)->contains(name);
}

SoftwareHEVCSource bundledSoftwareHEVCSource(EncoderInventory& inventory, const fs::path& ffmpeg) {
    return inventory.hasEncoder(ffmpeg, "libx265") ? SoftwareHEVCSource::privateBundled
                                                   : SoftwareHEVCSource::unavailable;
}

}  // namespace tessarin::engine
