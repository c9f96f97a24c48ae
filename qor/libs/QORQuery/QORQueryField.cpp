#include "QORQuery/QORQueryField.h"

#include <algorithm>

#include "QORCommon/QORAscii.h"
#include "QORMessage/QORBinaryIterator.h"

namespace QOR {
namespace {

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

std::string quoteName(std::string_view name) {
    std::string quoted = "\"";
    for (const char c : name)
        quoted.append(c == '"' ? 2 : 1, c);
    return quoted + '"';
}

std::vector<std::string_view> splitQueryList(std::string_view text) {
    std::vector<std::string_view> items;
    bool quoted = false;
    std::size_t begin = 0;
    for (std::size_t at = 0; at <= text.size(); ++at) {
        if (at < text.size() && text[at] == '"') quoted = !quoted;
        if (at < text.size() && (quoted || text[at] != ',')) continue;
        items.push_back(trim(text.substr(begin, at - begin)));
        begin = at + 1;
    }
    return items;
}

QORQueryField parseQueryField(std::string_view text) {
    const std::string_view trimmed = trim(text);
    const std::size_t open = trimmed.find('(');
    if (open == std::string_view::npos || open == 0 || trimmed.back() != ')') return {unquoteName(text), ""};
    const std::string_view function = trim(trimmed.substr(0, open));
    if (function.empty() || !std::all_of(function.begin(), function.end(), isWordChar)) return {unquoteName(text), ""};
    return {unquoteName(trim(trimmed.substr(open + 1, trimmed.size() - open - 2))), aggregateName(function)};
}

int putQueryField(QORBinaryIterator& select, const QORQueryField& field) {
    if (field.function.empty()) return select.putValue(field.column, tag::field);
    if (const int failed = select.addChild(tag::field)) return failed;
    if (const int failed = select.addChild(tag::function)) return failed;
    if (const int failed = select.putValue(field.function, tag::name)) return failed;
    if (const int failed = select.putValue(field.column, tag::field)) return failed;
    if (const int failed = select.seekUp()) return failed;
    return select.seekUp();
}

std::string answerName(const QORQueryField& field) {
    return field.function.empty() ? field.column : toLowerText(field.function) + '(' + field.column + ')';
}

std::string aggregateName(std::string_view function) {
    return isSameWord(function, "avg") ? "average" : std::string(function);
}

}  // namespace QOR
