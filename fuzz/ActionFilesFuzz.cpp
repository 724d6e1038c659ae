// File-manager action files: whatever text stands at an action's place reads back without harm,
// and every file Tessarin writes reads back as exactly its action and helper, whatever the
// helper's path holds (blanks, quotes, backslashes, dollars, percent signs, UTF-8), as long as it
// has no control characters.
//
// Input: one byte choosing the file manager and action, then the helper path's bytes; the same
// bytes are also read as a file found in place.

#include <cstdint>
#include <string>
#include <string_view>

#include "engine/desktop/ActionFiles.hpp"
#include "fuzz/FuzzSupport.hpp"

namespace {

using namespace tessarin::engine;
using tessarin::fuzz::require;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const FileManager manager = kFileManagers[data[0] % kFileManagers.size()];
    const HelperAction action = helperActions()[(data[0] / 3) % helperActions().size()];

    // Anything found in place: no crash, and a marker never reads as more than one line.
    const ActionFileReading found = readActionFile(manager, bytes.substr(1));
    require(!found.action || found.action->find('\n') == std::string::npos,
            "a marker is one line");

    std::string helper = "/";
    for (const char c : bytes.substr(1)) {
        if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f) {
            helper += c;
        }
    }
    const std::string text = actionFileText(manager, action, helper);
    const ActionFileReading reading = readActionFile(manager, text);
    require(reading.action == std::string(action.name), "the written action reads back");
    require(reading.helper && reading.helper->string() == helper,
            "the written helper path reads back unchanged");
    return 0;
}
