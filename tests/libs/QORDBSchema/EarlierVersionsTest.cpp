// Databases that programs of earlier versions have written are brought up to date with all that they hold.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "QORDBSchema/QORDBSchema.h"
#include "support/EarlierVersion.h"
#include "support/HostDatabase.h"

namespace QOR::test {
namespace {

using testing::IsEmpty;

/// Versions of which there are databases: all up to the one before this program's, at least.
std::vector<int> writtenVersions() {
    constexpr int first = 15;
    std::vector<int> versions;
    for (int version = first; version <= QORDBSchema::currentVersion(); ++version) {
        if (version == QORDBSchema::currentVersion() && !isVersionWritten(version, QOR_PROJECT_DIR)) break;
        versions.push_back(version);
    }
    return versions;
}

class EarlierVersions : public testing::Test {
protected:
    ~EarlierVersions() override { QORRdbms::instance().shutdown(); }

    static void configure(const TestDatabase& database) {
        QORRdbms::instance().configure({.connectionString = database.connectionString()});
    }
    static QORSchemaReport open(const TestDatabase& database) {
        return QORDBSchema::open({.connectionString = database.connectionString()}, QORSchemaMode::Own);
    }
    static bool isSqlite() { return testEngine() == ASEngine::SQLite; }

    /// The columns of each table as they are now.
    static std::map<std::string, std::vector<std::string>> columns() {
        std::map<std::string, std::vector<std::string>> all;
        for (const Row& row : queryRows(
                 isSqlite() ? "SELECT m.name, c.name FROM sqlite_master m JOIN pragma_table_info(m.name) c "
                              "WHERE m.type = 'table' AND m.name NOT LIKE 'sqlite%' ORDER BY 1, c.cid"
                            : "SELECT table_name::text, column_name::text FROM information_schema.columns JOIN "
                              "information_schema.tables USING (table_schema, table_name) WHERE "
                              "table_schema = 'public' AND table_type = 'BASE TABLE' ORDER BY 1, ordinal_position",
                 2))
            all[row[0]].push_back(row[1]);
        return all;
    }
    /// Every value in these columns, but for the lists of steps and of commits, which grow.
    static std::map<std::string, std::vector<std::string>> valuesOf(
        const std::map<std::string, std::vector<std::string>>& columns) {
        std::map<std::string, std::vector<std::string>> values;
        for (const auto& [table, names] : columns) {
            if (table == "qor_schema_version" || table == "qor_commit") continue;
            std::string row;
            for (const std::string& name : names)
                row += (row.empty() ? "" : " || ',' || ") +
                       (isSqlite() ? "quote(\"" + name + "\")"
                                   : "coalesce(quote_literal(CAST(\"" + name + "\" AS text)), 'NULL')");
            std::vector<std::string>& all = values[table];
            for (const Row& one : queryRows("SELECT " + row + " FROM " + table, 1))
                all.push_back(one[0]);
            std::sort(all.begin(), all.end());
        }
        return values;
    }

    /// Everything that the database has been told to have, as it tells it itself.
    static std::vector<Row> schema() {
        if (isSqlite())
            return queryRows(
                "SELECT type || ' ' || name, sql FROM sqlite_master WHERE name NOT LIKE 'sqlite%' ORDER BY 1", 2);
        std::vector<Row> all;
        for (const char* const part :
             {"SELECT c.relname || '.' || a.attname, concat_ws(' ', format_type(a.atttypid, a.atttypmod), "
              "a.attnotnull, a.attidentity, (SELECT collname FROM pg_collation l WHERE l.oid = a.attcollation), "
              "pg_get_expr(d.adbin, d.adrelid), col_description(c.oid, a.attnum)) "
              "FROM pg_class c JOIN pg_attribute a ON a.attrelid = c.oid LEFT JOIN pg_attrdef d ON d.adrelid = c.oid "
              "AND d.adnum = a.attnum WHERE c.relnamespace = 'public'::regnamespace AND c.relkind <> 'i' AND a.attnum "
              "> 0 ORDER BY 1",
              "SELECT conname::text, pg_get_constraintdef(oid) FROM pg_constraint WHERE connamespace = "
              "'public'::regnamespace ORDER BY 1",
              "SELECT indexrelid::regclass::text, pg_get_indexdef(indexrelid) FROM pg_index WHERE "
              "indrelid::regclass::text LIKE 'qor%' ORDER BY 1",
              "SELECT tgrelid::regclass::text || '.' || tgname, tgenabled::text || pg_get_triggerdef(oid) FROM "
              "pg_trigger "
              "WHERE NOT tgisinternal ORDER BY 1",
              "SELECT oid::regprocedure::text, pg_get_functiondef(oid) FROM pg_proc WHERE pronamespace = "
              "'public'::regnamespace ORDER BY 1",
              "SELECT c.relname::text, pg_get_viewdef(oid) FROM pg_class c WHERE relkind = 'v' AND relnamespace = "
              "'public'::regnamespace ORDER BY 1"}) {
            const std::vector<Row> rows = queryRows(part, 2);
            EXPECT_FALSE(rows.empty()) << part;
            all.insert(all.end(), rows.begin(), rows.end());
        }
        return all;
    }
};

TEST_F(EarlierVersions, AreMadeWhatANewDatabaseIsAndKeepAllTheirRows) {
    const TestDatabase fresh;
    open(fresh);
    const std::vector<Row> wanted = schema();
    for (const int version : writtenVersions()) {
        SCOPED_TRACE(version);
        const TestDatabase database;
        fillWithVersion(database, version, QOR_PROJECT_DIR);
        configure(database);
        const auto tables = columns();
        const auto before = valuesOf(tables);
        for (const char* const filled : {"qor_environment", "qor_operation", "qor_operation_environment", "qor_event",
                                         "qor_backup", "qor_request", "qor_token", "qor_record_change"})
            EXPECT_FALSE(before.at(filled).empty()) << filled;
        EXPECT_EQ(open(database).found.version, version);
        EXPECT_EQ(valuesOf(tables), before);
        EXPECT_EQ(schema(), wanted);
        QORRdbmsTran tran(ASAccess::Read);
        EXPECT_THAT(QORDBSchema::missingParts(*tran), IsEmpty());
    }
}

}  // namespace
}  // namespace QOR::test
