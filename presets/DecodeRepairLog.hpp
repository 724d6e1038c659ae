// The names of the stored fields a decoder had to replace with their fallback. One log is made
// per record decoded and handed to the decoder by pointer; the caller reads it afterwards to
// decide whether the record counts as repaired.
//
// Thread-safe: a decoder may record from any thread while another reads; every access takes the
// log's own lock, held only for the copy or insertion. Nothing throws but std::bad_alloc.
#pragma once

#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace tessarin::presets {

class DecodeRepairLog {
public:
    DecodeRepairLog() = default;
    DecodeRepairLog(const DecodeRepairLog&) = delete;
    DecodeRepairLog& operator=(const DecodeRepairLog&) = delete;

    // Notes that `field` (a JSON key, or "(entry)" for a whole record) took its fallback.
    void record(std::string_view field);
    // A snapshot of the noted fields.
    [[nodiscard]] std::set<std::string> recordedFields() const;
    [[nodiscard]] bool contains(std::string_view field) const;

private:
    mutable std::mutex lock_;
    std::set<std::string, std::less<>> recordedFields_;
};

// Records `field` in `log` when there is a log; decoders without one decode the same way.
inline void noteRepair(DecodeRepairLog* log, std::string_view field) {
    if (log != nullptr) {
        log->record(field);
    }
}

}  // namespace tessarin::presets
