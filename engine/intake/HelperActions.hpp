// The eight actions the file-manager helper `tessarin-action` may ask for, with the queue
// action each stands for. The helper's first argument is one of these names, and peer
// authentication allows nothing else.
#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "engine/intake/IntakeToken.hpp"

namespace tessarin::engine {

struct HelperAction {
    std::string_view name;      // "h264", "gif-full", "transcribe"…
    IntakeActionKind kind;
    std::string_view presetID;  // empty for transcribe
};

// h264, h264-half, h264-vt, gif, gif-full, av1, vp9, transcribe; in that order.
[[nodiscard]] std::span<const HelperAction> helperActions();
[[nodiscard]] std::optional<HelperAction> helperAction(std::string_view name);

// The helper's file name in the helper folder, and the file beside it that holds the
// SHA-256 of the helper (lower-case hexadecimal, one line) as the install step recorded it.
inline constexpr std::string_view kActionHelperName = "tessarin-action";
inline constexpr std::string_view kActionHelperDigestName = "tessarin-action.sha256";

}  // namespace tessarin::engine
