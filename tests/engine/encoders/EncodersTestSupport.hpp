// Scratch folders and fake ffmpeg/ffprobe executables for the encoder tests.
#pragma once

#include <filesystem>
#include <string>

#include "tests/support/TempDir.hpp"

namespace tessarin::test {

using ScratchFolder = TempDir;

// Behaviour lines for FakeMediaTool: a healthy tool named `name` at `version`.
[[nodiscard]] std::string healthyBehaviour(const std::string& name,
                                           const std::string& version = "6.1.1");

// Copies the fake tool to `folder/fileName` (mode 0755) with `behaviour` beside it.
std::filesystem::path installFakeTool(const std::filesystem::path& folder,
                                      const std::string& fileName, const std::string& behaviour);

// Rewrites the behaviour of an installed fake tool.
void setBehaviour(const std::filesystem::path& tool, const std::string& behaviour);

// The helper folder's real ffmpeg/ffprobe, as the build links them.
[[nodiscard]] std::filesystem::path helperTool(const std::string& name);

}  // namespace tessarin::test
