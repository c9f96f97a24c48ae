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

void ShardRecords::follow(ASSession& source, const ShardChanges& changes) {
    for (const std::string& name : changes.emptied)
        m_target.write([&](ASSession& target) { target.execute("DELETE FROM " + name); });
    for (const auto& [name, numbers] : changes.numbers) {
        for (std::size_t from = 0; from < numbers.size(); from += numbersAtOnce) {
            const std::string list = listOf(numbers, from, std::min(from + numbersAtOnce, numbers.size()));
            copyTable(source, name, among("seq", list), list);
        }
    }
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

void ShardRecords::copyRequests(ASSession& source) {
    const QORSchemaTable& from = table("qor_request");
    const CopyWriter writer(ASEngine::PostgreSQL, from);
    m_target.write([&](ASSession& target) {
        target.execute("DELETE FROM qor_request");
        CopyReader reader(source, from);
        CopyRows rows(from.columns.size());
        while (reader.next(rows))
            writer.write(target, rows);
        target.execute(
            "SELECT setval(pg_get_serial_sequence('qor_request', 'rowid'), max(rowid)) FROM qor_request "
            "HAVING max(rowid) IS NOT NULL");
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

// What operations touch goes first, in one statement, not for each of them.
void ShardRecords::remove(ASSession& source) const {
    source.execute("DELETE FROM " + std::string(touchTable) + " WHERE " + m_share.holds("own"));
    for (const char* const name : recordTables)
        source.execute("DELETE FROM " + std::string(name) + " WHERE " + m_share.holds("eid"));
}

}  // namespace QOR
