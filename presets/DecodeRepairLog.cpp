#include "presets/DecodeRepairLog.hpp"

namespace tessarin::presets {

void DecodeRepairLog::record(std::string_view field) {
    const std::lock_guard guard(lock_);
    recordedFields_.emplace(field);
}

std::set<std::string> DecodeRepairLog::recordedFields() const {
    const std::lock_guard guard(lock_);
    return {recordedFields_.begin(), recordedFields_.end()};
}

bool DecodeRepairLog::contains(std::string_view field) const {
    const std::lock_guard guard(lock_);
    return recordedFields_.find(field) != recordedFields_.end();
}

}  // namespace tessarin::presets
