// How much room a recording destination has, asked without ever blocking the caller past a
// time-out, even on a dead network mount: at most one blocking read per folder runs at a time
// (later callers join it), and when the time-out comes first every waiter gets `unknown` while
// the read is left to finish on its own thread and is then dropped.
//
//   auto probe = std::make_shared<RecordingStorageProbe>();
//   RecordingStorageStatus status = probe->status(folder, /*strict=*/true).get();
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <variant>
#include <vector>

namespace tessarin::engine {

struct RecordingStorageStatus {
    enum class Kind { available, unavailable, unknown };
    Kind kind = Kind::unknown;
    int64_t bytes = 0;     // available: free bytes an ordinary writer may use
    uint64_t volumeID = 0;  // available: the file system's id from statfs

    [[nodiscard]] static RecordingStorageStatus available(int64_t bytes, uint64_t volumeID) {
        return {Kind::available, bytes, volumeID};
    }
    [[nodiscard]] static RecordingStorageStatus unavailable() { return {Kind::unavailable, 0, 0}; }
    [[nodiscard]] static RecordingStorageStatus unknown() { return {Kind::unknown, 0, 0}; }
    bool operator==(const RecordingStorageStatus&) const = default;
};

// Thread-safe: status() may be called from any thread at once. The object must be held by a
// shared_ptr, since flights outlive the call that started them.
class RecordingStorageProbe : public std::enable_shared_from_this<RecordingStorageProbe> {
public:
    // The blocking read of one folder. `strict`: the folder itself must be there; otherwise the
    // nearest existing parent answers (a default folder made on first use).
    using Reader = std::function<RecordingStorageStatus(const std::filesystem::path&, bool strict)>;

    static constexpr std::chrono::milliseconds kDefaultTimeout{2000};

    explicit RecordingStorageProbe(Reader reader = readVolume,
                                   std::chrono::milliseconds timeout = kDefaultTimeout);

    // The status of `folder`; the future is ready when the read answers or the time-out passes,
    // whichever is first. Never throws (but std::bad_alloc and failure to start a thread, which
    // answer `unknown`).
    [[nodiscard]] std::future<RecordingStorageStatus> status(const std::filesystem::path& folder,
                                                             bool strict);

    // The real reader: statvfs for the free bytes, statfs for the volume id. A folder that can't
    // be read is `unavailable`.
    [[nodiscard]] static RecordingStorageStatus readVolume(const std::filesystem::path& folder,
                                                           bool strict);

    // How many flights are running (for tests).
    [[nodiscard]] std::size_t flightCount() const;

private:
    struct Flight {
        std::vector<std::promise<RecordingStorageStatus>> waiters;
        bool expired = false;
        bool answered = false;
        std::condition_variable wake;
    };
    void answer(const std::filesystem::path& key, const std::shared_ptr<Flight>& flight,
                RecordingStorageStatus status);

    Reader reader_;
    std::chrono::milliseconds timeout_;
    mutable std::mutex mutex_;  // guards flights_ and every Flight's fields
    std::map<std::filesystem::path, std::shared_ptr<Flight>> flights_;
};

}  // namespace tessarin::engine
