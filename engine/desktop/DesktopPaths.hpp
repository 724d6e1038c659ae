// The per-user folders of the freedesktop.org base directory rules that the desktop integration
// writes into. Each is read from the environment at each call, so tests can point them elsewhere.
#pragma once

#include <filesystem>

namespace tessarin::engine {

// $HOME, else the account's home from the password database. Throws std::runtime_error when
// neither gives an absolute path.
[[nodiscard]] std::filesystem::path homeFolder();

// $XDG_DATA_HOME when it is absolute, else homeFolder()/.local/share.
[[nodiscard]] std::filesystem::path dataHome();

// The folder of the running executable (/proc/self/exe), resolved.
[[nodiscard]] std::filesystem::path runningProgramFolder();

}  // namespace tessarin::engine
