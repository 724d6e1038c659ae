#include <iostream>

#include "cli/Commands.hpp"
#include "cli/ExitStatus.hpp"
#include "cli/ToolLookup.hpp"
#include "engine/probe/MediaProbe.hpp"

namespace tessarin::cli {

int runProbe(const std::filesystem::path& file) {
    const std::optional<engine::Tools> tools = locateTools();
    if (!tools) {
        return kExitToolsMissing;
    }
    engine::ProcessRunner runner;
    try {
        const engine::MediaInfo info =
            engine::MediaProbe::probe(file, *tools, engine::MediaInputPolicy::unrestricted, runner,
                                      engine::MediaProbe::kTimeoutSeconds,
                                      /*includeChapters=*/true);
        std::cout << engine::toJson(info).dump(2) << "\n";
        return kExitSuccess;
    } catch (const engine::MediaProbeError& error) {
        std::cerr << "tessarin: " << file.filename().string() << ": " << error.what() << "\n";
        return kExitFailure;
    }
}

}  // namespace tessarin::cli
