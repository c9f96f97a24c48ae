#include "selfcheck/QORSecurityViews.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdlib>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORGuid.h"

namespace QOR {
namespace {

constexpr const char* sourcePath = "qor/selfcheck/SecurityViews";
constexpr std::size_t samplesOfColumn = 24;
constexpr std::size_t sampledBytes = 4096;  // of one value
constexpr std::size_t sampledObjects = 200;

[[noreturn]] void fail(sqlite3* database, const std::string& what) {
    throw QORException(errFailure, what + ": " + sqlite3_errmsg(database), sourcePath, __LINE__);
}

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

std::string typeOf(const std::string& declared) {
    std::string type = declared.substr(0, declared.find('('));
    while (!type.empty() && type.back() == ' ')
        type.pop_back();
    return toLowerText(type);
}

void sample(QORCheckedDatabase& database, const std::string& view, QORCheckedColumn& column) {
    const std::string name = quotedName(column.name);
    const std::string from =
        " FROM " + quotedName(view) + " WHERE length(" + name + ") <= " + std::to_string(sampledBytes);
    try {
        // The first and the last that the engine finds: cheap on any size, and old and new records alike.
        for (const char* const order : {"", " ORDER BY 1 DESC"}) {
            const auto rows =
                database.rows("SELECT DISTINCT " + name + from + order + " LIMIT " + std::to_string(samplesOfColumn));
            for (const auto& row : rows)
                column.samples.push_back(row.front());
        }
    } catch (const QORException&) {
        // A column that cannot be read from every row has the samples that were read.
    }
}

}  // namespace

QORCheckedDatabase::QORCheckedDatabase(const std::filesystem::path& file, bool readOnly) {
    const int flags = readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    if (sqlite3_open_v2(file.c_str(), &m_database, flags, nullptr) != SQLITE_OK) {
        const std::string reason = sqlite3_errmsg(m_database);
        sqlite3_close(m_database);
        throw QORException(errFailure, "cannot open database " + file.string() + ": " + reason, sourcePath, __LINE__);
    }
    constexpr int patienceMs = 10000;
    sqlite3_busy_timeout(m_database, patienceMs);
}

QORCheckedDatabase::~QORCheckedDatabase() {
    sqlite3_close(m_database);
}

void QORCheckedDatabase::run(const std::string& sql) {
    if (sqlite3_exec(m_database, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) fail(m_database, sql);
}

std::vector<std::vector<std::string>> QORCheckedDatabase::rows(const std::string& sql, std::size_t most) {
    std::vector<std::vector<std::string>> result;
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(m_database, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) fail(m_database, sql);
    int step = SQLITE_ROW;
    while (result.size() < most && (step = sqlite3_step(statement)) == SQLITE_ROW) {
        auto& row = result.emplace_back();
        for (int column = 0; column < sqlite3_column_count(statement); ++column) {
            const auto* const text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
            const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
            row.push_back(text == nullptr ? std::string() : std::string(text, size));
        }
    }
    sqlite3_finalize(statement);
    if (step != SQLITE_ROW && step != SQLITE_DONE) fail(m_database, sql);
    return result;
}

void QORCheckedDatabase::copyTo(QORCheckedDatabase& target) {
    sqlite3_backup* const backup = sqlite3_backup_init(target.m_database, "main", m_database, "main");
    if (backup == nullptr) fail(target.m_database, "the database cannot be copied");
    const int step = sqlite3_backup_step(backup, -1);
    sqlite3_backup_finish(backup);
    if (step != SQLITE_DONE) fail(target.m_database, "the database cannot be copied");
}

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
    if (objects.empty()) return "1";
    const std::string list = quotedList(eids);
    std::string condition;
    for (const std::string& column : objects)
        condition += (condition.empty() ? "" : " OR ") + quotedName(column) + " IN (" + list + ")";
    return condition;
}

std::vector<QORCheckedView> checkedViews(QORCheckedDatabase& database) {
    std::vector<QORCheckedView> views;
    for (const auto& row : database.rows(
             "SELECT name FROM sqlite_master WHERE type = 'view' AND lower(name) <> 'schematable' ORDER BY name")) {
        QORCheckedView view;
        view.name = row.front();
        try {
            for (const auto& column : database.rows("SELECT name, type FROM pragma_table_info(" +
                                                    quotedText(view.name) + ") ORDER BY cid")) {
                view.columns.push_back({column[0], typeOf(column[1]), column[1], {}});
            }
        } catch (const QORException&) {
            continue;  // selects from what is gone; the operators leave it out as well
        }
        view.objects = objectColumns(view);
        for (QORCheckedColumn& column : view.columns)
            sample(database, view.name, column);
        views.push_back(std::move(view));
    }
    return views;
}

std::vector<std::string> checkedObjects(QORCheckedDatabase& database, const std::vector<QORCheckedView>& views) {
    std::set<std::string> objects;
    for (const QORCheckedView& view : views) {
        for (const std::string& column : view.objects) {
            const std::string name = quotedName(column);
            const auto rows = database.rows("SELECT " + name + " FROM " + quotedName(view.name) + " WHERE " + name +
                                                " IS NOT NULL GROUP BY 1 ORDER BY count(*) DESC, 1",
                                            sampledObjects);
            for (const auto& row : rows)
                if (QORGUIDBase::parse(row.front())) objects.insert(row.front());
        }
    }
    return {objects.begin(), objects.end()};
}

}  // namespace QOR
