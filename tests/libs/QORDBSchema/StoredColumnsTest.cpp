#include "QORDBSchema/QORStoredColumns.h"

#include "QORDBSchema/SchemaTable.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::HostDatabase;
using test::runSql;
using Names = std::set<std::string, std::less<>>;

Names storedOf(const std::string& view) {
    QORRdbmsTran tran(ASAccess::Read);
    std::vector<std::string> columns;
    for (const QORViewColumn& column : readViews(*tran)) {
        if (column.view == view) columns.push_back(column.column);
    }
    return storedColumns(*tran, view, columns).names;
}

class StoredColumns : public ::testing::Test {
protected:
    StoredColumns() {
        database.configure();
        runSql(
            "CREATE TABLE t (a int, b nvarchar, c float, d int GENERATED ALWAYS AS (3) VIRTUAL, "
            "e int GENERATED ALWAYS AS (json_extract(b, '$.x')) VIRTUAL, f int GENERATED ALWAYS AS (a + 1) STORED)");
        runSql("CREATE TABLE u (a int, b nvarchar)");
    }
    const HostDatabase database;
};

TEST_F(StoredColumns, AreThoseThatTheTableHolds) {
    runSql("CREATE VIEW v AS SELECT a, b AS \"x\"\"y\", c, d, f FROM t WHERE a > 3 OR b = 'x'");
    EXPECT_EQ(storedOf("v"), (Names{"a", "x\"y", "c", "d", "f"}));
}

TEST_F(StoredColumns, AreNotThoseThatAnybodyComputes) {
    runSql(
        "CREATE VIEW v AS SELECT a, e, a + 1 AS sum, json_extract(b, '$.y') AS doc, CAST(b AS int) AS number, "
        "(SELECT u.a FROM u WHERE json_extract(u.b, '$.z')) AS sub, abs(a) AS size FROM t");
    EXPECT_EQ(storedOf("v"), Names{"a"});
}

TEST_F(StoredColumns, AreNoneWhereTheViewComputesWhichRowsItHas) {
    runSql("CREATE VIEW v AS SELECT a FROM t WHERE json_extract(b, '$.x') = 1");
    EXPECT_EQ(storedOf("v"), Names{});
}

TEST_F(StoredColumns, OfAUnionAreNone) {
    runSql("CREATE VIEW v AS SELECT a, b FROM t UNION ALL SELECT a, b FROM u");
    EXPECT_EQ(storedOf("v"), Names{});
}

TEST_F(StoredColumns, AreSeenThroughViewsOfViewsAndJoins) {
    runSql("CREATE VIEW v1 AS SELECT a, json_extract(b, '$.x') AS x FROM t");
    runSql("CREATE VIEW v AS SELECT v1.a, v1.x, u.b FROM v1 JOIN u ON u.a = v1.a");
    const Names stored = storedOf("v");
    EXPECT_FALSE(stored.contains("x"));
    EXPECT_TRUE(stored.contains("a"));
}

TEST_F(StoredColumns, OfTheHostsOwnViewsAreAll) {
    const HostDatabase own;
    own.open();
    for (const char* const view : {"vEnvironment", "vOpLog", "vEventLog", "vBackupInfo"}) {
        QORRdbmsTran tran(ASAccess::Read);
        Names all;
        for (const QORViewColumn& column : readViews(*tran)) {
            if (column.view == view) all.insert(column.column);
        }
        EXPECT_EQ(storedColumns(*tran, view, {all.begin(), all.end()}).names, all) << view;
    }
}

TEST_F(StoredColumns, OfAViewThatIsNotThereAreNone) {
    QORRdbmsTran tran(ASAccess::Read);
    EXPECT_EQ(storedColumns(*tran, "nowhere", {"a"}).names, Names{});
}

}  // namespace
}  // namespace QOR
