#include "tests/support/TempDir.hpp"

#include <stdlib.h>

#include <stdexcept>
#include <string>

namespace tessarin::test {

TempDir::TempDir() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "tessarin-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace tessarin::test
