/// \file
/// Which texts are numbers of JSON.
#pragma once

#include <cstddef>
#include <string_view>

#include "QORCommon/QORAscii.h"

namespace QOR {

/// Whether JSON has a number that is spelled so: -?(0|[1-9][0-9]*)(.[0-9]+)?([eE][+-]?[0-9]+)?
constexpr bool isJsonNumber(std::string_view text) noexcept {
    std::size_t at = 0;
    const auto digits = [&] {
        const std::size_t from = at;
        while (at < text.size() && isDigitChar(text[at]))
            ++at;
        return at - from;
    };
    const auto take = [&](std::string_view any) {
        const bool is = at < text.size() && any.find(text[at]) != std::string_view::npos;
        at += is ? 1 : 0;
        return is;
    };
    take("-");
    const bool zero = at < text.size() && text[at] == '0';
    const std::size_t whole = digits();
    if (whole == 0 || (zero && whole > 1)) return false;
    if (take(".") && digits() == 0) return false;
    if (take("eE")) {
        take("+-");
        if (digits() == 0) return false;
    }
    return at == text.size();
}

}  // namespace QOR
