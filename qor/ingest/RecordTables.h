/// \file
/// The tables that records go into, column by column, and the statements that are made of them: for a record, or for
/// many at once.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORText.h"
#include "QORLibAgent/QORBinder.h"
#include "QORLibAgent/QOREnv.h"
#include "ingest/QORRecords.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// A row of many that are handed over as one JSON text: an object with a member for each column. Takes values as
/// QORBinder does. Refers to the text.
class RecordJson {
public:
    explicit RecordJson(std::string& out) : m_out(out) { m_out += '{'; }
    void end() { m_out += '}'; }
    /// The column that the next value belongs to.
    void column(std::string_view name) {
        if (m_out.back() != '{') m_out += ',';
        appendJsonString(name, m_out);
        m_out += ':';
    }
    void text(std::string_view value) { appendJsonString(value, m_out); }
    void text(const std::string& value) { text(std::string_view(value)); }
    void text(const std::optional<std::string>& value) { value ? text(std::string_view(*value)) : null(); }
    void integer(std::int64_t value) { m_out += std::to_string(value); }
    void integer(const std::optional<std::int64_t>& value) { value ? integer(*value) : null(); }
    void eid(const QORGUIDBase& value) { value.isValid() ? text(value.toString()) : null(); }
    void time(std::int64_t seconds) { text(time2dbstr(seconds)); }
    void time(const std::optional<std::int64_t>& seconds) { seconds ? time(*seconds) : null(); }
    void bytes(const std::optional<std::string>& value);
    void null() { m_out += "null"; }

private:
    std::string& m_out;
};

/// What a column holds.
enum class RecordColumnKind { Text, Integer, Guid, Time, Bytes };

/// A column that something is stored in, and what is stored there.
template <class Stored>
struct RecordColumn {
    using Member = std::optional<std::string> (*)(const Stored& stored, QOREnvMember member);

    /// \param value gives it to a binder or a JSON row: [](auto& to, const Stored& stored) { ... }
    template <class Value>
    RecordColumn(std::string_view columnName, RecordColumnKind columnKind, Value value)
        : name(columnName), kind(columnKind), m_bind(value), m_write(value) {}
    /// For a member of a configuration, of which many columns have one each.
    RecordColumn(std::string_view columnName, Member text, QOREnvMember which)
        : name(columnName), kind(RecordColumnKind::Text), m_text(text), m_member(which) {}

    void put(QORBinder& to, const Stored& stored) const {
        m_text != nullptr ? static_cast<void>(to.text(m_text(stored, m_member))) : m_bind(to, stored);
    }
    void put(RecordJson& to, const Stored& stored) const {
        to.column(name);
        m_text != nullptr ? to.text(m_text(stored, m_member)) : m_write(to, stored);
    }

    std::string_view name;
    RecordColumnKind kind;

private:
    void (*m_bind)(QORBinder& to, const Stored& stored) = nullptr;
    void (*m_write)(RecordJson& to, const Stored& stored) = nullptr;
    Member m_text = nullptr;
    QOREnvMember m_member{};
};

/// A column as the statement for many rows knows it.
struct RecordColumnName {
    std::string_view name;
    RecordColumnKind kind;
};

/// The number of a record's arrival, in the tables of records that many are stored in at once.
inline constexpr std::string_view arrivalColumn = "seq";

/// A statement whose only parameter is a JSON array of rows. What has a key takes the place of what has the same, and
/// keeps that one's arrivalColumn. \returns one row with one column from it: how many rows were new. \param key "" for
/// rows that are only added \param once a column of such rows: of those that have the same in it the first one stays
std::string storeManySql(const std::string& table, const std::vector<RecordColumnName>& columns, std::string_view key,
                         std::string_view once);

/// What an INSERT ends with that leaves out what is there already. \param once "" for nothing
std::string ignoringSql(std::string_view once);

/// The statements that store something in a table. Immutable.
template <class Stored>
class RecordTable {
public:
    using Columns = std::vector<RecordColumn<Stored>>;

