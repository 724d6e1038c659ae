#include "engine/recording/RecordingStorageProbe.hpp"

#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <cstring>
#include <thread>

namespace tessarin::engine {

namespace fs = std::filesystem;

RecordingStorageProbe::RecordingStorageProbe(Reader reader, std::chrono::milliseconds timeout)
    : reader_(std::move(reader)), timeout_(timeout) {}

RecordingStorageStatus RecordingStorageProbe::readVolume(const fs::path& folder, bool strict) {
    fs::path target = folder;
    if (!strict) {
        std::error_code error;
        while (!target.empty() && !fs::exists(target, error) && target != target.parent_path()) {
            target = target.parent_path();
        }
    }
    struct statvfs space {};
    struct statfs facts {};
    if (::statvfs(target.c_str(), &space) != 0 || ::statfs(target.c_str(), &facts) != 0) {
        return RecordingStorageStatus::unavailable();
    }
    uint64_t volumeID = 0;
    static_assert(sizeof(facts.f_fsid) == sizeof(volumeID));
    std::memcpy(&volumeID, &facts.f_fsid, sizeof volumeID);
    const auto bytes = static_cast<int64_t>(space.f_bavail * space.f_frsize);
    return RecordingStorageStatus::available(bytes, volumeID);
}

std::size_t RecordingStorageProbe::flightCount() const {
    const std::lock_guard lock(mutex_);
    return flights_.size();
}

void RecordingStorageProbe::answer(const fs::path& key, const std::shared_ptr<Flight>& flight,
                                   RecordingStorageStatus status) {
    std::vector<std::promise<RecordingStorageStatus>> waiters;
    {
        const std::lock_guard lock(mutex_);
        if (flight->answered) {
            return;  // the other of result and timer came first
        }
        flight->answered = true;
        waiters = std::move(flight->waiters);
        const auto found = flights_.find(key);
        if (found != flights_.end() && found->second == flight) {
            flights_.erase(found);
        }
        flight->wake.notify_all();
    }
    for (auto& waiter : waiters) {
        waiter.set_value(status);
    }
}

std::future<RecordingStorageStatus> RecordingStorageProbe::status(const fs::path& folder,
                                                                  bool strict) {
    std::promise<RecordingStorageStatus> promise;
    std::future<RecordingStorageStatus> future = promise.get_future();
    std::shared_ptr<Flight> flight;
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = flights_.find(folder); found != flights_.end()) {
            found->second->waiters.push_back(std::move(promise));
            return future;
        }
        flight = std::make_shared<Flight>();
        flight->waiters.push_back(std::move(promise));
        flights_[folder] = flight;
    }
    const std::shared_ptr<RecordingStorageProbe> self = shared_from_this();
    try {
        // The read may hang on a dead mount for good, so its thread is never joined.
        std::thread([self, flight, folder, strict] {
            RecordingStorageStatus result = RecordingStorageStatus::unavailable();
            try {
                result = self->reader_(folder, strict);
            } catch (...) {
                result = RecordingStorageStatus::unknown();
            }
            self->answer(folder, flight, result);
        }).detach();
        std::thread([self, flight, folder] {
            std::unique_lock lock(self->mutex_);
            const bool answered = flight->wake.wait_for(lock, self->timeout_,
                                                        [&flight] { return flight->answered; });
            if (answered) {
                return;
            }
            flight->expired = true;
            lock.unlock();
            self->answer(folder, flight, RecordingStorageStatus::unknown());
        }).detach();
    } catch (const std::system_error&) {
        answer(folder, flight, RecordingStorageStatus::unknown());
    }
    return future;
}

}  // namespace tessarin::engine
