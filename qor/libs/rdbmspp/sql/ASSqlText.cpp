#include "rdbmspp/sql/ASSqlText.h"

#include <algorithm>
#include <array>
#include <vector>

#include "QORCommon/QORAscii.h"

namespace QOR {

namespace {

// The position behind the quoted text that begins at `at`.
std::size_t behindQuoted(std::string_view sql, std::size_t at) {
    const char quote = sql[at];
    for (++at; at < sql.size(); ++at) {
        if (sql[at] != quote) continue;
        if (at + 1 >= sql.size() || sql[at + 1] != quote) return at + 1;
        ++at;
    }
    return sql.size();
}

// Entries that an opening bracket and what stands before it hold, by the token before it.
std::size_t costOfOpenBracket(std::string_view before) {
    if (before.empty() || before == "(" || before == "WHERE") return 1;
    if (before == "NOT") return 2;
    return 3;  // "a AND (", "a IN (", "f(" and its like
}

constexpr std::size_t costOfCase = 5;          // CASE, its operand, WHEN, a condition, THEN
constexpr std::size_t costOfNestedSelect = 5;  // SELECT, its distinct flag, its columns, FROM, WHERE
constexpr std::size_t costOfTerm = 5;          // a comparison with a qualified column

/// Visits the characters that stand in no quotes and in no brackets; a bracket that opens is inside, one that closes is
/// not. \returns false as soon as the visit does, with the character and its place
template <class Visit>
bool walkOutside(std::string_view sql, Visit visit) {
    std::size_t depth = 0;
    for (std::size_t at = 0; at < sql.size();) {
        const char c = sql[at];
        if (c == '\'' || c == '"') {
            at = behindQuoted(sql, at);
            continue;
        }
        if (c == '(') ++depth;
        if (c == ')' && depth > 0) --depth;
        if (depth == 0 && !visit(c, at)) return false;
        ++at;
    }
    return true;
}

}  // namespace

bool isSingleTerm(std::string_view sql) noexcept {
    return walkOutside(sql, [](char c, std::size_t) { return isWordChar(c) || c == ')' || c == '.'; });
}

bool isLiteralList(std::string_view sql) noexcept {
    if (sql.empty() || sql.front() != '\'') return false;
    for (std::size_t at = 0;;) {
        at = behindQuoted(sql, at);
        if (at == sql.size()) return sql.back() == '\'';
        if (sql[at] != ',') return false;
        ++at;
        if (at < sql.size() && sql[at] == ' ') ++at;
        if (at == sql.size() || sql[at] != '\'') return false;
    }
}

std::string joinedItems(std::string_view list, std::size_t size) {
    std::string items;
    while (!list.empty()) {
        const std::size_t end = behindQuoted(list, 0);
        const std::string_view item = list.substr(1, end - 2);
        if (item.size() != size || item.find('\'') != std::string_view::npos) return {};
        items += item;
        list.remove_prefix(std::min(list.find('\'', end), list.size()));
    }
    return items;
}

std::optional<std::size_t> literalLength(std::string_view sql) noexcept {
    constexpr std::size_t callLength = 6;  // of "upper(" and "lower("
    while (sql.starts_with("upper(") || sql.starts_with("lower(")) {
        if (!sql.ends_with(")")) return std::nullopt;
        sql = sql.substr(callLength, sql.size() - callLength - 1);
    }
    if (sql.size() < 2 || sql.front() != '\'' || behindQuoted(sql, 0) != sql.size()) return std::nullopt;
    sql = sql.substr(1, sql.size() - 2);
    return sql.size() - static_cast<std::size_t>(std::count(sql.begin(), sql.end(), '\'')) / 2;
}

std::optional<std::string> literalText(std::string_view sql) {
    if (sql.size() < 2 || sql.front() != '\'' || behindQuoted(sql, 0) != sql.size() || sql.back() != '\'') {
        return std::nullopt;
    }
    std::string text;
    sql = sql.substr(1, sql.size() - 2);
    for (std::size_t at = 0; at < sql.size(); ++at) {
        text += sql[at];
        if (sql[at] == '\'') ++at;  // stands twice
    }
    return text;
}

std::vector<std::string_view> listItems(std::string_view sql) {
    std::vector<std::string_view> items;
    std::size_t from = 0;
    walkOutside(sql, [&](char c, std::size_t at) {
        if (c != ',') return true;
        items.push_back(sql.substr(from, at - from));
        from = std::min(sql.find_first_not_of(' ', at + 1), sql.size());
        return true;
    });
    items.push_back(sql.substr(from));
    return items;
}

std::optional<std::string> backslashPattern(std::string_view pattern, char escape) {
    constexpr std::string_view special = "%_\\";
    std::string out;
    for (std::size_t at = 0; at < pattern.size(); ++at) {
        char c = pattern[at];
        const bool escaped = escape != 0 && c == escape;
        if (escaped) {
            if (++at == pattern.size()) return std::nullopt;
            c = pattern[at];
        }
        if (c == '\\' || (escaped && special.find(c) != std::string_view::npos)) out += '\\';
        out += c;
    }
    return out;
}

std::size_t parserDepthOf(std::string_view sql) noexcept {
    std::size_t now = 0;
    std::size_t deepest = 0;
    std::vector<std::size_t> open;  // what is given back at each closing bracket
    std::size_t frame = 0;
    std::string_view before;
    for (std::size_t at = 0; at < sql.size();) {
        const char c = sql[at];
        std::size_t end = at + 1;
        if (c == '\'' || c == '"') {
            end = behindQuoted(sql, at);
        } else if (isWordChar(c)) {
            while (end < sql.size() && isWordChar(sql[end]))
                ++end;
            const std::string_view word = sql.substr(at, end - at);
            if (word == "SELECT") {
                now += costOfNestedSelect;
                frame += costOfNestedSelect;
            } else if (word == "CASE") {
                open.push_back(frame);
                frame = costOfCase;
                now += costOfCase;
            } else if (word == "END" && !open.empty()) {
                now -= frame;
                frame = open.back();
                open.pop_back();
            }
        } else if (c == '(') {
            const std::size_t cost = costOfOpenBracket(before);
            open.push_back(frame);
            frame = cost;
            now += cost;
        } else if (c == ')' && !open.empty()) {
            now -= frame;
            frame = open.back();
            open.pop_back();
        }
        deepest = std::max(deepest, now);
        if (c != ' ') before = sql.substr(at, end - at);
        at = end;
    }
    return deepest + costOfTerm;
}

}  // namespace QOR
