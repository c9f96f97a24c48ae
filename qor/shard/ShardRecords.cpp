#include "shard/ShardRecords.h"

#include <algorithm>
#include <array>
#include <utility>

#include "QORCommon/QORException.h"
#include "copy/CopyReader.h"
#include "copy/CopyRows.h"
#include "copy/CopyWriter.h"

namespace QOR {
namespace {

/// Those whose rows have a number (seq) and an environment (eid) of their own.
constexpr std::array recordTables{"qor_operation", "qor_event", "qor_backup"};

/// Rows of this one go with those of qor_operation.
constexpr const char* touchTable = "qor_operation_environment";
constexpr const char* operations = "qor_operation";

constexpr std::size_t numbersAtOnce = 2000;

/// So many of a table are left to the end.
constexpr std::size_t newest = 200;

std::string listOf(const std::vector<std::int64_t>& numbers, std::size_t from, std::size_t to) {
    std::string list;
    for (std::size_t i = from; i < to; ++i)
        list += (i == from ? "" : ",") + std::to_string(numbers[i]);
    return list;
}

std::string among(const std::string& column, const std::string& list) {
    return column + " IN (" + list + ")";
}

std::string numbersOf(const CopyRows& rows, const QORSchemaTable& table) {
    std::string list;
    for (std::size_t row = 0; row < rows.size(); ++row) {
        const auto number = rows.value(row, table.key.front());
        list += (row == 0 ? "" : ",") + std::string(number.value_or("0"));
    }
    return list;
}

}  // namespace

/// Rows on their way, and what they touch.
struct ShardRecords::Batch {
    CopyRows rows;
    CopyRows touched;
};

std::string ShardShare::holds(const std::string& column) const {
    return "satisfies_hash_partition(CAST('qor_spread' AS regclass), " + std::to_string(modulus) + ", " +
           std::to_string(remainder) + ", " + column + ")";
}

ShardRecords::ShardRecords(ShardDatabase& target, ShardShare share, std::function<void(std::uint64_t)> took)
    : m_target(target), m_share(share), m_took(std::move(took)) {
    QORRdbmsTran tran(target.rdbms(), ASAccess::Read);
    m_tables = readTables(*tran);
}

const QORSchemaTable& ShardRecords::table(const std::string& name) const {
    return *std::find_if(m_tables.begin(), m_tables.end(), [&](const auto& one) { return one.name == name; });
}

void ShardRecords::copyAll(ASSession& source) {
    for (const char* const name : recordTables)
        copyTable(source, name, {}, {});
}

std::int64_t ShardRecords::follow(ASSession& source, const ShardChanges& changes) {
    std::int64_t more = 0;
    for (const std::string& name : changes.emptied)
        m_target.write([&](ASSession& target) {
            target.execute("DELETE FROM " + name);
            more -= target.changes();
        });
    for (const auto& [name, numbers] : changes.numbers) {
        for (std::size_t from = 0; from < numbers.size(); from += numbersAtOnce) {
            const std::string list = listOf(numbers, from, std::min(from + numbersAtOnce, numbers.size()));
            more -= countThere(name, list);
            copyTable(source, name, among("seq", list), list);
            more += countThere(name, list);
        }
    }
    return more;
}

std::int64_t ShardRecords::countThere(const std::string& name, const std::string& list) {
    QORRdbmsTran tran(m_target.rdbms(), ASAccess::ReadOne);
    return readNumber(*tran, "SELECT count(*) FROM " + name + " WHERE " + among("seq", list));
}

/// Without a condition it begins behind what is there. \param gone numbers of records that are taken away first
void ShardRecords::copyTable(ASSession& source, const std::string& name, const std::string& condition,
                             const std::string& gone) {
    const QORSchemaTable& from = table(name);
    CopyReader::Key behind;
    if (condition.empty()) {
        QORRdbmsTran tran(m_target.rdbms(), ASAccess::Read);
        behind = CopyReader::last(*tran, from);
    }
    CopyReader reader(source, from, behind, m_share.holds("eid") + (condition.empty() ? "" : " AND " + condition));
    Batch batch{CopyRows(from.columns.size()), CopyRows(table(touchTable).columns.size())};
    std::string left = gone;
    while (reader.next(batch.rows)) {
        if (name == operations) takeTouched(source, batch);
        put(name, batch, std::exchange(left, {}));
        m_took(batch.rows.size());
    }
    if (!left.empty()) {
        batch.touched.clear();
        put(name, batch, left);
    }
}

void ShardRecords::takeTouched(ASSession& source, Batch& batch) const {
    const QORSchemaTable& from = table(touchTable);
    CopyReader reader(source, from, {}, among("operation", numbersOf(batch.rows, table(operations))));
    CopyRows some(from.columns.size());
    batch.touched.clear();
    while (reader.next(some)) {
        for (std::size_t row = 0; row < some.size(); ++row) {
            for (std::size_t column = 0; column < from.columns.size(); ++column)
                batch.touched.add(some.value(row, column));
        }
    }
}

void ShardRecords::put(const std::string& name, const Batch& batch, const std::string& gone) {
    const CopyWriter records(ASEngine::PostgreSQL, table(name));
    const CopyWriter touched(ASEngine::PostgreSQL, table(touchTable));
    m_target.write([&](ASSession& target) {
        if (!gone.empty()) target.execute("DELETE FROM " + name + " WHERE " + among("seq", gone));
        if (batch.rows.size() > 0) records.replace(target, batch.rows, {"seq", "id"});
        if (name == operations && batch.touched.size() > 0) touched.write(target, batch.touched);
    });
}

void ShardRecords::copyDocuments(ASSession& source) {
    const QORSchemaTable& from = table("qor_unreadable_document");
    for (const char* const name : recordTables) {
        CopyReader reader(source, from, {},
                          "source = '" + std::string(name) + "' AND EXISTS (SELECT FROM " + name +
                              " r WHERE CAST(r.seq AS text) = record AND " + m_share.holds("r.eid") + ")");
        CopyRows rows(from.columns.size());
        while (reader.next(rows)) {
            m_target.write([&](ASSession& target) {
                for (std::size_t row = 0; row < rows.size(); ++row) {
                    ASStatement& add = target.prepare(
                        "INSERT INTO qor_unreadable_document (source, part, record) VALUES (CAST(? AS text), "
                        "CAST(? AS text), CAST(? AS text)) ON CONFLICT DO NOTHING");
                    for (unsigned i = 0; i < from.columns.size(); ++i)
                        add.bind(i + 1, *rows.value(row, i));
                    add.execute();
                }
            });
        }
    }
}

// Of a row the engine knows which transaction has written it.
void ShardRecords::copyRequests(ASSession& source) {
    const std::string from = readCell(source,
                                      "SELECT CAST(CAST(CAST(pg_snapshot_xmin(pg_current_snapshot()) AS text) AS "
                                      "bigint) % (1::bigint << 32) AS text)");
    const QORSchemaTable& requests = table("qor_request");
    const CopyWriter writer(ASEngine::PostgreSQL, requests);
    m_target.write([&](ASSession& target) {
        if (m_requestsFrom.empty()) target.execute("DELETE FROM qor_request");
        CopyReader reader(source, requests, {},
                          m_requestsFrom.empty() ? "" : "age(xmin) <= age(CAST('" + m_requestsFrom + "' AS xid))");
        CopyRows rows(requests.columns.size());
        while (reader.next(rows))
            writer.replace(target, rows, {"rowid", "key"});
        target.execute(
            "SELECT setval(pg_get_serial_sequence('qor_request', 'rowid'), max(rowid)) FROM qor_request "
            "HAVING max(rowid) IS NOT NULL");
    });
    m_requestsFrom = from;
}

void ShardRecords::copyNotes(ASSession& source) {
    const auto notes = readRows(source, "SELECT server, source, ids FROM qor_removal", 3);
    m_target.write([&](ASSession& target) {
        target.execute("DELETE FROM qor_removal");
        ASStatement& insert = target.prepare("INSERT INTO qor_removal (server, source, ids) VALUES (?, ?, ?)");
        for (const auto& note : notes)
            insert.bind(1, std::string_view(note[0]))
                .bind(2, std::string_view(note[1]))
                .bind(3, std::string_view(note[2]))
                .execute();
    });
}

std::uint64_t ShardRecords::count(ASSession& source) const {
    std::uint64_t records = 0;
    for (const char* const name : recordTables)
        records += std::stoull(
            readCell(source, "SELECT count(*) FROM " + std::string(name) + " WHERE " + m_share.holds("eid")));
    return records;
}

std::uint64_t ShardRecords::countThere() {
    QORRdbmsTran tran(m_target.rdbms(), ASAccess::Read);
    return count(*tran);
}

std::uint64_t ShardRecords::removeMost(ASSession& source) {
    std::uint64_t removed = 0;
    m_left.clear();
    for (const char* const name : recordTables) {
        removed += removeFree(source, name);
        Numbers& left = m_left[name];
        for (const auto& row :
             readRows(source, "SELECT seq FROM " + std::string(name) + " WHERE " + m_share.holds("eid"), 1))
            left.insert(std::stoll(row.front()));
    }
    return removed;
}

// Records that somebody is changing are not waited for: he would be waited for with all that has been removed. Of the
// newest more are going to be changed, and whoever does would have to wait.
std::uint64_t ShardRecords::removeFree(ASSession& source, const std::string& name) const {
    const std::string last = readCell(
        source, "SELECT seq FROM " + name + " ORDER BY seq DESC OFFSET " + std::to_string(newest) + " LIMIT 1");
    if (last.empty()) return 0;
    const std::string free = "WITH free AS MATERIALIZED (SELECT seq FROM " + name + " WHERE " + m_share.holds("eid") +
                             " AND seq <= " + last + " FOR UPDATE SKIP LOCKED)";
    const std::string touched =
        ", touched AS (DELETE FROM " + std::string(touchTable) + " e USING free WHERE e.operation = free.seq)";
    source.execute(free + (name == operations ? touched : "") + " DELETE FROM " + name +
                   " r USING free WHERE r.seq = free.seq");
    return static_cast<std::uint64_t>(source.changes());
}

void ShardRecords::leave(const ShardChanges& changes) {
    for (const auto& [name, numbers] : changes.numbers)
        m_left[name].insert(numbers.begin(), numbers.end());
}

// What operations touch goes first, in one statement, not for each of them.
std::uint64_t ShardRecords::removeLeft(ASSession& source) {
    std::uint64_t removed = 0;
    for (const auto& [name, left] : m_left) {
        const std::vector<std::int64_t> numbers(left.begin(), left.end());
        for (std::size_t from = 0; from < numbers.size(); from += numbersAtOnce) {
            const std::string list = listOf(numbers, from, std::min(from + numbersAtOnce, numbers.size()));
            if (name == operations)
                source.execute("DELETE FROM " + std::string(touchTable) + " WHERE " + among("operation", list) +
                               " AND " + m_share.holds("own"));
            source.execute("DELETE FROM " + name + " WHERE " + among("seq", list) + " AND " + m_share.holds("eid"));
            removed += static_cast<std::uint64_t>(source.changes());
        }
    }
    return removed;
}

}  // namespace QOR
