// Whether the computer is about to sleep: `onSleep` runs (on a watcher thread) when logind
// announces it, for as long as the returned handle lives. Nothing (no system bus): not watched.
#pragma once

#include <functional>
#include <memory>

namespace tessarin::engine {

[[nodiscard]] std::shared_ptr<void> watchSystemSleep(std::function<void()> onSleep);

}  // namespace tessarin::engine
