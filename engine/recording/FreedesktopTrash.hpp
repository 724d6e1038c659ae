// The freedesktop.org Trash of the user's home: $XDG_DATA_HOME/Trash (default
// ~/.local/share/Trash) with "files/" for the items and "info/<name>.trashinfo" for where each
// came from and when, so that file managers can show and restore them.
#pragma once

#include <filesystem>

namespace tessarin::engine {

// Moves the file or folder `item` (absolute, not a link followed) into the home Trash under a
// free name, writing its ".trashinfo" first, which reserves the name. The Trash's folders are
// made with mode 0700 when missing. Returns the item's new path. Throws std::system_error: EXDEV
// when `item` lies on another file system than the home Trash (it is never copied), otherwise the
// errno of the step that failed; on failure `item` stays where it was. Blocking; any thread.
std::filesystem::path moveToTrash(const std::filesystem::path& item);

// $XDG_DATA_HOME/Trash, or $HOME/.local/share/Trash.
[[nodiscard]] std::filesystem::path homeTrash();

}  // namespace tessarin::engine
