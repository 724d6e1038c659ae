#include "engine/text/UnicodeText.hpp"

#include <unicode/ubrk.h>
#include <unicode/uchar.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <vector>

namespace tessarin::engine {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// The first scalar of non-empty `text` and the bytes it takes; for an ill-formed start, no
// scalar and the length of its maximal subpart. The allowed range of the second byte rules out
// overlong forms, surrogates and values above U+10FFFF.
struct Decoded {
    std::optional<char32_t> scalar;
    std::size_t length = 1;
};

Decoded decodeFirst(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) {
        return {lead, 1};
    }
    std::size_t length = 0;
    char32_t value = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        value = lead & 0x0F;
        if (lead == 0xE0) {
            low = 0xA0;
        } else if (lead == 0xED) {
            high = 0x9F;
        }
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        value = lead & 0x07;
        if (lead == 0xF0) {
            low = 0x90;
        } else if (lead == 0xF4) {
            high = 0x8F;
        }
    } else {
        return {std::nullopt, 1};
    }
    for (std::size_t k = 1; k < length; ++k) {
        if (k == text.size()) {
            return {std::nullopt, k};
        }
        const auto continuation = static_cast<unsigned char>(text[k]);
        if (continuation < low || continuation > high) {
            return {std::nullopt, k};
        }
        value = (value << 6) | (continuation & 0x3F);
        low = 0x80;
        high = 0xBF;
    }
    return {value, length};
}

// Nothing at the first ill-formed part unless `replace`, which puts U+FFFD there instead.
std::optional<std::u32string> decode(std::string_view text, bool replace) {
    std::u32string scalars;
    scalars.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const Decoded decoded = decodeFirst(text.substr(i));
        if (!decoded.scalar && !replace) {
            return std::nullopt;
        }
        scalars.push_back(decoded.scalar.value_or(kReplacement));
        i += decoded.length;
    }
    return scalars;
}

struct Utf16 {
    std::vector<UChar> units;
    std::vector<std::size_t> scalarStarts;  // index in `units` where each scalar begins
};

Utf16 toUtf16(std::u32string_view scalars) {
    Utf16 result;
    result.units.reserve(scalars.size() + 8);
    result.scalarStarts.reserve(scalars.size() + 1);
    for (char32_t scalar : scalars) {
        result.scalarStarts.push_back(result.units.size());
        if (scalar < 0x10000) {
            result.units.push_back(static_cast<UChar>(scalar));
        } else {
            const char32_t offset = scalar - 0x10000;
            result.units.push_back(static_cast<UChar>(0xD800 + (offset >> 10)));
            result.units.push_back(static_cast<UChar>(0xDC00 + (offset & 0x3FF)));
        }
    }
    result.scalarStarts.push_back(result.units.size());
    return result;
}

std::u32string fromUtf16(const UChar* units, std::size_t length) {
    std::u32string scalars;
    scalars.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
        const char32_t unit = units[i];
        if (unit >= 0xD800 && unit < 0xDC00 && i + 1 < length && units[i + 1] >= 0xDC00 &&
            units[i + 1] < 0xE000) {
            scalars.push_back(0x10000 + ((unit - 0xD800) << 10) + (units[i + 1] - 0xDC00));
            ++i;
        } else {
            scalars.push_back(unit);
        }
    }
    return scalars;
}

bool isAscii(std::u32string_view scalars) {
    return std::all_of(scalars.begin(), scalars.end(), [](char32_t c) { return c < 0x80; });
}

struct BreakIteratorCloser {
    void operator()(UBreakIterator* iterator) const { ubrk_close(iterator); }
};

// Offsets in UTF-16 units of the first `limit` grapheme boundaries after the start.
std::vector<int32_t> graphemeEnds(const Utf16& text, std::size_t limit) {
    std::vector<int32_t> ends;
    if (text.units.empty() || text.units.size() > static_cast<std::size_t>(INT32_MAX)) {
        return ends;
    }
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<UBreakIterator, BreakIteratorCloser> iterator(ubrk_open(
        UBRK_CHARACTER, "", text.units.data(), static_cast<int32_t>(text.units.size()), &status));
    if (U_FAILURE(status) || !iterator) {
        // ICU's data is part of the library; without it, fall back to one scalar a character.
        for (std::size_t i = 1; i < text.scalarStarts.size() && ends.size() < limit; ++i) {
            ends.push_back(static_cast<int32_t>(text.scalarStarts[i]));
        }
        return ends;
    }
    for (int32_t end = ubrk_next(iterator.get()); end != UBRK_DONE && ends.size() < limit;
         end = ubrk_next(iterator.get())) {
        ends.push_back(end);
    }
    return ends;
}

}  // namespace

std::optional<std::u32string> decodeUtf8(std::string_view text) {
    return decode(text, false);
}

std::u32string decodeUtf8Lossy(std::string_view text) {
    return *decode(text, true);
}

