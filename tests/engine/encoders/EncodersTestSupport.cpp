#include "tests/engine/encoders/EncodersTestSupport.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <system_error>

namespace tessarin::test {

namespace fs = std::filesystem;

std::string healthyBehaviour(const std::string& name, const std::string& version) {
    return "name=" + name + "\nversion=" + version +
           "\nmode=normal\nencoders=libx264 libx265 aac\nfilters=scale overlay\n"
           "muxers=mp4 matroska\n";
}

void setBehaviour(const fs::path& tool, const std::string& behaviour) {
    std::ofstream file(tool.string() + ".fake", std::ios::trunc);
    file << behaviour;
    if (!file) {
        throw std::runtime_error("could not write the fake tool's behaviour");
    }
}

fs::path installFakeTool(const fs::path& folder, const std::string& fileName,
                         const std::string& behaviour) {
    const fs::path tool = folder / fileName;
    fs::copy_file(TESSARIN_FAKE_MEDIA_TOOL, tool, fs::copy_options::overwrite_existing);
    fs::permissions(tool, fs::perms(0755));
    setBehaviour(tool, behaviour);
    return tool;
}

fs::path helperTool(const std::string& name) {
    return fs::path(TESSARIN_HELPER_DIR) / name;
}

}  // namespace tessarin::test
