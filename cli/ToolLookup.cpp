#include "cli/ToolLookup.hpp"

#include <iostream>

namespace tessarin::cli {

std::optional<engine::Tools> locateTools() {
    if (std::optional<engine::Tools> fromEnvironment = engine::Tools::fromEnvironment()) {
        return fromEnvironment;
    }
    try {
        return engine::Tools::locate();
    } catch (const engine::ToolsError& error) {
        std::cerr << "tessarin: " << error.what() << "\n";
        return std::nullopt;
    }
}

}  // namespace tessarin::cli
