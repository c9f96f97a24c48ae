#include "select/SelectAdvice.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <optional>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORNearestName.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORMessage.h"
#include "QORQuery/QORCondition.h"
#include "QORQuery/QORQueryField.h"
#include "output/QueryErrorText.h"

namespace QOR {
namespace {

/// As many names are still read when they are listed.
constexpr std::size_t fewNames = 16;
constexpr std::array<std::string_view, 5> aggregates{"count", "sum", "avg", "min", "max"};
constexpr std::array<std::string_view, 3> comparingWords{" like", " in", " between"};

std::string joined(std::span<const std::string_view> names, std::string_view last) {
    std::string text;
    for (std::size_t at = 0; at < names.size(); ++at) {
        if (at > 0) text += at + 1 == names.size() ? " " + std::string(last) + " " : ", ";
        text += names[at];
    }
    return text;
}

/// The digits from `at` on, at most so many.
std::string_view digitsAt(std::string_view text, std::size_t at, std::size_t most) {
    std::size_t end = at;
    while (end < text.size() && end - at < most && isDigitChar(text[end]))
        ++end;
    return text.substr(at, end - at);
}

/// A date as people write it, at the beginning of a text.
struct WrittenDate {
    std::string_view spelled;
    std::string date;  ///< as it should be
};

std::optional<WrittenDate> dateAt(std::string_view text) {
    std::string date;
    std::size_t at = 0;
    for (const std::size_t most : {std::size_t{4}, std::size_t{2}, std::size_t{2}}) {
        const std::string_view digits = digitsAt(text, at, most);
        if (digits.empty() || (most == 4 && digits.size() < 4)) return std::nullopt;
        date += (date.empty() ? "" : "-") + std::string(digits.size() == 1 ? "0" : "") + std::string(digits);
        at += digits.size();
        if (date.size() == 10) break;
        if (at == text.size() || (text[at] != '-' && text[at] != '/' && text[at] != '.')) return std::nullopt;
        ++at;
    }
    if (at < text.size() && isDigitChar(text[at])) return std::nullopt;
    if (!parseTime(date)) return std::nullopt;
    return WrittenDate{text.substr(0, at), date};
}

void addLine(std::string& lines, const std::string& line) {
    if (!line.empty() && lines.find(line) == std::string::npos) lines += line + '\n';
}

/// The columns of each view, by its name in lower case.
class ViewNames {
public:
    explicit ViewNames(const std::vector<QORViewColumn>& views) {
        for (const QORViewColumn& each : views) {
            std::vector<std::string>& columns = m_columns[toLowerText(each.view)];
            if (columns.empty()) m_views.emplace_back(each.view);
            columns.push_back(each.column);
            m_types[{toLowerText(each.view), each.column}] = each.type;
        }
    }
    const std::vector<std::string>* columnsOf(std::string_view view) const {
        const auto found = m_columns.find(toLowerText(view));
        return found == m_columns.end() ? nullptr : &found->second;
    }
    const std::vector<std::string_view>& views() const { return m_views; }
    /// As declared; empty where there is no such column.
    std::string typeOf(std::string_view view, std::string_view column) const {
        const auto found = m_types.find({toLowerText(view), std::string(column)});
        return found == m_types.end() ? std::string() : found->second;
    }

private:
    std::map<std::string, std::vector<std::string>> m_columns;
    std::map<std::pair<std::string, std::string>, std::string> m_types;  ///< by view and column
    std::vector<std::string_view> m_views;
};

/// A field with an aggregate around it that is not closed, or that there is not.
std::string adviseOnField(std::string_view written) {
    const std::size_t bracket = written.find('(');
    if (written.starts_with('"') || bracket == std::string_view::npos) return {};
    if (!written.ends_with(')')) return "the bracket is not closed: " + std::string(written) + ")";
    const std::string_view name = written.substr(0, bracket);
    if (std::any_of(aggregates.begin(), aggregates.end(),
                    [&](auto known) { return isSameWord(aggregateName(known), aggregateName(name)); }))
        return {};
    return quoteText(name) + " is no aggregate; " + adviseOnNames(name, aggregates);
}

bool isDirection(std::string_view word) {
    return isSameWord(word, "desc") || isSameWord(word, "asc") || isSameWord(word, "descending") ||
           isSameWord(word, "ascending");
}

/// `--sort time desc` and `--sort "time desc"`.
std::string adviseOnSort(const std::vector<std::string>& sort) {
    std::string_view before = "time";
    for (const std::string& key : sort) {
        const std::size_t blank = key.rfind(' ');
        const std::string_view word = std::string_view(key).substr(blank == std::string::npos ? 0 : blank + 1);
        if (isDirection(word)) {
            const std::string_view column =
                blank == std::string::npos ? before : std::string_view(key).substr(0, blank);
            const bool descends = toLowerChar(word.front()) == 'd';
            return "a sort key descends behind '-' and ascends without: --sort=" + std::string(descends ? "-" : "") +
                   std::string(column);
        }
        before = key;
    }
    return {};
}

/// Whether what stands at the place is what something before it is compared with.
bool isCompared(std::string_view text, std::size_t offset) {
    const std::size_t last = text.substr(0, offset).find_last_not_of(" \t\n(");
    if (last == std::string_view::npos) return false;
    if (std::string_view("=<>,").find(text[last]) != std::string_view::npos) return true;
    const std::string_view before = text.substr(0, last + 1);
    return std::any_of(comparingWords.begin(), comparingWords.end(), [&](std::string_view word) {
        return before.size() > word.size() && isSameWord(before.substr(before.size() - word.size()), word);
    });
}

std::string adviseOnWhere(const SelectOptions& options, const ViewNames& names, std::int64_t now) {
    const std::string& text = *options.where;
    try {
        QORMessage message;
        QORBinaryIterator at = message.root();
        at.addChild(tag::where);
        parseCondition(
            text,
            {.view = options.view,
             .levels = message.limits().depth - 1,
             .types = [&](std::string_view view, std::string_view column) { return names.typeOf(view, column); },
             .columns = [&](std::string_view view) { return names.columnsOf(view); },
             .now = now},
            at);
    } catch (const QORQueryError& error) {
        std::string advice = "--where: " + describeQueryError(text, error);
        const std::string& found = error.detail().found;
        const bool isBare =
            error.offset() < text.size() && text[error.offset()] != '\'' && !isDigitChar(text[error.offset()]);
        if (isBare && isCompared(text, error.offset()) && !found.empty())
            return advice + "a text stands in single quotes: '" + found + "'";
        if (!error.detail().suggestion.empty()) return advice + "did you mean " + error.detail().suggestion + "?";
        if (error.detail().expected == "a view") return advice + adviseOnNames(found, names.views());
        advice.pop_back();
        return advice;
    } catch (const QORException&) {
        return {};  // it was told when the request was made
    }
    return {};
}

}  // namespace

bool isOfRowSecurity(std::string_view column) {
    return column.starts_with("securityOperation_") || column.starts_with("securableObjId");
}

std::string adviseOnNames(std::string_view written, std::span<const std::string_view> names) {
    const std::vector<std::string_view> near = nearestNames(written, names);
    if (!near.empty()) return "did you mean " + joined(near, "or") + "?";
    if (names.empty() || names.size() > fewNames) return {};
    return std::string(names.size() == 1 ? "there is " : "there are ") + joined(names, "and");
}

std::string adviseOnTimes(std::string_view text) {
    std::string lines;
    char quote = '\0';
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (quote == '\0' ? c == '\'' || c == '"' : c == quote) {
            quote = quote == '\0' ? c : '\0';
            continue;
        }
        const bool begins = at == 0 || (!isDigitChar(text[at - 1]) && !isAlphaChar(text[at - 1]));
        if (!begins || !isDigitChar(c)) continue;
        const auto written = dateAt(text.substr(at));
        if (!written || (quote != '\0' && written->spelled == written->date)) continue;
        addLine(lines, "a time is written '" + written->date + "' or '" + written->date + " 10:15:00'");
    }
    if (!lines.empty()) lines.pop_back();
    return lines;
}

