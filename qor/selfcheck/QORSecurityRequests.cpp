#include "selfcheck/QORSecurityRequests.h"

#include <algorithm>
#include <string_view>

namespace QOR {
namespace {

using Words = std::vector<std::string>;

// Rows that a nested select that names its row may look at in all: it runs once for each row around it.
constexpr std::size_t correlatedRows = 200'000;
constexpr std::size_t pagedFrom = 300;  // rows from which on a request asks for a page
constexpr std::size_t deepest = 3;      // selects within each other

bool isBytes(const QORCheckedColumn& column) {
    return column.type == "text" || column.type == "image" || column.type == "longblob" || column.type == "binary";
}

const Words& numbers() {
    static const Words all{"0",
                           "-1",
                           "1",
                           "7",
                           "2147483647",
                           "2147483648",
                           "-2147483649",
                           "1.5",
                           "4294967296",
                           "9223372036854775807",
                           "-9223372036854775808",
                           "9223372036854775808",
                           "1e400",
                           "07",
                           "",
                           "x"};
    return all;
}

const Words& times() {
    static const Words all{"1970-01-01",
                           "1969-12-31 23:59:59",
                           "2024-02-29T12:00:00Z",
                           "2024-02-30",
                           "9999-12-31",
                           "2024-06-01 00:00:00",
                           "some day",
                           "0",
                           ""};
    return all;
}

const Words& hostileTexts() {
    static const Words all{"%",
                           "_",
                           "",
                           "'",
                           "it''s",
                           "\"",
                           "a%b_c",
                           "!",
                           "!%",
                           "\\",
                           "NULL",
                           "' or '1'='1",
                           "\xc3\xa4\xf0\x9f\x98\x80",
                           "0",
                           std::string(300, '%'),
                           std::string(200, '_') + "%",
                           "%a%a%a%a%a%a%b",
                           std::string("a\0b", 3)};
    return all;
}

const Words& functions() {
    static const Words all{"count", "sum", "average", "min", "max", "SUM", "Max"};
    return all;
}

}  // namespace

QORSecurityRequests::QORSecurityRequests(const std::vector<QORCheckedView>& views,
                                         const std::map<std::string, std::size_t>& sizes, std::uint64_t seed)
    : m_sizes(sizes), m_dice(seed) {
    for (const QORCheckedView& view : views) {
        if (!m_sizes.contains(view.name) || view.columns.empty()) continue;
        // What is restricted is asked more often than what everybody sees.
        m_views.insert(m_views.end(), view.objects.empty() ? 1 : 3, &view);
    }
}

QORSecurityRequest QORSecurityRequests::next() {
    m_request = {};
    m_request.operatorName = "pager2";
    if (m_views.empty()) return m_request;
    m_request.body = select({});
    if (m_request.shapes.empty()) note("plain");
    return m_request;
}

std::string QORSecurityRequests::select(const std::vector<Level>& around) {
    const bool nested = !around.empty();
    const QORCheckedView* const view = nested ? nestedView(around) : pick(m_views);
    Words outputs;
    bool grouped = false;
    std::string body = noteLeaf("view", view->name) + "," + fields(*view, nested, outputs, grouped);
    const bool distinct = chance(15);
    if (distinct) body += ",[\"distinct\"]";
    if (distinct) note("distinct");
    if (chance(80)) {
        std::vector<Level> levels = around;
        levels.push_back({view, !nested});
        body += "," + noteElement("where", condition(levels, nested ? 2 : 4));
    }
    const bool paged = (!nested && m_sizes[view->name] > pagedFrom && !grouped) || chance(25);
    if (paged) {
        note("page");
        body +=
            "," + noteElement("limit", noteLeaf("size", std::to_string(1 + number(30))) +
                                           (chance(50) ? "," + noteLeaf("offset", std::to_string(number(12))) : ""));
    }
    if (paged || chance(40)) {
        const bool total = paged || chance(50);
        body += sorting(*view, outputs, total, grouped || distinct);
        if (!nested && total) m_request.order = QORSecurityRequest::Order::Settled;
        note("sort");
    }
    if (chance(30)) body += ",[\"statistics\"]";
    return noteElement("select", body);
}

std::string QORSecurityRequests::fields(const QORCheckedView& view, bool nested, Words& outputs, bool& grouped) {
    const std::size_t wanted = nested && !chance(3) ? 1 : 1 + number(4);
    std::string written;
    while (outputs.size() < wanted) {
        const QORCheckedColumn& column = nested ? comparable(view) : pick(view.columns);
        if (std::find(outputs.begin(), outputs.end(), column.name) != outputs.end()) {
            if (view.columns.size() <= outputs.size() || chance(20)) break;
            continue;
        }
        outputs.push_back(column.name);
        if (!written.empty()) written += ",";
        if (!chance(nested ? 30 : 18)) {
            written +=
                chance(10) ? noteElement("field", noteLeaf("name", column.name)) : noteLeaf("field", column.name);
            continue;
        }
        note(nested ? "nested aggregate" : "aggregate");
        grouped = true;
        written += noteElement("field", noteElement("function", noteLeaf("name", pick(functions())) + "," +
                                                                    noteLeaf("field", column.name)));
    }
    return written;
}

/// With `total`, all that is selected is sorted by: rows that are equal in it are the same in the answer. Otherwise one
/// key, and the order of the answer says nothing.
std::string QORSecurityRequests::sorting(const QORCheckedView& view, const Words& outputs, bool total, bool grouped) {
    Words keys = outputs;
    if (!total) keys = {grouped ? pick(outputs) : pick(view.columns).name};
    if (total && !grouped && chance(30)) keys.push_back(pick(view.columns).name);
    std::string written;
    for (const std::string& key : keys)
        written += "," + noteElement("sort", noteLeaf("field", key) + (chance(50) ? ",[\"descending\"]" : ""));
    return written;
}

std::string QORSecurityRequests::condition(const std::vector<Level>& levels, int depth) {
    const std::uint64_t kind = depth > 0 ? number(10) : 9;
    if (kind < 4) {
        std::string terms;
        for (std::uint64_t terms_left = 1 + number(3) + (kind == 0); terms_left > 0; --terms_left)
            terms += (terms.empty() ? "" : ",") + condition(levels, depth - 1);
        return noteElement(kind % 2 ? "and" : "or", terms);
    }
    if (kind == 4) return noteElement("not", condition(levels, depth - 1));
    return comparison(levels);
}

std::string QORSecurityRequests::comparison(const std::vector<Level>& levels) {
    static const Words operators{"eq", "ne", "gt", "ge", "lt", "le"};
    const QORCheckedView& view = *levels.back().view;
    const QORCheckedColumn* column = nullptr;
    switch (number(10)) {
        case 0:
        case 1:
            return likeCondition(levels);
        case 2: {
            note("between");
            const std::string first = operand(levels, &column);
            return noteElement("between", first + "," + literal(view, column) + "," + literal(view, column));
        }
        case 3:
            note("is null");
            return noteElement("is_null", operand(levels, &column));
        case 4:
        case 5:
        case 6:
            return list(levels);
        default:
            break;
    }
    note("comparison");
    const std::string left = operand(levels, &column);
    const QORCheckedColumn* other = column;
    const std::string right = chance(20) ? operand(levels, &other) : literal(view, column);
    return noteElement(pick(operators), chance(85) ? left + "," + right : right + "," + left);
}

std::string QORSecurityRequests::likeCondition(const std::vector<Level>& levels) {
    note("like");
    const QORCheckedView& view = *levels.back().view;
    const QORCheckedColumn* column = nullptr;
    std::string operands = operand(levels, &column) + ",";
    const QORCheckedColumn* other = nullptr;
    switch (number(4)) {
        case 0:
            note("pattern of a column");
            operands += operand(levels, &other);
            break;
        case 1:
            note("pattern of a function");
            operands += noteElement("function", noteLeaf("name", chance(50) ? "upper" : "lower") + "," +
                                                    noteLeaf("value", pattern(view, column)));
            break;
        default:
            operands += noteLeaf("value", pattern(view, column));
            break;
    }
    if (chance(25)) operands += "," + noteLeaf("escape", chance(70) ? "!" : (chance(50) ? "%" : "\\"));
    return noteElement("like", operands);
}

std::string QORSecurityRequests::list(const std::vector<Level>& levels) {
    note("in");
    const QORCheckedView& view = *levels.back().view;
    const QORCheckedColumn* column = nullptr;
    std::string items = operand(levels, &column);
    for (std::uint64_t left = 1 + number(4); left > 0; --left) {
        if (levels.size() < deepest && chance(40)) {
            note("nested");
            items += "," + select(levels);
        } else {
            items += "," + literal(view, column);
        }
    }
    return noteElement("in", items);
}

std::string QORSecurityRequests::operand(const std::vector<Level>& levels, const QORCheckedColumn** column) {
    const Level* level = &levels.back();
    std::string name;
    // A row around this one costs a run of the nested select for each, so it is named where there are few.
    if (levels.size() > 1 && chance(25)) {
        const Level& outer = levels[levels.size() - 2];
        if (m_sizes[outer.view->name] * m_sizes[level->view->name] < correlatedRows && levels.size() == 2) {
            level = &outer;
            name = outer.view->name + ".";
            note("correlated");
        }
    }
    const QORCheckedColumn& chosen = comparable(*level->view);
    *column = &chosen;
    std::string field = noteLeaf("field", name + chosen.name);
    if (!chance(15)) return field;
    note("function");
    return noteElement("function", noteLeaf("name", chance(50) ? "upper" : "lower") + "," + field);
}

const QORCheckedColumn& QORSecurityRequests::comparable(const QORCheckedView& view) {
    for (int attempt = 0; attempt < 20; ++attempt) {
        const QORCheckedColumn& column = pick(view.columns);
        if (!isBytes(column) || chance(2)) return column;
    }
    return view.columns.front();
}

const QORCheckedView* QORSecurityRequests::nestedView(const std::vector<Level>& levels) {
    for (int attempt = 0; attempt < 4; ++attempt) {
        const QORCheckedView* const view = pick(m_views);
        // Two selects over one view cannot name each other's columns.
        if (std::none_of(levels.begin(), levels.end(), [&](const Level& level) { return level.view == view; }))
            return view;
    }
    return pick(m_views);
}

std::string QORSecurityRequests::literal(const QORCheckedView& view, const QORCheckedColumn* column) {
    return noteLeaf("value", textFor(view, column));
}

std::string QORSecurityRequests::textFor(const QORCheckedView& view, const QORCheckedColumn* column) {
    if (column != nullptr && !column->samples.empty() && chance(75)) return pick(column->samples);
    const QORCheckedColumn& any = column != nullptr && chance(70) ? *column : pick(view.columns);
    if (any.type.find("int") != std::string::npos || any.type == "float" || any.type == "decimal")
        return pick(numbers());
    if (any.type == "datetime") return pick(times());
    if (!any.samples.empty() && chance(50)) return pick(any.samples);
    return pick(hostileTexts());
}

std::string QORSecurityRequests::pattern(const QORCheckedView& view, const QORCheckedColumn* column) {
    constexpr std::size_t tooLong = 50'001;  // bytes of a pattern that no engine of ours takes
    if (number(400) == 0) return std::string(tooLong, '%');
    std::string text = textFor(view, column);
    if (text.size() > 1 && chance(60)) text = text.substr(0, 1 + number(text.size())) + "%";
    if (chance(20)) text = "%" + text;
    return text;
}

}  // namespace QOR
