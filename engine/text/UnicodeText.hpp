// The few Unicode facts that names and time texts need: scalars of UTF-8, the control and blank
// sets, user-perceived characters and lower-casing. Backed by ICU. Pure functions, safe from any
// thread; none throws but std::bad_alloc.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace tessarin::engine {

// The Unicode scalars of `text`, or nothing when it is not well-formed UTF-8 (overlong forms,
// surrogates and values above U+10FFFF are malformed).
[[nodiscard]] std::optional<std::u32string> decodeUtf8(std::string_view text);
// The Unicode scalars of `text` with each ill-formed part replaced by U+FFFD: one per maximal
// subpart, as ICU and web browsers count them. Never fails.
[[nodiscard]] std::u32string decodeUtf8Lossy(std::string_view text);
[[nodiscard]] std::string encodeUtf8(std::u32string_view scalars);

// General categories Cc and Cf: C0/C1 controls and format characters such as U+200B and U+FEFF.
[[nodiscard]] bool isControl(char32_t scalar);
// Spaces (category Zs) and the tab, but no line or paragraph breaks.
[[nodiscard]] bool isBlank(char32_t scalar);
// Every separator (Zs, Zl, Zp), U+0009 to U+000D and U+0085.
[[nodiscard]] bool isWhitespaceOrNewline(char32_t scalar);

// `scalars` without leading and trailing scalars for which `strip` holds.
template <typename Predicate>
[[nodiscard]] std::u32string_view trimmed(std::u32string_view scalars, Predicate strip) {
    while (!scalars.empty() && strip(scalars.front())) {
        scalars.remove_prefix(1);
    }
    while (!scalars.empty() && strip(scalars.back())) {
        scalars.remove_suffix(1);
    }
    return scalars;
}

// The number of extended grapheme clusters, what a user counts as characters.
[[nodiscard]] std::size_t characterCount(std::u32string_view scalars);
// The first `count` extended grapheme clusters (all of them when there are fewer).
[[nodiscard]] std::u32string characterPrefix(std::u32string_view scalars, std::size_t count);

// Full lower-case mapping without language rules: "İ" becomes "i" and a combining dot, the
// Kelvin sign "k". Whole-text context applies (a final capital sigma becomes "ς").
[[nodiscard]] std::u32string lowercased(std::u32string_view scalars);

// Whether two UTF-8 texts are canonically equivalent ("é" precomposed or as "e" and a combining
// accent). Ill-formed UTF-8 is equal only to the same bytes.
[[nodiscard]] bool canonicallyEqual(std::string_view left, std::string_view right);

}  // namespace tessarin::engine
