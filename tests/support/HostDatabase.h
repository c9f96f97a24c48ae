/// \file
/// A database file of a test's own, reached through the host's database layer.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "QORDBSchema/QORDBSchema.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/TestDatabase.h"

namespace QOR::test {

using Row = std::vector<std::string>;

/// Runs one statement on the configured database, in a transaction of its own.
inline void runSql(const std::string& sql) {
    QORRdbmsTran tran(ASAccess::Write);
    tran->execute(sql);
    tran.commit();
}

/// Has the engine fail ("malformed JSON") where an event comes whose arrival is beyond that; a trigger would not be
/// asked. Until the index "full" is dropped.
inline void failBeyondEvent(int most) {
    runSql("CREATE INDEX full ON qor_event (json(CASE WHEN seq > " + std::to_string(most) +
           " THEN 'full' ELSE '0' END))");
}

/// Rows of a select on the configured database as texts, nulls as "<null>".
inline std::vector<Row> queryRows(const std::string& sql, unsigned columns) {
    QORRdbmsTran tran(ASAccess::ReadOne);
    ASStatement& statement = tran->prepare(sql);
    statement.execute();
    std::vector<Row> rows;
    while (statement.fetch()) {
        Row& row = rows.emplace_back();
        for (unsigned column = 1; column <= columns; ++column) {
            row.push_back(statement.isNull(column) ? "<null>" : std::string(statement.text(column)));
        }
    }
    statement.close();
    return rows;
}

inline std::string queryText(const std::string& sql) {
    const auto rows = queryRows(sql, 1);
    return rows.empty() ? "<no row>" : rows.front().front();
}

/// A database of its own; a file of SQLite's itself appears with the first configure() or open().
class HostDatabase {
public:
    ~HostDatabase() { QORRdbms::instance().shutdown(); }

    std::filesystem::path file() const { return m_database.file(); }
    const TemporaryDirectory& folder() const { return m_database.folder(); }

    ASDatabaseOptions options(bool readOnly = false) const {
        ASDatabaseOptions options;
        options.connectionString = m_database.connectionString();
        options.readOnly = readOnly;
        options.busyTimeoutMs = 5000;
        return options;
    }
    /// Without any schema.
    void configure(bool readOnly = false) const { QORRdbms::instance().configure(options(readOnly)); }
    QORSchemaReport open(QORSchemaMode mode = QORSchemaMode::Own, bool readOnly = false) const {
        return QORDBSchema::open(options(readOnly), mode);
    }

private:
    TestDatabase m_database;
};

}  // namespace QOR::test
