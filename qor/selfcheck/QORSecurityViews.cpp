#include "selfcheck/QORSecurityViews.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

#include "QORCommon/QORException.h"
#include "QORCommon/QORGuid.h"

namespace QOR {
namespace {

constexpr std::size_t samplesOfColumn = 24;
constexpr std::size_t sampledBytes = 4096;  // of one value
constexpr std::size_t sampledObjects = 200;

bool isSecuritySettled(const QORCheckedView& view) {
    constexpr std::string_view prefix = "securityOperation_";
    constexpr long lastOperation = 2000008;
    return std::any_of(view.columns.begin(), view.columns.end(), [&](const QORCheckedColumn& column) {
        if (!column.name.starts_with(prefix)) return false;
        const long number = std::strtol(column.name.c_str() + prefix.size(), nullptr, 10);
        return number >= 1 && number <= lastOperation;
    });
}

const QORCheckedColumn* find(const QORCheckedView& view, const std::string& name) {
    const auto found = std::find_if(view.columns.begin(), view.columns.end(),
                                    [&](const QORCheckedColumn& column) { return column.name == name; });
    return found == view.columns.end() ? nullptr : &*found;
}

std::vector<std::string> objectColumns(const QORCheckedView& view) {
    std::vector<std::string> names;
    if (!isSecuritySettled(view)) return names;
    if (find(view, "securableObjId") != nullptr) names.emplace_back("securableObjId");
    for (unsigned number = 0; names.empty() || names.front() != "securableObjId"; ++number) {
        std::string name = "securableObjId" + std::to_string(number);
        if (find(view, name) == nullptr) break;
        names.push_back(std::move(name));
    }
    for (const std::string& name : names)
        if (find(view, name)->type != "uniqueidentifier") return {};
    return names;
}

void sample(QORCheckedDatabase& database, const std::string& view, QORCheckedColumn& column) {
    const std::string text = database.textOf(quotedName(column.name));
    std::string distinct = "SELECT DISTINCT " + text;
    distinct.append(" FROM ").append(database.whole(view)).append(" WHERE length(").append(text);
    distinct.append(") <= ").append(std::to_string(sampledBytes));
    const std::string limit = " LIMIT " + std::to_string(samplesOfColumn);
    try {
        // The first and the last that the engine finds: cheap on any size, and old and new records alike.
        for (const char* const order : {"", " ORDER BY 1 DESC"}) {
            const auto values = database.values(std::string(distinct).append(order).append(limit));
            column.samples.insert(column.samples.end(), values.begin(), values.end());
        }
    } catch (const QORException&) {
        // A column that cannot be read from every row has the samples that were read.
    }
}

}  // namespace

std::string quotedName(const std::string& name) {
    std::string quoted = "\"";
    for (const char c : name)
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    return quoted + '"';
}

std::string quotedText(const std::string& text) {
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? "''" : std::string(1, c);
    return quoted + '\'';
}

std::string quotedList(const std::set<std::string>& texts) {
    std::string list;
    for (const std::string& text : texts)
        list += (list.empty() ? "" : ",") + quotedText(text);
    return list;
}

std::string QORCheckedView::access(const std::set<std::string>& eids) const {
    if (objects.empty()) return "1 = 1";
    if (eids.empty()) return "1 = 0";
    const std::string list = quotedList(eids);
    std::string condition;
    for (const std::string& column : objects)
        condition += (condition.empty() ? "" : " OR ") + quotedName(column) + " IN (" + list + ")";
    return condition;
}

std::vector<QORCheckedView> checkedViews(QORCheckedDatabase& database) {
    std::vector<QORCheckedView> views = database.listViews();
    for (QORCheckedView& view : views) {
        view.objects = objectColumns(view);
        for (QORCheckedColumn& column : view.columns)
            sample(database, view.name, column);
    }
    return views;
}

std::vector<std::string> checkedObjects(QORCheckedDatabase& database, const std::vector<QORCheckedView>& views) {
    std::set<std::string> objects;
    for (const QORCheckedView& view : views) {
        for (const std::string& column : view.objects) {
            const std::string name = quotedName(column);
            const auto values =
                database.values("SELECT " + database.textOf(name) + " FROM " + database.whole(view.name) + " WHERE " +
                                    name + " IS NOT NULL GROUP BY 1 ORDER BY count(*) DESC, 1",
                                sampledObjects);
            std::copy_if(values.begin(), values.end(), std::inserter(objects, objects.end()),
                         [](const std::string& text) { return QORGUIDBase::parse(text).has_value(); });
        }
    }
    return {objects.begin(), objects.end()};
}

}  // namespace QOR
