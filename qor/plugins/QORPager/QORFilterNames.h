/// \file
/// The names that a filter's text holds, without parsing it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "QORPager/QORExpressionText.h"

namespace QOR {

/// Calls `use` with every name outside of quoted texts, operator words and functions among them, as the lexer of the
/// filter language cuts them. Linear in the text, which may be no valid filter.
template <class Use>
void forEachName(std::string_view text, Use use) {
    const auto isNameChar = [](char ch) { return isAlphaChar(ch) || isDigitChar(ch) || ch == '_' || ch == '.'; };
    std::size_t at = 0;
    while (at < text.size()) {
        const char ch = text[at];
        if (ch == '\'' || ch == '"') {
            // A doubled quote within the text reads as the end of one text and the beginning of the next.
            at = std::min(text.find(ch, at + 1), text.size() - 1) + 1;
        } else if (isAlphaChar(ch)) {
            const std::size_t begin = at;
            while (at < text.size() && isNameChar(text[at]))
                ++at;
            use(text.substr(begin, at - begin));
        } else {
            ++at;
        }
    }
}

}  // namespace QOR
