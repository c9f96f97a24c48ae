/// \file
/// Helpers for texts, which are byte strings that are usually UTF-8.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// True when the bytes are well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
QOR_API bool isUtf8(std::string_view text) noexcept;
/// The bytes from the beginning that are well-formed UTF-8, up to the first sequence that is not.
QOR_API std::size_t utf8Prefix(std::string_view text) noexcept;

/// The text in double quotes for a message to people: control characters, quotes, backslashes and bytes that are not
/// UTF-8 are escaped; a text of more than `most` bytes is cut there and ends in "...".
QOR_API std::string quoteText(std::string_view text, std::size_t most = 80);

/// Appends the text as a string of JSON. \pre UTF-8
QOR_API void appendJsonString(std::string_view text, std::string& out);

/// Appends base64 (RFC 4648, padded, no line ends).
QOR_API void appendBase64(std::string_view bytes, std::string& out);
/// The bytes of a padded base64 text; empty when it is not one. Blanks and line ends are not part of it.
QOR_API std::optional<std::string> parseBase64(std::string_view text);

/// The texts, one after the other, with `between` from each to the next. \param texts a range of texts
template <class Texts>
std::string joinTexts(const Texts& texts, std::string_view between = ", ") {
    std::string joined;
    for (bool first = true; const auto& text : texts) {
        if (!first) joined.append(between);
        joined.append(text);
        first = false;
    }
    return joined;
}

/// Characters of UTF-8 that stand before a byte of a text.
QOR_API std::size_t charactersBefore(std::string_view text, std::size_t offset) noexcept;

}  // namespace QOR