    /// \param key the column by which a record is found again, none for records that are only added \param arrival
    /// columns that a record keeps from its first arrival, which the database gives out itself to many at once
    /// \param once among the columns of records that are only added: those that have the same in it are added once
    RecordTable(const std::string& name, Columns columns, Columns key, Columns arrival, std::string_view once = {})
        : m_columns(std::move(columns)), m_key(std::move(key)), m_arrival(std::move(arrival)) {
        std::string names;
        std::string values;
        std::vector<RecordColumnName> many;
        for (const Columns* part : {&m_columns, &m_key, &m_arrival}) {
            for (const RecordColumn<Stored>& column : *part) {
                names += (names.empty() ? "" : ", ") + std::string(column.name);
                values += values.empty() ? "?" : ", ?";
                if (part != &m_arrival) many.push_back({column.name, column.kind});
            }
        }
        const std::string keyName(m_key.empty() ? std::string_view() : m_key.front().name);
        m_storeMany = storeManySql(name, many, keyName, once);
        many.push_back({arrivalColumn, RecordColumnKind::Integer});
        m_storeNumbered = storeManySql(name, many, keyName, once);
        m_insert = "INSERT INTO " + name + " (" + names + ") VALUES (" + values + ")" + ignoringSql(once);
        if (m_key.empty()) return;
        m_insert += " ON CONFLICT (" + keyName + ") DO NOTHING";
        m_update = "UPDATE " + name + " SET ";
        for (const RecordColumn<Stored>& column : m_columns)
            m_update += (&column == m_columns.data() ? "" : ", ") + std::string(column.name) + " = ?";
        m_update += " WHERE " + keyName + " = ?";
    }

    /// \returns false when there is one with its key, or the same to be stored once, already, which stays as it is
    bool insert(ASSession& session, const Stored& stored) const {
        run(session, m_insert, stored, {&m_columns, &m_key, &m_arrival});
        return session.changes() > 0;
    }
    void update(ASSession& session, const Stored& stored) const {
        run(session, m_update, stored, {&m_columns, &m_key});
    }

    /// Adds a row to the array that storeMany() takes. \param number of its arrival; 0: the database gives one out
    void append(std::string& rows, const Stored& stored, std::int64_t number = 0) const {
        rows += rows.empty() ? '[' : ',';
        RecordJson row(rows);
        for (const Columns* part : {&m_columns, &m_key}) {
            for (const RecordColumn<Stored>& column : *part)
                column.put(row, stored);
        }
        if (number != 0) {
            row.column(arrivalColumn);
            row.integer(number);
        }
        row.end();
    }
    /// No two of the rows have the same key. \param rows the array without its end \param numbered all of them are,
    /// else none is \returns how many were new
    std::uint64_t storeMany(ASSession& session, std::string rows, bool numbered = false) const {
        rows += ']';
        ASStatement& statement = session.prepare(numbered ? m_storeNumbered : m_storeMany);
        statement.bind(1, std::string_view(rows)).execute();
        const std::uint64_t added = statement.fetch() ? static_cast<std::uint64_t>(statement.integer(1)) : 0;
        statement.close();
        return added;
    }

private:
    static void run(ASSession& session, const std::string& sql, const Stored& stored,
                    std::initializer_list<const Columns*> parts) {
        ASStatement& statement = session.prepare(sql);
        QORBinder to(statement);
        for (const Columns* part : parts) {
            for (const RecordColumn<Stored>& column : *part)
                column.put(to, stored);
        }
        statement.execute(ASTriggers::Skip);
    }

    Columns m_columns;
    Columns m_key;
    Columns m_arrival;
    std::string m_insert;
    std::string m_update;
    std::string m_storeMany;
    std::string m_storeNumbered;
};

/// An operation with what its columns are made of. Refers to the record.
struct StoredOperation {
    explicit StoredOperation(const QOROperationRecord& from);

    const QOROperationRecord& record;
    std::optional<std::string> message;
    std::optional<std::string> package;
    std::int64_t sequence = 0;
};

/// Refers to the record.
struct StoredEvent {
    const QOREventRecord& record;
    std::int64_t sequence;
};

const RecordTable<QOREnvironmentRecord>& environmentTable();
const RecordTable<StoredOperation>& operationTable();
const RecordTable<StoredEvent>& eventTable();
const RecordTable<QORBackupRecord>& backupTable();

}  // namespace QOR