std::string encodeUtf8(std::u32string_view scalars) {
    std::string text;
    text.reserve(scalars.size());
    for (char32_t c : scalars) {
        if (c < 0x80) {
            text.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            text.push_back(static_cast<char>(0xC0 | (c >> 6)));
            text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            text.push_back(static_cast<char>(0xE0 | (c >> 12)));
            text.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            text.push_back(static_cast<char>(0xF0 | (c >> 18)));
            text.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            text.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return text;
}

bool isControl(char32_t scalar) {
    const auto type = static_cast<UCharCategory>(u_charType(static_cast<UChar32>(scalar)));
    return type == U_CONTROL_CHAR || type == U_FORMAT_CHAR;
}

bool isBlank(char32_t scalar) {
    return scalar == U'\t' || u_charType(static_cast<UChar32>(scalar)) == U_SPACE_SEPARATOR;
}

bool isWhitespaceOrNewline(char32_t scalar) {
    if ((scalar >= 0x09 && scalar <= 0x0D) || scalar == 0x85) {
        return true;
    }
    const auto type = static_cast<UCharCategory>(u_charType(static_cast<UChar32>(scalar)));
    return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
}

std::size_t characterCount(std::u32string_view scalars) {
    if (isAscii(scalars)) {
        // In ASCII only CR LF joins two scalars into one character.
        std::size_t count = scalars.size();
        for (std::size_t i = 1; i < scalars.size(); ++i) {
            if (scalars[i - 1] == U'\r' && scalars[i] == U'\n') {
                --count;
            }
        }
        return count;
    }
    return graphemeEnds(toUtf16(scalars), SIZE_MAX).size();
}

std::u32string characterPrefix(std::u32string_view scalars, std::size_t count) {
    if (count == 0) {
        return {};
    }
    const Utf16 text = toUtf16(scalars);
    const std::vector<int32_t> ends = graphemeEnds(text, count);
    if (ends.size() < count) {
        return std::u32string(scalars);
    }
    const auto unitEnd = static_cast<std::size_t>(ends.back());
    const auto scalarEnd =
        std::lower_bound(text.scalarStarts.begin(), text.scalarStarts.end(), unitEnd) -
        text.scalarStarts.begin();
    return std::u32string(scalars.substr(0, static_cast<std::size_t>(scalarEnd)));
}

std::u32string lowercased(std::u32string_view scalars) {
    if (isAscii(scalars)) {
        std::u32string result(scalars);
        for (char32_t& c : result) {
            if (c >= U'A' && c <= U'Z') {
                c += U'a' - U'A';
            }
        }
        return result;
    }
    const Utf16 text = toUtf16(scalars);
    if (text.units.size() > static_cast<std::size_t>(INT32_MAX / 4)) {
        return std::u32string(scalars);
    }
    // Full lower-case mappings grow a string by at most a factor of three.
    std::vector<UChar> lower(text.units.size() * 3 + 1);
    UErrorCode status = U_ZERO_ERROR;
    const int32_t length =
        u_strToLower(lower.data(), static_cast<int32_t>(lower.size()), text.units.data(),
                     static_cast<int32_t>(text.units.size()), "", &status);
    if (U_FAILURE(status) || length < 0 || static_cast<std::size_t>(length) > lower.size()) {
        return std::u32string(scalars);
    }
    return fromUtf16(lower.data(), static_cast<std::size_t>(length));
}

bool canonicallyEqual(std::string_view left, std::string_view right) {
    if (left == right) {
        return true;
    }
    const std::optional<std::u32string> a = decodeUtf8(left);
    const std::optional<std::u32string> b = decodeUtf8(right);
    if (!a || !b) {
        return false;
    }
    UErrorCode status = U_ZERO_ERROR;
    const UNormalizer2* nfd = unorm2_getNFDInstance(&status);
    if (U_FAILURE(status)) {
        return false;
    }
    const auto normalized = [nfd](std::string_view text) -> std::optional<std::u16string> {
        UErrorCode code = U_ZERO_ERROR;
        int32_t units = 0;
        u_strFromUTF8(nullptr, 0, &units, text.data(), static_cast<int32_t>(text.size()), &code);
        std::u16string utf16(static_cast<std::size_t>(units), u'\0');
        code = U_ZERO_ERROR;
        u_strFromUTF8(utf16.data(), units, nullptr, text.data(), static_cast<int32_t>(text.size()),
                      &code);
        if (U_FAILURE(code)) {
            return std::nullopt;
        }
        code = U_ZERO_ERROR;
        const int32_t needed = unorm2_normalize(nfd, utf16.data(), units, nullptr, 0, &code);
        std::u16string out(static_cast<std::size_t>(needed), u'\0');
        code = U_ZERO_ERROR;
        unorm2_normalize(nfd, utf16.data(), units, out.data(), needed, &code);
        if (U_FAILURE(code)) {
            return std::nullopt;
        }
        return out;
    };
    const std::optional<std::u16string> x = normalized(left);
    const std::optional<std::u16string> y = normalized(right);
    return x && y && *x == *y;
}

}  // namespace tessarin::engine
