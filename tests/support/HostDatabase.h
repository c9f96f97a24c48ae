/// \file
/// A database file of a test's own, reached through the host's database layer.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "QORCommon/QORGuid.h"
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

/// Rows of a select on the configured database as texts, nulls as "<null>". With servers, of all that they keep.
inline std::vector<Row> queryRows(const std::string& sql, unsigned columns) {
    QORRdbmsTran tran(hasTestServers() ? ASAccess::Read : ASAccess::ReadOne);
    if (hasTestServers())
        tran->execute("SELECT set_config('search_path', 'qor_all, ' || current_setting('search_path'), true)");
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

/// Makes the table of events refuse those that are more than so many; or takes the bound away. The host's own
/// statements fire no triggers of SQLite's, but they fill its indexes.
inline void limitEvents(std::optional<int> most) {
    const bool sqlite = testEngine() == ASEngine::SQLite;
    runSql(sqlite ? "DROP INDEX IF EXISTS limited" : "DROP TRIGGER IF EXISTS limited ON qor_event");
    if (!most) return;
    const std::string number = std::to_string(*most);
    if (sqlite)
        return runSql("CREATE INDEX limited ON qor_event (json(CASE WHEN seq > " + number +
                      " THEN 'no room' ELSE '0' END))");
    runSql(
        "CREATE OR REPLACE FUNCTION limit_events() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
        "IF (SELECT count(*) FROM qor_event) >= " +
        number + " THEN RAISE 'no room'; END IF; RETURN NEW; END $$");
    runSql("CREATE TRIGGER limited BEFORE INSERT ON qor_event FOR EACH ROW EXECUTE FUNCTION limit_events()");
}

/// A database of its own; a file of SQLite's itself appears with the first configure() or open().
class HostDatabase {
public:
    explicit HostDatabase(TestTables tables = TestTables::None) : m_database(tables) {}
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
