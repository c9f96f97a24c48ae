#include "copy/CopyWriter.h"

#include <algorithm>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "copy/CopyReader.h"
#include "ingest/RecordTables.h"

namespace QOR {
namespace {

using Kind = QORSchemaColumnKind;

std::string columnList(const QORSchemaTable& table) {
    std::string list;
    for (const QORSchemaColumn& column : table.columns)
        list += (list.empty() ? "" : ", ") + column.name;
    return list;
}

/// One row after the other: there is no way to the server.
std::string insertEachSql(const QORSchemaTable& table) {
    std::string parameters;
    for (std::size_t i = 0; i < table.columns.size(); ++i)
        parameters += i == 0 ? "?" : ", ?";
    return "INSERT INTO " + table.name + " (" + columnList(table) + ") VALUES (" + parameters + ")";
}

/// All rows by one parameter.
std::string insertTogetherSql(const QORSchemaTable& table) {
    std::string values;
    std::string types;
    for (const QORSchemaColumn& column : table.columns) {
        const char* const separator = values.empty() ? "" : ", ";
        const std::string value = "r." + column.name;
        values += separator + (column.kind == Kind::Bytes ? "decode(" + value + ", 'hex')" : value);
        types += separator + column.name + " " + copyTypeOf(column.kind);
    }
    return "INSERT INTO " + table.name + " (" + columnList(table) + ") SELECT " + values +
           " FROM json_to_recordset(CAST(? AS json)) AS r (" + types + ")";
}

void bind(ASStatement& statement, unsigned place, Kind kind, std::optional<std::string_view> value) {
    const bool isNumber = kind == Kind::Integer || kind == Kind::Mixed;
    const auto number = value && isNumber ? parseInt64(*value) : std::nullopt;
    if (!value) {
        statement.bindNull(place);
    } else if (number) {
        statement.bind(place, *number);
    } else if (kind == Kind::Bytes) {
        statement.bindBinary(place, *value);
    } else {
        statement.bind(place, *value);
    }
}

void append(RecordJson& row, Kind kind, std::optional<std::string_view> value) {
    if (!value) {
        row.null();
    } else if (kind == Kind::Integer || kind == Kind::SmallInteger) {
        row.integer(parseInt64(*value).value_or(0));
    } else if (kind == Kind::Bytes) {
        row.bytes(std::string(*value));
    } else {
        row.text(*value);
    }
}

void runWith(ASSession& session, const std::string& sql, const std::string& json) {
    ASStatement& statement = session.prepare(sql);
    statement.bind(1, std::string_view(json)).execute();
    statement.reset();
}

}  // namespace

CopyWriter::CopyWriter(ASEngine engine, const QORSchemaTable& table)
    : m_table(table), m_sql(engine == ASEngine::SQLite ? insertEachSql(table) : insertTogetherSql(table)) {}

const char* CopyWriter::faultOf(ASEngine engine, Kind kind, std::string_view value) {
    if (engine == ASEngine::SQLite) return nullptr;
    if (kind == Kind::Text && !isUtf8(value)) return "is no text of UTF-8";
    if (kind == Kind::Time && value < "0001") return "is a time before the year 1";
    if (kind == Kind::SmallInteger && !parseInt32(value)) return "is no whole number of 32 bits";
    return nullptr;
}

void CopyWriter::write(ASSession& session, const CopyRows& rows) const {
    session.engine() == ASEngine::SQLite ? writeEach(session, rows) : writeTogether(session, rows);
}

void CopyWriter::writeEach(ASSession& session, const CopyRows& rows) const {
    ASStatement& insert = session.prepare(m_sql);
    for (std::size_t row = 0; row < rows.size(); ++row) {
        for (std::size_t i = 0; i < m_table.columns.size(); ++i)
            bind(insert, static_cast<unsigned>(i) + 1, m_table.columns[i].kind, rows.value(row, i));
        insert.execute();
    }
    insert.reset();
}

std::string CopyWriter::jsonOf(const CopyRows& rows) const {
    std::string json = "[";
    for (std::size_t row = 0; row < rows.size(); ++row) {
        if (row > 0) json += ',';
        RecordJson object(json);
        for (std::size_t i = 0; i < m_table.columns.size(); ++i) {
            object.column(m_table.columns[i].name);
            append(object, m_table.columns[i].kind, rows.value(row, i));
        }
        object.end();
    }
    json += ']';
    return json;
}

void CopyWriter::writeTogether(ASSession& session, const CopyRows& rows) const {
    runWith(session, m_sql, jsonOf(rows));
}

void CopyWriter::replace(ASSession& session, const CopyRows& rows, const std::vector<std::string>& columns) const {
    const std::string json = jsonOf(rows);
    for (const QORSchemaColumn& column : m_table.columns) {
        if (std::find(columns.begin(), columns.end(), column.name) == columns.end()) continue;
        runWith(session,
                "DELETE FROM " + m_table.name + " t USING json_to_recordset(CAST(? AS json)) AS r (" + column.name +
                    " " + copyTypeOf(column.kind) + ") WHERE t." + column.name + " = r." + column.name,
                json);
    }
    runWith(session, m_sql, json);
}

}  // namespace QOR