std::string adviseOnWriting(const SelectOptions& options) {
    std::string lines;
    for (const std::string& field : options.fields)
        addLine(lines, adviseOnField(field));
    addLine(lines, adviseOnSort(options.sort));
    if (options.where) addLine(lines, adviseOnTimes(*options.where));
    if (!lines.empty()) lines.pop_back();
    return lines;
}

std::string adviseOnSelect(const SelectOptions& options, const std::vector<QORViewColumn>& views, std::int64_t now) {
    const ViewNames names(views);
    const std::vector<std::string>* const columns = names.columnsOf(options.view);
    if (columns == nullptr) return adviseOnNames(options.view, names.views());
    std::string lines;
    std::vector<std::string_view> known;
    std::copy_if(columns->begin(), columns->end(), std::back_inserter(known),
                 [](const std::string& column) { return !isOfRowSecurity(column); });
    const auto addName = [&](std::string_view written) {
        const std::string column = parseQueryField(written).column;
        if (column == "*" || std::find(columns->begin(), columns->end(), column) != columns->end()) return;
        const std::string advice = adviseOnNames(column, known);
        addLine(lines, advice.empty() ? "qorctl views " + options.view + " lists its columns" : advice);
    };
    if (options.where) addLine(lines, adviseOnWhere(options, names, now));
    addLine(lines, adviseOnWriting(options));
    for (const std::string& field : options.fields)
        if (adviseOnField(field).empty()) addName(field);
    if (adviseOnSort(options.sort).empty())
        for (const std::string& key : options.sort)
            addName(std::string_view(key).substr(key.starts_with('-') ? 1 : 0));
    if (!lines.empty()) lines.pop_back();
    return lines;
}

}  // namespace QOR
