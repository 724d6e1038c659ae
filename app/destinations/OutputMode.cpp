#include "app/destinations/OutputMode.hpp"

#include <array>
#include <utility>

namespace tessarin::app {
namespace {

constexpr std::array<std::pair<OutputMode, std::string_view>, 3> kRawValues{{
    {OutputMode::sameFolder, "sameFolder"},
    {OutputMode::customFolder, "customFolder"},
    {OutputMode::askEachTime, "askEachTime"},
}};

}  // namespace

std::string_view rawValue(OutputMode mode) {
    for (const auto& [value, raw] : kRawValues) {
        if (value == mode) {
            return raw;
        }
    }
    return kRawValues.front().second;
}

OutputMode outputModeFromRaw(std::string_view raw) {
    for (const auto& [value, text] : kRawValues) {
        if (text == raw) {
            return value;
        }
    }
    return kDefaultOutputMode;
}

}  // namespace tessarin::app
