#include "where/FieldSpec.h"

#include <algorithm>

namespace QOR {
namespace {

constexpr bool isWordPart(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return text;
}

}  // namespace

std::string unquoteName(std::string_view text) {
    if (text.size() < 3 || text.front() != '"' || text.back() != '"') return std::string(text);
    std::string name;
    const std::string_view inside = text.substr(1, text.size() - 2);
    for (std::size_t at = 0; at < inside.size(); ++at) {
        if (inside[at] == '"' && (++at == inside.size() || inside[at] != '"')) return std::string(text);
        name += inside[at];
    }
    return name;
}

FieldSpec parseFieldSpec(std::string_view text) {
    const std::string_view trimmed = trim(text);
    const std::size_t open = trimmed.find('(');
    if (open == std::string_view::npos || open == 0 || trimmed.back() != ')') return {unquoteName(text), ""};
    const std::string_view function = trim(trimmed.substr(0, open));
    if (function.empty() || !std::all_of(function.begin(), function.end(), isWordPart)) return {unquoteName(text), ""};
    return {unquoteName(trim(trimmed.substr(open + 1, trimmed.size() - open - 2))), aggregateName(function)};
}

std::string aggregateName(std::string_view function) {
    const auto is = [&](std::string_view name) {
        return std::equal(function.begin(), function.end(), name.begin(), name.end(),
                          [](char a, char b) { return (a >= 'A' && a <= 'Z' ? static_cast<char>(a + 32) : a) == b; });
    };
    return is("avg") ? "average" : std::string(function);
}

bool isSameView(std::string_view a, std::string_view b) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](char x, char y) { return lower(x) == lower(y); });
}

}  // namespace QOR
