#include "rdbmspp/engine/OdbcConnectionString.h"

#include <algorithm>

#include "QORCommon/QORAscii.h"

namespace QOR {

namespace {

std::string_view trimmed(std::string_view text) {
    const auto from = text.find_first_not_of(" \t\r\n");
    if (from == std::string_view::npos) return {};
    return text.substr(from, text.find_last_not_of(" \t\r\n") - from + 1);
}

// The end of the value that begins at `at`: the next semicolon that is not inside braces.
std::size_t endOfValue(std::string_view text, std::size_t at) {
    const auto first = text.find_first_not_of(" \t", at);
    if (first != std::string_view::npos && text[first] == '{') {
        const auto brace = text.find('}', first);
        if (brace != std::string_view::npos) at = brace;
    }
    return std::min(text.find(';', at), text.size());
}

}  // namespace

OdbcConnectionString::OdbcConnectionString(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
        const auto equals = text.find('=', at);
        if (equals == std::string_view::npos) break;
        const auto end = endOfValue(text, equals + 1);
        const auto name = trimmed(text.substr(at, equals - at));
        if (!name.empty()) m_parts.emplace_back(name, trimmed(text.substr(equals + 1, end - equals - 1)));
        at = end + 1;
    }
}

bool OdbcConnectionString::has(std::string_view name) const {
    return std::any_of(m_parts.begin(), m_parts.end(), [&](const auto& part) { return isSameWord(part.first, name); });
}

std::string OdbcConnectionString::get(std::string_view name) const {
    for (const auto& [key, value] : m_parts) {
        if (!isSameWord(key, name)) continue;
        if (value.size() >= 2 && value.front() == '{' && value.back() == '}') return value.substr(1, value.size() - 2);
        return value;
    }
    return {};
}

void OdbcConnectionString::setDefault(std::string_view name, std::string_view value) {
    if (!has(name)) m_parts.emplace_back(name, value);
}

std::string OdbcConnectionString::take(std::string_view name, std::string_view otherwise) {
    std::string value = has(name) ? get(name) : std::string(otherwise);
    std::erase_if(m_parts, [&](const auto& part) { return isSameWord(part.first, name); });
    return value;
}

void OdbcConnectionString::set(std::string_view name, std::string_view value) {
    std::erase_if(m_parts, [&](const auto& part) { return isSameWord(part.first, name); });
    m_parts.emplace_back(name, value);
}

std::vector<std::string> OdbcConnectionString::names() const {
    std::vector<std::string> names;
    for (const auto& part : m_parts)
        names.push_back(part.first);
    return names;
}

std::string OdbcConnectionString::text() const {
    std::string out;
    for (const auto& [name, value] : m_parts) {
        out += name;
        out += '=';
        out += value;
        out += ';';
    }
    return out;
}

}  // namespace QOR
