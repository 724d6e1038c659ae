#include "cli/ClipListOption.hpp"

#include <string>

#include "cli/EventSink.hpp"
#include "cli/ExitStatus.hpp"
#include "engine/clips/ClipListFile.hpp"

namespace tessarin::cli {

std::optional<int> readClipList(RangeOptions& ranges,
                                const std::vector<std::filesystem::path>& files, bool json) {
    if (!ranges.clipList) {
        return std::nullopt;
    }
    std::string refusal;
    try {
        loadClipList(ranges, files);
        return std::nullopt;
    } catch (const engine::ClipListFile::Invalid& invalid) {
        refusal = invalid.what();
    } catch (const engine::ClipSelection::Invalid& invalid) {
        refusal = invalid.what();
    } catch (const std::filesystem::filesystem_error& error) {
        refusal = "Could not read the clip list: " + error.code().message() + ".";
    }
    EventSink sink(json);
    sink.refused(files.front(), "clip list", refusal);
    return kExitFailure;
}

}  // namespace tessarin::cli
