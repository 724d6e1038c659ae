#include <fmt/format.h>

#include <iostream>

#include "cli/Commands.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/PresetGate.hpp"
#include "cli/ToolLookup.hpp"

namespace tessarin::cli {

int runPresets() {
    const std::optional<engine::Tools> tools = locateTools();
    if (!tools) {
        return kExitToolsMissing;
    }
    const PresetGate gate(*tools);
    for (const engine::Preset& preset : engine::Preset::builtins()) {
        std::string line = fmt::format("{:<15} {}", preset.id, preset.displayName);
        if (const auto reason = gate.disabledReason(preset)) {
            line += " (unavailable: " + *reason + ")";
        }
        std::cout << line << "\n";
    }
    return kExitSuccess;
}

}  // namespace tessarin::cli
