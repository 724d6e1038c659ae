// File and environment helpers shared by the tests: whole-file reads and writes, listings,
// modes, an environment variable set for one scope, and a sandbox of source, output and
// temporary folders. Test-only; not thread-safe.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/TempDir.hpp"

namespace tessarin::test {

// Writes `content` to `path` with the given mode; throws when it can't.
void writeFile(const std::filesystem::path& path, std::string_view content, int mode = 0644);

// The whole file; empty when it can't be read.
[[nodiscard]] std::string readFile(const std::filesystem::path& path);

// The permission bits of `path` itself (links are not followed); fails the test when absent.
[[nodiscard]] mode_t fileMode(const std::filesystem::path& path);

// Names in `folder` that begin with `prefix`, sorted.
[[nodiscard]] std::vector<std::string> namesStartingWith(const std::filesystem::path& folder,
                                                         std::string_view prefix = {});

// Everything below `folder`, recursively, as sorted paths relative to it.
[[nodiscard]] std::vector<std::string> treeEntries(const std::filesystem::path& folder);

// Sets (or, given nothing, unsets) an environment variable and restores it on destruction.
class ScopedEnv {
public:
    ScopedEnv(std::string name, const std::optional<std::string>& value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// Source ("in"), output ("out") and temporary ("tmp") folders of one test, the temporary one
// being TMPDIR while the sandbox lives; output and temporary folders are private.
class Sandbox {
public:
    Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    [[nodiscard]] std::filesystem::path sources() const { return root_ / "in"; }
    [[nodiscard]] std::filesystem::path outputs() const { return root_ / "out"; }
    [[nodiscard]] std::filesystem::path temporary() const { return root_ / "tmp"; }
    [[nodiscard]] std::filesystem::path root() const { return root_.path(); }

    // Copies `clip` into the source folder as `name`.
    [[nodiscard]] std::filesystem::path place(const std::filesystem::path& clip,
                                              const std::string& name) const;

    // Every entry below the output and temporary folders (recursively) except `keep`, as paths
    // relative to the sandbox. Empty means nothing was left behind.
    [[nodiscard]] std::vector<std::string> leftovers(
        const std::vector<std::filesystem::path>& keep = {}) const;

private:
    TempDir root_;
    ScopedEnv tmpdir_;
};

}  // namespace tessarin::test
