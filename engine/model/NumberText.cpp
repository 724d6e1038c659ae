#include "engine/model/NumberText.hpp"

#include <locale.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

namespace tessarin::engine {

std::optional<double> parseDouble(std::string_view text) {
    if (text.empty() || std::strchr(" \t\n\v\f\r", text.front()) != nullptr) {
        return std::nullopt;
    }
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    // Most numbers are short; a stack copy gives strtod its terminator without allocating.
    char small[64];
    std::string large;
    const char* begin = nullptr;
    if (text.size() < sizeof small) {
        std::memcpy(small, text.data(), text.size());
        small[text.size()] = '\0';
        begin = small;
    } else {
        large.assign(text);
        begin = large.c_str();
    }
    char* end = nullptr;
    const double value = strtod_l(begin, &end, cLocale);
    if (end != begin + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<double> parseFiniteDouble(std::string_view text) {
    const std::optional<double> value = parseDouble(text);
    if (!value || !std::isfinite(*value)) {
        return std::nullopt;
    }
    return value;
}

}  // namespace tessarin::engine
