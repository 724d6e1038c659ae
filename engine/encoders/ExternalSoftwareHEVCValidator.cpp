#include "engine/encoders/ExternalSoftwareHEVCValidator.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "engine/encoders/FileDigest.hpp"
#include "engine/encoders/NativeExecutable.hpp"
#include "engine/process/ProcessRunner.hpp"

namespace tessarin::engine {

namespace fs = std::filesystem;
using Error = ExternalSoftwareHEVCValidationError;

namespace {

struct CapabilityQuery {
    const char* argument;
    const char* label;
    const char* word;
    const char* capability;
};

constexpr std::array<CapabilityQuery, 3> kCapabilityQueries = {{
    {"-encoders", "ffmpeg -encoders", "libx265", "the exact libx265 encoder"},
    {"-filters", "ffmpeg -filters", "scale", "the scale filter"},
    {"-muxers", "ffmpeg -muxers", "mp4", "the MP4 muxer"},
}};

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    [[nodiscard]] int get() const { return fd_; }

private:
    int fd_;
};

bool isWhitespace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool containsWord(std::string_view text, std::string_view word) {
    std::size_t index = 0;
    while (index < text.size()) {
        while (index < text.size() && isWhitespace(text[index])) {
            ++index;
        }
        const std::size_t start = index;
        while (index < text.size() && !isWhitespace(text[index])) {
            ++index;
        }
        if (text.substr(start, index - start) == word) {
            return true;
        }
    }
    return false;
}

std::string_view firstLine(std::string_view text) {
    const std::size_t end = text.find_first_of("\r\n");
    return end == std::string_view::npos ? text : text.substr(0, end);
}

}  // namespace

ProcessResult ExternalSoftwareHEVCValidator::runWithValidationLimits(
    const fs::path& executable, const std::vector<std::string>& arguments) {
    ProcessRunner runner;
    std::string captured;
    bool overflowed = false;
    ProcessRunner::RawOptions options;
    options.timeout = kCommandTimeout;
    // The handler runs on the run's reader thread, which is joined before runRaw returns.
    options.stdoutHandler = [&](std::string_view bytes) {
        if (overflowed) {
            return;
        }
        if (captured.size() + bytes.size() > kOutputLimit) {
            overflowed = true;
            runner.cancel(ProcessRunner::kTimeoutGrace);
            return;
        }
        captured.append(bytes);
    };
    ProcessResult result = runner.runRaw(executable, arguments, std::move(options));
    result.stdoutData = std::move(captured);
    result.stdoutOverflowed = overflowed;
    return result;
}

ExternalSoftwareHEVCValidator::Inspected ExternalSoftwareHEVCValidator::inspect(
    const fs::path& directory, std::string_view name) {
    const std::string tool(name);
    const fs::path candidate = directory / tool;
    std::error_code error;
    if (!fs::exists(fs::symlink_status(candidate, error))) {
        throw Error::missingExecutable(tool);
    }
    const fs::path resolved = fs::canonical(candidate, error);
    if (error || !fs::is_regular_file(fs::status(resolved, error))) {
        throw Error::notRegularFile(tool);
    }
    if (::access(resolved.c_str(), X_OK) != 0) {
        throw Error::notExecutable(tool);
    }
    // O_NONBLOCK: should the path become a FIFO after the check, opening it must not wait.
    const FileDescriptor file(
        ::open(resolved.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.get() < 0) {
        if (errno == EACCES) {
            throw Error::notExecutable(tool);
        }
        throw Error::notRegularFile(tool);
    }
    struct stat info {};
    if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
        throw Error::notRegularFile(tool);
    }
    std::array<unsigned char, kExecutableHeaderBytes> header{};
    ssize_t count = 0;
    do {
        count = ::pread(file.get(), header.data(), header.size(), 0);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        throw std::system_error(errno, std::generic_category(), "read");
    }
    if (!isNativeExecutableHeader(std::span(header.data(), static_cast<std::size_t>(count)))) {
        throw Error::unsupportedExecutable(tool);
    }
    return {resolved, sha256Hex(file.get())};
}

