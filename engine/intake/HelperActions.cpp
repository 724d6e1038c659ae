#include "engine/intake/HelperActions.hpp"

#include <array>

namespace tessarin::engine {

namespace {

constexpr std::array<HelperAction, 8> kHelperActions{{
    {"h264", IntakeActionKind::convert, "mp4-h264"},
    {"h264-half", IntakeActionKind::convert, "mp4-h264-half"},
    {"h264-vt", IntakeActionKind::convert, "mp4-h264-vt"},
    {"gif", IntakeActionKind::convert, "gif-small"},
    {"gif-full", IntakeActionKind::convert, "gif-full"},
    {"av1", IntakeActionKind::convert, "mp4-av1"},
    {"vp9", IntakeActionKind::convert, "webm-vp9"},
    {"transcribe", IntakeActionKind::transcribe, ""},
}};

}  // namespace

std::span<const HelperAction> helperActions() {
    return kHelperActions;
}

std::optional<HelperAction> helperAction(std::string_view name) {
    for (const HelperAction& action : kHelperActions) {
        if (action.name == name) {
            return action;
        }
    }
    return std::nullopt;
}

}  // namespace tessarin::engine
