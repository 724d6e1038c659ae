#include "tests/support/Files.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace tessarin::test {

namespace fs = std::filesystem;

void writeFile(const fs::path& path, std::string_view content, int mode) {
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(content.data(), static_cast<std::streamsize>(content.size()));
        if (!out) {
            throw std::runtime_error("could not write " + path.string());
        }
    }
    fs::permissions(path, static_cast<fs::perms>(mode));
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

mode_t fileMode(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

std::vector<std::string> namesStartingWith(const fs::path& folder, std::string_view prefix) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) {
        std::string name = entry.path().filename().string();
        if (name.starts_with(prefix)) {
            names.push_back(std::move(name));
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> treeEntries(const fs::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        names.push_back(fs::relative(entry.path(), folder).string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

ScopedEnv::ScopedEnv(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) {
        old_ = old;
    }
    if (value) {
        ::setenv(name_.c_str(), value->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

ScopedEnv::~ScopedEnv() {
    if (old_) {
        ::setenv(name_.c_str(), old_->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

namespace {

// Makes the sandbox's folders before TMPDIR points into it.
std::string preparedTemporary(const TempDir& root) {
    for (const char* name : {"in", "out", "tmp"}) {
        fs::create_directory(root / name);
    }
    for (const char* name : {"out", "tmp"}) {
        fs::permissions(root / name, fs::perms::owner_all, fs::perm_options::replace);
    }
    return (root / "tmp").string();
}

}  // namespace

Sandbox::Sandbox() : tmpdir_("TMPDIR", preparedTemporary(root_)) {}

fs::path Sandbox::place(const fs::path& clip, const std::string& name) const {
    const fs::path target = sources() / name;
    fs::copy_file(clip, target, fs::copy_options::overwrite_existing);
    return target;
}

std::vector<std::string> Sandbox::leftovers(const std::vector<fs::path>& keep) const {
    std::vector<std::string> found;
    for (const fs::path& folder : {outputs(), temporary()}) {
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            if (std::find(keep.begin(), keep.end(), entry.path()) == keep.end()) {
                found.push_back(fs::relative(entry.path(), root_.path()).string());
            }
        }
    }
    return found;
}

}  // namespace tessarin::test
