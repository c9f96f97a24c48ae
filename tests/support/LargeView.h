/// \file
/// A database whose view has many rows, and one of which reading fails in the middle.
#pragma once

#include <string>

#include "rdbmspp/pool/QORRdbms.h"
#include "support/HostDatabase.h"

namespace QOR::test {

/// Views: vMany (id, name), `rows` rows with ids from 1 on; vBroken, the same up to the row `brokenAt`, which cannot be
/// read. Whoever reads all of them without an order gets them in that of their ids.
inline void makeLargeView(const std::string& connectionString, int rows, int brokenAt) {
    QORRdbms::prepareProcess();
    ASDatabaseOptions options;
    options.connectionString = connectionString;
    QORRdbms::instance().configure(options);
    const bool sqlite = QORRdbms::instance().engine() == ASEngine::SQLite;
    // Where a reading of a large table was broken off, PostgreSQL begins the next one.
    if (!sqlite)
        runSql(
            "DO $$ BEGIN EXECUTE format('ALTER DATABASE %I SET synchronize_seqscans = off', current_database()); END "
            "$$");
    runSql("CREATE TABLE many (id INTEGER PRIMARY KEY, name " + std::string(sqlite ? "nvarchar" : "varchar") + "(64))");
    runSql("INSERT INTO many WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
           std::to_string(rows) + ") SELECT i, 'this is row number ' || i FROM n");
    runSql("CREATE VIEW \"vMany\" AS SELECT id, name FROM many");
    runSql("CREATE VIEW \"vBroken\" AS SELECT id, name FROM many WHERE abs(CASE WHEN id = " + std::to_string(brokenAt) +
           " THEN -9223372036854775807 - 1 ELSE 1 END) = 1");
    QORRdbms::instance().shutdown();
}

}  // namespace QOR::test
