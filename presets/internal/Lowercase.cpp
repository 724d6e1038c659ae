#include "presets/internal/Lowercase.hpp"

#include <unicode/uchar.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <limits>
#include <vector>

namespace tessarin::presets::internal {

namespace {

constexpr UChar32 kReplacement = 0xFFFD;

std::u16string toUtf16(std::string_view utf8) {
    if (utf8.empty() ||
        utf8.size() > static_cast<std::size_t>(std::numeric_limits<int32_t>::max() / 2)) {
        return {};
    }
    std::u16string utf16(utf8.size(), u'\0');  // never more UTF-16 units than UTF-8 bytes
    int32_t length = 0;
    UErrorCode error = U_ZERO_ERROR;
    u_strFromUTF8WithSub(reinterpret_cast<UChar*>(utf16.data()), static_cast<int32_t>(utf16.size()),
                         &length, utf8.data(), static_cast<int32_t>(utf8.size()), kReplacement,
                         nullptr, &error);
    if (U_FAILURE(error)) {
        return {};
    }
    utf16.resize(static_cast<std::size_t>(length));
    return utf16;
}

std::u16string lowercased(const std::u16string& text) {
    if (text.empty()) {
        return {};
    }
    // Full lower-casing can grow a string (one unit to three at most).
    std::u16string lower(text.size() * 3, u'\0');
    UErrorCode error = U_ZERO_ERROR;
    const int32_t length = u_strToLower(
        reinterpret_cast<UChar*>(lower.data()), static_cast<int32_t>(lower.size()),
        reinterpret_cast<const UChar*>(text.data()), static_cast<int32_t>(text.size()), "", &error);
    if (U_FAILURE(error)) {
        return text;
    }
    lower.resize(static_cast<std::size_t>(length));
    return lower;
}

}  // namespace

std::u32string lowercasedScalars(std::string_view utf8) {
    const std::u16string lower = lowercased(toUtf16(utf8));
    std::u32string scalars;
    scalars.reserve(lower.size());
    const auto* units = reinterpret_cast<const UChar*>(lower.data());
    const auto count = static_cast<int32_t>(lower.size());
    for (int32_t i = 0; i < count;) {
        UChar32 scalar = 0;
        U16_NEXT(units, i, count, scalar);
        scalars.push_back(U_IS_SURROGATE(scalar) ? kReplacement : static_cast<char32_t>(scalar));
    }
    return scalars;
}

}  // namespace tessarin::presets::internal
