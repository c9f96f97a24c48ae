// Which columns PostgreSQL reads without computing anything, which only its plans tell.
#include "QORDBSchema/QORStoredColumns.h"

#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/SchemaTable.h"
#include "libs/rdbmspp/PostgresFixture.h"

namespace QOR::test {
namespace {

using Names = std::set<std::string, std::less<>>;

class PostgresStoredColumns : public PostgresTest {
protected:
    void SetUp() override {
        prepare(
            "CREATE TABLE t (a int, b varchar(20), c text COLLATE \"C\", d uuid, n numeric, o smallint, \"wei\"\"rd\" "
            "int, "
            "g int GENERATED ALWAYS AS (a + 1) STORED, j jsonb, z timestamptz, at timestamp(0));"
            "CREATE TABLE u (a int);"
            "CREATE FUNCTION f(x int) RETURNS int LANGUAGE plpgsql AS 'BEGIN RETURN x; END'");
    }
    /// Of a view of this select.
    QORStoredColumns reading(const std::string& select, const char* kind = "VIEW") {
        engine().run(std::string("DROP VIEW IF EXISTS v; CREATE ") + kind + " AS " + select);
        return readingOf(std::string(kind).ends_with(" m") ? "m" : "v");
    }
    static QORStoredColumns readingOf(const std::string& view) {
        QORRdbmsTran tran(ASAccess::Read);
        std::vector<std::string> columns;
        for (const QORViewColumn& column : readViews(*tran)) {
            if (column.view == view) columns.push_back(column.column);
        }
        return storedColumns(*tran, view, columns);
    }
    Names names(const std::string& select) { return reading(select, "VIEW v").names; }
    bool handsOut(const std::string& select) { return reading(select, "VIEW v").handsOutOnly; }
};

TEST_F(PostgresStoredColumns, AreThoseOfTheTableAndConstantNumbers) {
    EXPECT_EQ(names("SELECT a, b, c, d, o, g, at, \"wei\"\"rd\" AS odd, a AS twice, 7::int AS seven FROM t"),
              (Names{"a", "b", "c", "d", "o", "g", "at", "odd", "twice", "seven"}));
    EXPECT_TRUE(handsOut("SELECT a, b, c, d, o, g, at, \"wei\"\"rd\" AS odd, a AS twice, 7::int AS seven FROM t"));
}

TEST_F(PostgresStoredColumns, WhoseComparisonsMayFailAreHandedOutButNotCompared) {
    const QORStoredColumns columns = reading("SELECT a, n, j, z FROM t", "VIEW v");
    EXPECT_EQ(columns.names, Names{"a"});
    EXPECT_TRUE(columns.handsOutOnly);
}

TEST_F(PostgresStoredColumns, AreNotWhatTheViewComputes) {
    EXPECT_EQ(names("SELECT a, a + 1 AS b, lower(c) AS c, o::int AS o, b::text AS t FROM t"), Names{"a"});
    for (const char* const computed :
         {"a + 1", "f(a)", "set_config('default_transaction_read_only', 'off', false)", "(SELECT max(a) FROM u)"}) {
        const QORStoredColumns columns = reading("SELECT a, " + std::string(computed) + " AS x FROM t", "VIEW v");
        EXPECT_FALSE(columns.names.contains("x")) << computed;
        EXPECT_FALSE(columns.handsOutOnly) << computed;
    }
    EXPECT_EQ(names("SELECT a, 'x'::text AS x, -1 AS less, 5::bigint AS big, NULL::int AS none FROM t"), Names{"a"});
}

// The engine writes such a column like the one that it is made of.
TEST_F(PostgresStoredColumns, AreNotWhatIsConvertedInSilence) {
    EXPECT_EQ(names("SELECT CASE WHEN true THEN o ELSE a END AS x, a FROM t"), Names{"a"});
    EXPECT_EQ(names("SELECT o AS a FROM t UNION ALL SELECT a FROM t"), Names{});
    EXPECT_EQ(names("SELECT b::varchar(5) AS b, a FROM t"), Names{"a"});
}

TEST_F(PostgresStoredColumns, AreNoneWhereMoreIsDoneThanScanningOneTable) {
    for (const char* const select :
         {"SELECT a FROM t WHERE a > 3", "SELECT a FROM t WHERE f(a) > 3", "SELECT t.a FROM t JOIN u ON u.a = t.a",
          "SELECT DISTINCT a FROM t", "SELECT a FROM t ORDER BY f(a)", "SELECT a FROM t LIMIT 5", "SELECT 1 AS a",
          "SELECT a, generate_series(1, 2) AS x FROM t", "SELECT f AS a FROM f(1)",
          "SELECT a FROM t TABLESAMPLE system (50)", "SELECT a FROM t UNION ALL SELECT a FROM u",
          "SELECT a FROM t FOR UPDATE", "WITH w AS MATERIALIZED (SELECT a FROM t) SELECT a FROM w"}) {
        const QORStoredColumns columns = reading(select, "VIEW v");
        EXPECT_EQ(columns.names, Names{}) << select;
        EXPECT_FALSE(columns.handsOutOnly) << select;
    }
}

TEST_F(PostgresStoredColumns, AreNoneWhereRowsAreGuarded) {
    engine().run(
        "CREATE ROLE reader LOGIN; GRANT SELECT ON t TO reader; ALTER TABLE t ENABLE ROW LEVEL SECURITY;"
        "CREATE POLICY own ON t USING (f(a) > 1); CREATE VIEW v WITH (security_invoker) AS SELECT a FROM t;"
        "GRANT SELECT ON v TO reader");
    EXPECT_TRUE(readingOf("v").handsOutOnly) << "to the owner they are not";
    ASDatabaseOptions reader = options();
    reader.connectionString.replace(reader.connectionString.find("UID=qor"), 7, "UID=reader");
    QORRdbms::instance().configure(reader);
    EXPECT_FALSE(readingOf("v").handsOutOnly);
    QORRdbms::instance().shutdown();
    engine().run("DROP OWNED BY reader; DROP ROLE reader");
}

TEST_F(PostgresStoredColumns, AreSeenThroughViewsOfViews) {
    engine().run("CREATE VIEW inner_one AS SELECT a, a * 2 AS x, c FROM t");
    EXPECT_EQ(names("SELECT a AS first, x, c FROM inner_one"), (Names{"first", "c"}));
}

TEST_F(PostgresStoredColumns, OfAMaterialisedViewAreItsOwn) {
    const QORStoredColumns columns = reading("SELECT a + 1 AS a, lower(c) AS \"C\" FROM t", "MATERIALIZED VIEW m");
    EXPECT_EQ(columns.names, (Names{"a", "C"}));
    EXPECT_TRUE(columns.handsOutOnly);
    EXPECT_EQ(names("SELECT a FROM m"), Names{"a"});
}

TEST_F(PostgresStoredColumns, OfALargeTableAreThoseOfASmallOne) {
    engine().run(
        "INSERT INTO t (a) SELECT i FROM generate_series(1, 100000) i; CREATE INDEX ON t (a); ANALYZE t;"
        "ALTER DATABASE " +
        database.name() + " SET min_parallel_table_scan_size = 0; ALTER DATABASE " + database.name() +
        " SET parallel_setup_cost = 0; ALTER DATABASE " + database.name() + " SET enable_seqscan = off");
    open();
    EXPECT_EQ(names("SELECT a FROM t"), Names{"a"});
}

TEST_F(PostgresStoredColumns, OfTheHostsOwnViewsAreAll) {
    engine().run("DROP TABLE t, u CASCADE; DROP FUNCTION f");
    QORDBSchema::open(options(), QORSchemaMode::Own);
    for (const char* const view : {"vEnvironment", "vOpLog", "vEventLog", "vBackupInfo"}) {
        EXPECT_TRUE(readingOf(view).handsOutOnly) << view;
        Names all;
        QORRdbmsTran tran(ASAccess::Read);
        for (const QORViewColumn& column : readViews(*tran)) {
            if (column.view == view && column.type != "image") all.insert(column.column);
        }
        EXPECT_EQ(readingOf(view).names, all) << view;
    }
}

TEST_F(PostgresStoredColumns, OfAViewThatCannotBeReadAreNone) {
    QORRdbmsTran tran(ASAccess::Read);
    EXPECT_FALSE(storedColumns(*tran, "nowhere", {"a"}).handsOutOnly);
}

// The engine lets only leak-proof conditions below the barrier of a view; those of these types it has to let there.
TEST_F(PostgresStoredColumns, AreOfTypesWhoseComparisonsTheEngineCallsLeakProof) {
    auto connection = engine();
    connection.run(
        "CREATE TABLE k (int2 int2, int4 int4, int8 int8, float4 float4, float8 float8, text text, varchar varchar(9), "
        "uuid uuid, timestamp timestamp(0));"
        "CREATE VIEW v AS SELECT * FROM k; CREATE VIEW barrier WITH (security_barrier) AS SELECT * FROM k");
    const Names stored = readingOf("v").names;
    EXPECT_EQ(stored.size(), 9U);
    const auto plan = [&](const std::string& condition) {
        std::string text;
        for (const auto& row : connection.rows("EXPLAIN (COSTS OFF) SELECT 1 FROM barrier WHERE " + condition))
            text += row.at(0) + "\n";
        return text;
    };
    EXPECT_THAT(plan("sqrt(float8) = 1"), ::testing::HasSubstr("on barrier\n  Filter")) << "the test would notice";
    for (const std::string& column : stored) {
        const bool text = column == "text" || column == "varchar";
        const std::string type = text ? "text" : column.starts_with("int") ? "bigint" : column;
        const std::string value = type == "uuid"        ? "'aaaaaaaa-0000-4000-8000-000000000001'"
                                  : type == "timestamp" ? "'2024-01-01 00:00:00'"
                                                        : "'1'";
        for (const char* const op : {"=", "<>", "<", "<=", ">", ">="}) {
            const std::string order = text && op[0] != '=' && std::string(op) != "<>" ? " COLLATE \"C\" " : " ";
            EXPECT_THAT(plan("\"" + column + "\"" + order + op + " CAST(" + value + " AS " + type + ")"),
                        ::testing::Not(::testing::HasSubstr("on barrier\n  Filter")))
                << column << op;
        }
    }
}

}  // namespace
}  // namespace QOR::test
