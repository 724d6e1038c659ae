// A 128-bit identifier, fresh ones random (version 4). A plain value, compared by its bytes.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tessarin::engine {

struct Uuid {
    std::array<uint8_t, 16> bytes{};

    // A new random identifier from libuuid, which draws on the kernel's random source. Never
    // throws.
    [[nodiscard]] static Uuid random();
    // The 8-4-4-4-12 hexadecimal form in either case, or nothing.
    [[nodiscard]] static std::optional<Uuid> fromText(std::string_view text);
    // The 8-4-4-4-12 form in lower case.
    [[nodiscard]] std::string text() const;

    auto operator<=>(const Uuid&) const = default;
};

}  // namespace tessarin::engine
