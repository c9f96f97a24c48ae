#include "copy/CopyReader.h"

#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORGuid.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORSchemaRows.h"

namespace QOR {
namespace {

using Kind = QORSchemaColumnKind;

constexpr std::int64_t rowsAtOnce = 4000;
constexpr std::int64_t bytesAtOnce = std::int64_t{4} << 20;

bool isSqlite(const ASSession& session) {
    return session.engine() == ASEngine::SQLite;
}

/// A value as its text in any engine, in a form that the driver hands over as it is.
std::string selected(const ASSession& session, const QORSchemaColumn& column) {
    if (isSqlite(session)) {
        if (column.kind == Kind::Bytes) return "CAST(" + column.name + " AS BLOB)";
        return column.kind == Kind::Mixed ? "CAST(" + column.name + " AS TEXT)" : column.name;
    }
    const bool spelled = column.kind == Kind::Guid || column.kind == Kind::Time;
    return spelled ? "CAST(" + column.name + " AS text)" : column.name;
}

std::string parameter(const ASSession& session, const QORSchemaColumn& column) {
    return isSqlite(session) ? "?" : std::string("CAST(? AS ") + copyTypeOf(column.kind) + ")";
}

/// A value as it is compared and ordered. PostgreSQL orders all kinds as their texts do, and serves only the bare
/// column by its index.
std::string compared(const ASSession& session, const QORSchemaColumn& column) {
    return isSqlite(session) ? selected(session, column) : column.name;
}

/// What is made of each column of the key.
template <class Make>
std::string keyList(const QORSchemaTable& table, Make make) {
    std::string list;
    for (const std::size_t index : table.key)
        list += (list.empty() ? "" : ", ") + make(table.columns[index]);
    return list;
}

std::string keyValues(const ASSession& session, const QORSchemaTable& table) {
    return keyList(table, [&](const QORSchemaColumn& column) { return selected(session, column); });
}

std::string keyIs(const ASSession& session, const QORSchemaTable& table, const char* comparison) {
    return "(" + keyList(table, [&](const QORSchemaColumn& column) { return compared(session, column); }) + ") " +
           comparison + " (" +
           keyList(table, [&](const QORSchemaColumn& column) { return parameter(session, column); }) + ")";
}

std::string keyOrder(const ASSession& session, const QORSchemaTable& table, const char* direction) {
    return " ORDER BY " +
           keyList(table, [&](const QORSchemaColumn& column) { return compared(session, column) + direction; });
}

bool hasLength(Kind kind) {
    return kind == Kind::Text || kind == Kind::Bytes;
}

/// Bytes of the values that may be long.
std::string sizeOf(const ASSession& session, const QORSchemaTable& table) {
    std::string sum = "0";
    for (const QORSchemaColumn& column : table.columns) {
        if (!hasLength(column.kind)) continue;
        sum += isSqlite(session) ? " + coalesce(length(CAST(" + column.name + " AS BLOB)), 0)"
                                 : " + coalesce(octet_length(" + column.name + "), 0)";
    }
    return sum;
}

/// Why a value is not what such a column holds; null for one that is.
const char* faultOf(Kind kind, std::string_view value) {
    switch (kind) {
        case Kind::Integer:
            return parseInt64(value) ? nullptr : "is no whole number";
        case Kind::SmallInteger:
            return parseInt32(value) ? nullptr : "is no whole number of 32 bits";
        case Kind::Guid: {
            const auto guid = QORGUIDBase::parse(value);
            return guid && guid->toString() == value ? nullptr : "is no GUID in lower case with hyphens";
        }
        case Kind::Time: {
            const auto time = parseTime(value);
            return time && time2dbstr(*time) == value ? nullptr : "is no time of the form YYYY-MM-DD HH:MM:SS";
        }
        default:
            return nullptr;
    }
}

CopyReader::Key keyOf(const ASStatement& row, std::size_t size) {
    CopyReader::Key key;
    for (unsigned place = 1; place <= size; ++place)
        key.emplace_back(row.text(place));
    return key;
}

}  // namespace

const char* copyTypeOf(QORSchemaColumnKind kind) noexcept {
    switch (kind) {
        case Kind::Integer:
        case Kind::SmallInteger:
            return "bigint";
        case Kind::Guid:
            return "uuid";
        case Kind::Time:
            return "timestamp";
        default:
            return "text";
    }
}

CopyReader::CopyReader(ASSession& session, const QORSchemaTable& table, Key after, std::string condition)
    : m_session(session), m_table(table), m_after(std::move(after)), m_condition(std::move(condition)) {}

/// \param conditions besides that of the rows
std::string CopyReader::where(std::string conditions) const {
    if (!m_after.empty()) conditions += (conditions.empty() ? "" : " AND ") + keyIs(m_session, m_table, ">");
    if (!m_condition.empty()) conditions += (conditions.empty() ? "(" : " AND (") + m_condition + ")";
    return conditions.empty() ? conditions : " WHERE " + conditions;
}

CopyReader::Key CopyReader::last(ASSession& session, const QORSchemaTable& table) {
    ASStatement& select = session.prepare("SELECT " + keyValues(session, table) + " FROM " + table.name +
                                          keyOrder(session, table, " DESC") + " LIMIT 1");
    select.execute();
    Key key;
    if (select.fetch()) key = keyOf(select, table.key.size());
    select.close();
    return key;
}

std::uint64_t CopyReader::count(ASSession& session, const QORSchemaTable& table) {
    return static_cast<std::uint64_t>(readNumber(session, "SELECT count(*) FROM " + table.name));
}

void CopyReader::bindKey(ASStatement& statement, unsigned first, const Key& key) const {
    for (std::size_t i = 0; i < key.size(); ++i) {
        const Kind kind = m_table.columns[m_table.key[i]].kind;
        const auto index = first + static_cast<unsigned>(i);
        if (kind == Kind::Integer || kind == Kind::SmallInteger) {
            statement.bind(index, parseInt64(key[i]).value_or(0));
        } else {
            statement.bind(index, std::string_view(key[i]));
        }
    }
}

/// The key up to which the next rows are not too much at once; nothing at the end of the table.
std::optional<CopyReader::Key> CopyReader::findEnd() {
    const std::size_t keySize = m_table.key.size();
    ASStatement& select = m_session.prepare("SELECT " + keyValues(m_session, m_table) + ", " +
                                            sizeOf(m_session, m_table) + " FROM " + m_table.name + where({}) +
                                            keyOrder(m_session, m_table, "") + " LIMIT " + std::to_string(rowsAtOnce));
    bindKey(select, 1, m_after);
    select.execute();
    std::optional<Key> end;
    std::int64_t bytes = 0;
    while (select.fetch()) {
        bytes += select.integer(static_cast<unsigned>(keySize) + 1);
        if (end && bytes > bytesAtOnce) break;
        end = keyOf(select, keySize);
    }
    select.close();
    return end;
}

bool CopyReader::next(CopyRows& rows) {
    rows.clear();
    const std::optional<Key> end = findEnd();
    if (!end) return false;
    std::string list;
    for (const QORSchemaColumn& column : m_table.columns)
        list += selected(m_session, column) + ", ";
    ASStatement& select = m_session.prepare("SELECT " + list + sizeOf(m_session, m_table) + " FROM " + m_table.name +
                                            where(keyIs(m_session, m_table, "<=")) + keyOrder(m_session, m_table, ""));
    bindKey(select, 1, *end);
    bindKey(select, 1 + static_cast<unsigned>(end->size()), m_after);
    select.execute();
    while (select.fetch())
        take(select, rows);
    select.close();
    select.reset();
    m_after = *end;
    return true;
}

void CopyReader::take(ASStatement& row, CopyRows& rows) const {
    std::int64_t size = 0;
    for (std::size_t i = 0; i < m_table.columns.size(); ++i) {
        const QORSchemaColumn& column = m_table.columns[i];
        const auto place = static_cast<unsigned>(i) + 1;
        if (row.isNull(place)) {
            rows.add(std::nullopt);
            continue;
        }
        const std::string_view value = column.kind == Kind::Bytes ? row.bytes(place) : row.text(place);
        if (const char* const fault = faultOf(column.kind, value)) refuse(row, &column, quoteText(value) + " " + fault);
        if (hasLength(column.kind)) size += static_cast<std::int64_t>(value.size());
        rows.add(value);
    }
    // The driver hands texts over up to their first NUL, and bytes where a text should be in a spelling of its own.
    if (size != row.integer(static_cast<unsigned>(m_table.columns.size()) + 1))
        refuse(row, nullptr, "one of its texts has a NUL byte in it, or is bytes that are no text");
}

void CopyReader::refuse(const ASStatement& row, const QORSchemaColumn* column, const std::string& reason) const {
    std::string where = m_table.name;
    for (const std::size_t index : m_table.key) {
        const auto place = static_cast<unsigned>(index) + 1;
        where += ", " + m_table.columns[index].name + " " + quoteText(row.text(place));
    }
    throw QORException(errFailure,
                       where + ": " + (column == nullptr ? "" : column->name + " ") + reason +
                           ". No other database would take it; \"qorctl check --mend\" may mend it in the source",
                       QOR_SOURCE_PATH, __LINE__);
}

}  // namespace QOR
