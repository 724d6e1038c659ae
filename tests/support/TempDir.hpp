// A private temporary folder for one test.
#pragma once

#include <filesystem>
#include <string_view>

namespace tessarin::test {

// A fresh folder under the system's temporary directory (mode 0700), removed with everything
// in it when the value goes away.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }
    [[nodiscard]] std::filesystem::path operator/(std::string_view name) const {
        return path_ / name;
    }

private:
    std::filesystem::path path_;
};

}  // namespace tessarin::test
