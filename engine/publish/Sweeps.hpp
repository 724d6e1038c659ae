// Sweeps of what a crashed run leaves behind. Both run at the start of a job, touch only names
// this program makes, and ignore every error.
#pragma once

#include <filesystem>

namespace tessarin::engine {

// Removes each directory of the effective user in `temporaryDirectory` named "tessarin-work-" +
// 8 hex digits whose newest modification time (of the folder or of anything directly in it) is
// at least 21,600 seconds old. A running job keeps its folder fresh by touching it.
void sweepTemporaryDirectory(const std::filesystem::path& temporaryDirectory) noexcept;

// In an output folder, removes: each regular file named ".converting-" + 8 hex digits + "-" +
// anything, modified at least 600 seconds ago; each "tessarin-work-" folder as above but with the
// 600-second limit; and each ".tessarin-scratch-" + UUID folder with the 21,600-second limit.
// Only the effective user's entries are touched.
void sweepOutputFolder(const std::filesystem::path& outputFolder) noexcept;

}  // namespace tessarin::engine
