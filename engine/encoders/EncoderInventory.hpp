// The encoders an ffmpeg offers, asked once per tool identity and remembered.
//
// The distribution's ffmpeg usually carries libx265, so whether the helper folder can encode
// software H.265 is a fact of that binary, not of the build: ask it, and ask again only when
// the file at that path is another one (inode, size or modification time differ).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "engine/encoders/EncoderCapabilityPolicy.hpp"
#include "engine/process/ProcessResult.hpp"

namespace tessarin::engine {

class EncoderInventory {
public:
    using RunCommand = std::function<ProcessResult(const std::filesystem::path& executable,
                                                   const std::vector<std::string>& arguments)>;
    using EncoderNames = std::set<std::string, std::less<>>;

    static constexpr double kQueryTimeout = 15.0;

    // `runCommand` runs `ffmpeg -hide_banner -encoders`; by default a ProcessRunner run with
    // captured output and kQueryTimeout.
    explicit EncoderInventory(RunCommand runCommand = runQuery);

    // One inventory for the whole process.
    [[nodiscard]] static EncoderInventory& shared();

    // The encoder names `ffmpeg` lists, from the cache when the file is unchanged. Nothing
    // when the file is missing, the query fails, times out or overflows; failures are not
    // remembered, so a later call asks again. Blocks while the query runs; any thread (the
    // lock is never held while a child runs, so two first calls may both ask). Never throws
    // for a failing tool.
    [[nodiscard]] std::optional<std::shared_ptr<const EncoderNames>> encoders(
        const std::filesystem::path& ffmpeg);

    [[nodiscard]] bool hasEncoder(const std::filesystem::path& ffmpeg, std::string_view name);

    // The names in `ffmpeg -encoders` output: the second column of each row under the
    // "------" rule.
    [[nodiscard]] static EncoderNames parseEncoderList(std::string_view output);

    [[nodiscard]] static ProcessResult runQuery(const std::filesystem::path& executable,
                                                const std::vector<std::string>& arguments);

private:
    // Resolved path, device, inode, size, modification time in nanoseconds.
    using Identity =
        std::tuple<std::string, std::uint64_t, std::uint64_t, std::int64_t, std::int64_t>;

    [[nodiscard]] static std::optional<Identity> identityOf(const std::filesystem::path& ffmpeg);

    RunCommand runCommand_;
    std::mutex mutex_;
    std::map<Identity, std::shared_ptr<const EncoderNames>> cache_;  // guarded by mutex_
};

// `privateBundled` when the helper folder's ffmpeg lists libx265, `unavailable` otherwise
// (also when it can't be asked). The settings layer replaces it by `external` when the user
// has a validated toolchain.
[[nodiscard]] SoftwareHEVCSource bundledSoftwareHEVCSource(EncoderInventory& inventory,
                                                           const std::filesystem::path& ffmpeg);

}  // namespace tessarin::engine
