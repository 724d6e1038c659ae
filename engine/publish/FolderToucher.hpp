// Keeps a work folder's modification time fresh while a long step runs, so that another job's
// sweep of stale work folders cannot take it away.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

namespace tessarin::engine {

// Sets the folder's modification time to now every `period` on a thread of its own, until
// stop() or destruction (which joins the thread). Failures to touch are ignored. Construct and
// stop from one thread.
class FolderToucher {
public:
    FolderToucher(std::filesystem::path folder, std::chrono::milliseconds period);
    ~FolderToucher();
    FolderToucher(const FolderToucher&) = delete;
    FolderToucher& operator=(const FolderToucher&) = delete;

    void stop();

private:
    void loop() noexcept;

    const std::filesystem::path folder_;
    const std::chrono::milliseconds period_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;  // guarded by mutex_
    std::thread thread_;
};

}  // namespace tessarin::engine
