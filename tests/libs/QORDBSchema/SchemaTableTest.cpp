#include "QORDBSchema/SchemaTable.h"

#include "QORCommon/QORLogger.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/sql/ASCursor.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::HostDatabase;
using test::runSql;

std::vector<std::string> describe(const std::vector<QORViewColumn>& columns) {
    std::vector<std::string> texts;
    for (const QORViewColumn& column : columns) {
        texts.push_back(column.view + "." + column.column + ":" + column.type + ":" + std::to_string(column.length));
    }
    return texts;
}

std::vector<std::string> viewsOfDatabase() {
    QORRdbmsTran tran(ASAccess::Read);
    return describe(readViews(*tran));
}

struct TypeCase {
    const char* rule;
    const char* declared;
    const char* type;
    int length;
};

class DeclaredTypes : public ::testing::TestWithParam<TypeCase> {};

TEST_P(DeclaredTypes, AreSplitIntoNameAndLength) {
    const HostDatabase database;
    database.configure();
    runSql(std::string("CREATE TABLE t (c ") + GetParam().declared + ")");
    runSql("CREATE VIEW v AS SELECT c FROM t");
    EXPECT_EQ(viewsOfDatabase(), (std::vector<std::string>{std::string("v.c:") + GetParam().type + ":" +
                                                           std::to_string(GetParam().length)}));
}

INSTANTIATE_TEST_SUITE_P(All, DeclaredTypes,
                         ::testing::Values(TypeCase{"WithLength", "nvarchar(64)", "nvarchar", 64},
                                           TypeCase{"WithoutLength", "nvarchar", "nvarchar", 0},
                                           TypeCase{"InLowerCase", "VarChar(8)", "varchar", 8},
                                           TypeCase{"WithBlanks", "char ( 12 )", "char", 12},
                                           TypeCase{"WithPrecisionAndScale", "decimal(10,2)", "decimal", 10},
                                           TypeCase{"StandardInt", "int", "int", 0},
                                           TypeCase{"WithANegativeLength", "nvarchar(-1)", "nvarchar", 0},
                                           TypeCase{"BeyondThirtyOneBits", "nvarchar(4294967296)", "nvarchar", 0},
                                           TypeCase{"LargestLength", "nvarchar(2147483647)", "nvarchar", 2147483647},
                                           TypeCase{"OfTwoWords", "double precision", "double precision", 0},
                                           TypeCase{"Unknown", "money", "money", 0}, TypeCase{"Missing", "", "", 0}),
                         [](const auto& tested) { return tested.param.rule; });

TEST(SchemaTableTest, ColumnsComeByViewNameAndPlaceInTheView) {
    const HostDatabase database;
    database.configure();
    runSql("CREATE TABLE t (z int, a int, m int)");
    runSql("CREATE VIEW zz AS SELECT m, a FROM t");
    runSql("CREATE VIEW \"Aa\" AS SELECT z, a, m FROM t");
    runSql("CREATE VIEW \"a view\" AS SELECT 1 AS one, a AS \"with \"\" quote\" FROM t");
    EXPECT_EQ(viewsOfDatabase(), (std::vector<std::string>{"Aa.z:int:0", "Aa.a:int:0", "Aa.m:int:0", "a view.one::0",
                                                           "a view.with \" quote:int:0", "zz.m:int:0", "zz.a:int:0"}));
}

TEST(SchemaTableTest, TablesAreNotListed) {
    const HostDatabase database;
    database.configure();
    runSql("CREATE TABLE t (a int)");
    EXPECT_TRUE(viewsOfDatabase().empty());
}

TEST(SchemaTableTest, AViewOfItsOwnNameIsNotListed) {
    const HostDatabase database;
    database.configure();
    runSql("CREATE TABLE t (a int)");
    runSql("CREATE VIEW schematable AS SELECT a FROM t");
    EXPECT_TRUE(viewsOfDatabase().empty());
}

TEST(SchemaTableTest, ABrokenViewIsLoggedAndLeftOut) {
    const HostDatabase database;
    database.configure();
    runSql("CREATE TABLE t (a int)");
    runSql("CREATE TABLE gone (b int)");
    runSql("CREATE VIEW first AS SELECT a FROM t");
    runSql("CREATE VIEW \"it's broken\" AS SELECT b FROM gone");
    runSql("CREATE VIEW last AS SELECT a FROM t");
    runSql("DROP TABLE gone");
    std::vector<std::string> lines;
    setLogSink([&](const QORLogRecord& record) { lines.emplace_back(record.text); });
    const auto views = viewsOfDatabase();
    setLogSink({});
    EXPECT_EQ(views, (std::vector<std::string>{"first.a:int:0", "last.a:int:0"}));
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find("it's broken"), std::string::npos) << lines.back();
}

TEST(SchemaTableTest, SixAttributesAreProjectedInOrderEachIntoItsDataObject) {
    const HostDatabase database;
    database.configure();
    runSql("CREATE TABLE t (a nvarchar(7))");
    runSql("CREATE VIEW v AS SELECT a FROM t");
    QORRdbmsTran tran(ASAccess::ReadOne);
    const SchemaTable table;
    EXPECT_EQ(table.metaData.domain()->name(), "SchemaTable");
    ASCursor cursor(*tran);
    selectAllAttributes(cursor.Filter().Project(), table);
    EXPECT_EQ(cursor.Query().find("SELECT \"SchemaTable\".\"viewName\", \"SchemaTable\".\"name\", "
                                  "\"SchemaTable\".\"type\", \"SchemaTable\".\"length\", \"SchemaTable\".\"charSet\", "
                                  "\"SchemaTable\".\"collation\" FROM (SELECT "),
              0U)
        << cursor.Query();
    ASSERT_TRUE(cursor.Fetch());
    EXPECT_EQ(table.metaData.viewName->Str(), "v");
    EXPECT_EQ(table.metaData.name->Str(), "a");
    EXPECT_EQ(table.metaData.type->Str(), "nvarchar");
    EXPECT_EQ(table.metaData.length->value(), 7);
    EXPECT_EQ(table.metaData.charSet->Str(), "UTF-8");
    EXPECT_EQ(table.metaData.collation->Str(), "BINARY");
    EXPECT_FALSE(cursor.Fetch());
}

}  // namespace
}  // namespace QOR
