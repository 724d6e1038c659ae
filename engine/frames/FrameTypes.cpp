#include "engine/frames/FrameTypes.hpp"

#include <array>
#include <utility>

namespace tessarin::engine {

namespace {

constexpr std::array<std::pair<FrameReason, std::string_view>, 7> kReasons = {{
    {FrameReason::first, "first"},
    {FrameReason::change, "change"},
    {FrameReason::transient, "transient"},
    {FrameReason::activity, "activity"},
    {FrameReason::unsettled, "unsettled"},
    {FrameReason::last, "last"},
    {FrameReason::interval, "interval"},
}};

constexpr std::array<std::pair<FrameWarning, std::string_view>, 5> kWarnings = {{
    {FrameWarning::hdrNotToneMapped, "hdr-not-tone-mapped"},
    {FrameWarning::decodedShort, "decoded-short"},
    {FrameWarning::budgetPruned, "budget-pruned"},
    {FrameWarning::permissionsNotEnforced, "permissions-not-enforced"},
    {FrameWarning::contactSheetSkipped, "contact-sheet-skipped"},
}};

constexpr std::array<std::pair<FrameSelectionMode, std::string_view>, 2> kModes = {{
    {FrameSelectionMode::changes, "changes"},
    {FrameSelectionMode::interval, "interval"},
}};

template <typename Value, std::size_t N>
std::string_view rawOf(const std::array<std::pair<Value, std::string_view>, N>& table,
                       Value value) {
    for (const auto& [candidate, raw] : table) {
        if (candidate == value) {
            return raw;
        }
    }
    return {};
}

template <typename Value, std::size_t N>
std::optional<Value> valueOf(const std::array<std::pair<Value, std::string_view>, N>& table,
                             std::string_view raw) {
    for (const auto& [candidate, text] : table) {
        if (text == raw) {
            return candidate;
        }
    }
    return std::nullopt;
}

}  // namespace

std::string_view rawValue(FrameReason reason) {
    return rawOf(kReasons, reason);
}
std::string_view rawValue(FrameWarning warning) {
    return rawOf(kWarnings, warning);
}
std::string_view rawValue(FrameSelectionMode mode) {
    return rawOf(kModes, mode);
}

std::optional<FrameReason> frameReasonFromRaw(std::string_view raw) {
    return valueOf(kReasons, raw);
}
std::optional<FrameWarning> frameWarningFromRaw(std::string_view raw) {
    return valueOf(kWarnings, raw);
}
std::optional<FrameSelectionMode> frameSelectionModeFromRaw(std::string_view raw) {
    return valueOf(kModes, raw);
}

}  // namespace tessarin::engine
