// Transactions for results of any length: rows come as they are fetched, and what belongs together sees one state.
#include "libs/rdbmspp/DatabaseFixture.h"
#include "rdbmspp/engine/ASDialect.h"
#include "support/ResidentMemory.h"

namespace QOR::test {
namespace {

constexpr const char* manyRows =
    "CREATE TABLE t (i INTEGER PRIMARY KEY, s varchar(200)); CREATE VIEW v AS SELECT i, s FROM t;"
    "WITH RECURSIVE r(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM r WHERE i < 100000)"
    "INSERT INTO t SELECT i, printf('%0200d', i) FROM r;";

class LongRead : public DatabaseTest {
protected:
    LongRead() { open(manyRows); }

    static std::int64_t count(ASSession& session, const ASDomainPtr& domain) {
        const auto total = std::make_shared<ASInt64>();
        ASGroupAttribute all;
        all.Register(total, domain);
        ASCursor cursor(session);
        cursor.Filter().Project() << all;
        EXPECT_TRUE(cursor.Fetch());
        return total->value();
    }

    ASDomainPtr v = domainOf("v");
    Column i = column(v, "i", ASType::BigInt);
    Column s = column(v, "s");
};

TEST_F(LongRead, RowsAndTheirCountSeeOneStateWhateverIsWrittenMeanwhile) {
    QORRdbmsTran transaction(ASAccess::ReadLong);
    ASCursor cursor(*transaction);
    cursor.Filter().Project() << i.attribute;
    ASSERT_TRUE(cursor.Fetch());
    Engine(path()).run("DELETE FROM t WHERE i > 10; INSERT INTO t VALUES (1000000, 'new')");
    std::int64_t rows = 1;
    while (cursor.Fetch())
        ++rows;
    EXPECT_EQ(rows, 100'000);
    EXPECT_EQ(count(*transaction, v), 100'000);
}

TEST_F(LongRead, TheNextOneSeesWhatWasWritten) {
    for (const int expected : {100'000, 10}) {
        QORRdbmsTran transaction(ASAccess::ReadLong);
        EXPECT_EQ(count(*transaction, v), expected);
        Engine(path()).run("DELETE FROM t WHERE i > 10");
    }
}

TEST_F(LongRead, TakesTheMemoryOfAFewRows) {
    QORRdbmsTran transaction(ASAccess::ReadLong);
    ASCursor cursor(*transaction);
    cursor.Filter().Project() << i.attribute << s.attribute;
    ASSERT_TRUE(cursor.Fetch());
    const std::size_t before = test::residentBytes();
    while (cursor.Fetch()) {
    }
    EXPECT_EQ(cursor.GetAmount(), 100'000);
    if (!test::residentMemoryTells) return;
    EXPECT_LT(test::residentBytes(), before + (std::size_t{8} << 20)) << "20 MB of values";
}

TEST_F(LongRead, OneThatIsLeftInTheMiddleKeepsNoState) {
    for (int turn = 0; turn < 3; ++turn) {
        QORRdbmsTran transaction(ASAccess::ReadLong);
        ASCursor cursor(*transaction);
        cursor.Filter().Project() << i.attribute;
        ASSERT_TRUE(cursor.Fetch());
    }
    Engine engine(path());
    engine.run("DELETE FROM t WHERE i > 10");
    EXPECT_EQ(engine.rows("PRAGMA wal_checkpoint(TRUNCATE)").front().front(), "0") << "no reader holds it up";
    QORRdbmsTran transaction(ASAccess::ReadLong);
    EXPECT_EQ(count(*transaction, v), 10);
}

TEST_F(LongRead, ADatabaseInMemoryReadsItTheUsualWay) {
    ASDatabaseOptions memory = options();
    memory.connectionString = "Driver=SQLite3;Database=:memory:";
    QORRdbms::instance().configure(memory);
    {
        QORRdbmsTran write(ASAccess::Write);
        write->execute("CREATE TABLE t (i INTEGER)");
        write->execute("CREATE VIEW v AS SELECT i FROM t");
        write->execute("INSERT INTO t VALUES (1), (2)");
        write.commit();
    }
    QORRdbmsTran transaction(ASAccess::ReadLong);
    EXPECT_EQ(count(*transaction, v), 2);
}

TEST(LongResult, IsOneOfManyRowsOrOfSomeDocuments) {
    EXPECT_TRUE(ASCursor::isLong(0, 999));
    EXPECT_TRUE(ASCursor::isLong(-1, 999));
    EXPECT_FALSE(ASCursor::isLong(999, 999));
    EXPECT_TRUE(ASCursor::isLong(1000, 999));
    const ASDialect& sqlite = ASDialect::of(ASEngine::SQLite);
    const ASDialect& postgres = ASDialect::of(ASEngine::PostgreSQL);
    EXPECT_EQ(ASCursor::rowsAtOnce(ASRealBlob(), sqlite), 15);
    EXPECT_EQ(ASCursor::rowsAtOnce(ASVStr(1), sqlite), 15);
    EXPECT_EQ(ASCursor::rowsAtOnce(ASVStr(21), sqlite), 999);
    EXPECT_EQ(ASCursor::rowsAtOnce(ASInt(), sqlite), 999);
    EXPECT_EQ(ASCursor::rowsAtOnce(ASRealBlob(), postgres), 15);
    EXPECT_EQ(ASCursor::rowsAtOnce(ASVStr(1), postgres), 100) << "texts there have no declared length as a rule";
    EXPECT_EQ(ASCursor::rowsAtOnce(ASVStr(21), postgres), 999);
}

}  // namespace
}  // namespace QOR::test
