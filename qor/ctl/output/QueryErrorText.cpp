#include "output/QueryErrorText.h"

#include <algorithm>

#include "output/TextWidth.h"

namespace QOR {
namespace {

constexpr std::size_t margin = 2;
constexpr std::string_view cutMark = "...";

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

std::size_t countCharacters(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) { return !isContinuation(c); }));
}

/// A line with blanks where tabs stand, and everything else that disturbs a terminal made visible.
std::string shown(std::string_view line) {
    std::string out;
    for (std::size_t at = 0; at <= line.size();) {
        const std::size_t tab = std::min(line.find('\t', at), line.size());
        appendVisible(line.substr(at, tab - at), out);
        if (tab < line.size()) out += ' ';
        at = tab + 1;
    }
    return out;
}

std::string describePlace(std::string_view text, std::size_t lineBegin, std::size_t offset) {
    std::string place =
        " at character " + std::to_string(countCharacters(text.substr(lineBegin, offset - lineBegin)) + 1);
    if (text.find('\n') == std::string_view::npos) return place;
    return place + " of line " +
           std::to_string(std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(lineBegin), '\n') + 1);
}

}  // namespace

std::string describeQueryError(std::string_view text, const QORQueryError& error, std::size_t width) {
    const std::size_t offset = std::min(error.offset(), text.size());
    const std::size_t before = offset == 0 ? std::string_view::npos : text.rfind('\n', offset - 1);
    const std::size_t begin = before == std::string_view::npos ? 0 : before + 1;
    const std::size_t end = std::min(text.find('\n', offset), text.size());

    std::string line = shown(text.substr(begin, end - begin));
    std::size_t caret = textWidth(shown(text.substr(begin, offset - begin)));
    const std::size_t room = std::max<std::size_t>(width, 20) - margin;
    if (const std::size_t whole = textWidth(line); whole > room) {
        // A window around the place, with as much of what stands before it as of what follows where both are long.
        const std::size_t inner = room - 2 * cutMark.size();
        const std::size_t from = std::min(caret > inner / 2 ? caret - inner / 2 : 0, whole > inner ? whole - inner : 0);
        line = (from > 0 ? std::string(cutMark) : "") + sliceByWidth(line, from, inner) +
               (from + inner < whole ? std::string(cutMark) : "");
        caret = caret - from + (from > 0 ? cutMark.size() : 0);
    }
    std::string out = std::string(error.what()) + describePlace(text, begin, offset) + "\n";
    out.append(margin, ' ').append(line) += '\n';
    out.append(margin + caret, ' ') += "^\n";
    return out;
}

}  // namespace QOR