ProcessResult ExternalSoftwareHEVCValidator::runChecked(const fs::path& executable,
                                                        const std::vector<std::string>& arguments,
                                                        const std::string& label) const {
    ProcessResult result;
    try {
        result = runCommand(executable, arguments);
    } catch (const std::system_error& launchFailure) {
        throw Error::commandFailed(label, -1, launchFailure.code().message());
    }
    if (result.timedOut) {
        throw Error::commandTimedOut(label);
    }
    if (result.stdoutOverflowed) {
        throw Error::commandFailed(label, result.exitCode, "output exceeded the validation limit");
    }
    if (result.exitCode != 0) {
        throw Error::commandFailed(
            label, result.exitCode,
            result.stderrTail.empty() ? std::string("no diagnostic output") : result.stderrTail);
    }
    return result;
}

std::string ExternalSoftwareHEVCValidator::version(const Inspected& tool,
                                                   std::string_view name) const {
    const std::string label = std::string(name) + " -version";
    const ProcessResult result = runChecked(tool.url, {"-hide_banner", "-version"}, label);
    const std::string output = result.stdoutData.value_or("");
    const std::string_view line = firstLine(output);
    // The word right after "{name} version "; a line that ends after "version" or has a
    // second space there carries an empty version.
    const std::string lead = std::string(name) + " version";
    if (!line.starts_with(lead) || (line.size() > lead.size() && line[lead.size()] != ' ')) {
        throw Error::commandFailed(label, result.exitCode, "unrecognized version output");
    }
    const std::string_view rest = line.substr(std::min(line.size(), lead.size() + 1));
    std::size_t end = 0;
    while (end < rest.size() && !isWhitespace(rest[end])) {
        ++end;
    }
    if (end == 0) {
        throw Error::commandFailed(label, result.exitCode, "missing version number");
    }
    return std::string(rest.substr(0, end));
}

ExternalSoftwareHEVCToolchain ExternalSoftwareHEVCValidator::validate(
    const fs::path& directory) const {
    const fs::path folder = fs::absolute(directory);
    const Inspected ffmpeg = inspect(folder, "ffmpeg");
    const Inspected ffprobe = inspect(folder, "ffprobe");
    std::error_code error;
    if (ffmpeg.url == ffprobe.url || fs::equivalent(ffmpeg.url, ffprobe.url, error)) {
        throw Error::duplicateExecutables();
    }

    const std::string ffmpegVersion = version(ffmpeg, "ffmpeg");
    const std::string ffprobeVersion = version(ffprobe, "ffprobe");
    if (ffmpegVersion != ffprobeVersion) {
        throw Error::incompatibleVersions(ffmpegVersion, ffprobeVersion);
    }

    for (const CapabilityQuery& query : kCapabilityQueries) {
        const ProcessResult result =
            runChecked(ffmpeg.url, {"-hide_banner", query.argument}, query.label);
        if (!containsWord(result.stdoutData.value_or(""), query.word)) {
            throw Error::missingCapability(query.capability);
        }
    }

    return ExternalSoftwareHEVCToolchain{
        .selectedDirectoryPath = folder.string(),
        .ffmpeg = {ffmpeg.url.string(), ffmpeg.sha256, ffmpegVersion},
        .ffprobe = {ffprobe.url.string(), ffprobe.sha256, ffprobeVersion},
    };
}

void ExternalSoftwareHEVCValidator::revalidate(
    const ExternalSoftwareHEVCToolchain& identity) const {
    const fs::path folder(identity.selectedDirectoryPath);
    const Inspected ffmpeg = inspect(folder, "ffmpeg");
    const Inspected ffprobe = inspect(folder, "ffprobe");
    if (ffmpeg.url.string() != identity.ffmpeg.resolvedPath ||
        ffmpeg.sha256 != identity.ffmpeg.sha256 ||
        ffprobe.url.string() != identity.ffprobe.resolvedPath ||
        ffprobe.sha256 != identity.ffprobe.sha256) {
        throw Error::identityChanged();
    }
}

}  // namespace tessarin::engine
