// Long results of PostgreSQL come row by row, and their end is told from a cut.
#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "libs/rdbmspp/Columns.h"
#include "libs/rdbmspp/PostgresFixture.h"
#include "rdbmspp/sql/ASCursor.h"
#include "support/ResidentMemory.h"

namespace QOR::test {
namespace {

constexpr std::int64_t many = 50'000;

class PostgresLongRead : public PostgresTest {
protected:
    void SetUp() override {
        prepare("CREATE TABLE t AS SELECT i::bigint AS i, lpad(i::text, 200, '0') AS s FROM generate_series(1, " +
                std::to_string(many) + ") i; CREATE VIEW v AS SELECT i, s FROM t");
    }
    /// Reads to the end. \returns how many rows there were
    std::int64_t readOn(ASCursor& cursor) const {
        while (cursor.Fetch()) {
        }
        return cursor.GetAmount();
    }
    void project(ASCursor& cursor) const { cursor.Filter().Project() << i.attribute << s.attribute; }

    ASDomainPtr v = domainOf("v");
    Column i = column(v, "i", ASType::BigInt);
    Column s = column(v, "s");
};

TEST_F(PostgresLongRead, TakesTheMemoryOfAFewRows) {
    for (const ASAccess access : {ASAccess::ReadLong, ASAccess::ReadOne}) {
        QORRdbmsTran transaction(access);
        ASCursor cursor(*transaction);
        project(cursor);
        ASSERT_TRUE(cursor.Fetch());
        const std::size_t before = residentBytes();
        EXPECT_EQ(readOn(cursor), many);
        if (!residentMemoryTells) continue;
        EXPECT_LT(residentBytes(), before + (std::size_t{4} << 20)) << "10 MB of values";
    }
}

TEST_F(PostgresLongRead, RowsAndTheirCountSeeOneState) {
    QORRdbmsTran transaction(ASAccess::ReadLong);
    ASCursor cursor(*transaction);
    project(cursor);
    ASSERT_TRUE(cursor.Fetch());
    engine().run("DELETE FROM t WHERE i > 10");
    EXPECT_EQ(readOn(cursor), many);
    const auto total = std::make_shared<ASInt64>();
    ASGroupAttribute all;
    all.Register(total, v);
    ASCursor count(*transaction);
    count.Filter().Project() << all;
    ASSERT_TRUE(count.Fetch());
    EXPECT_EQ(total->value(), many);
}

/// A connection for long results would be opened for one row.
TEST_F(PostgresLongRead, IsNotWhatOnlyCountsRows) {
    const char* const connections =
        "SELECT count(*) FROM pg_stat_activity WHERE datname = current_database() AND application_name = 'qor'";
    QORRdbmsTran transaction(ASAccess::ReadOne);
    const std::string before = engine().rows(connections).at(0).at(0);
    const auto total = std::make_shared<ASInt64>();
    ASCursor cursor(*transaction);
    project(cursor);
    cursor.Select().Count(total);
    ASSERT_TRUE(cursor.Fetch());
    EXPECT_EQ(total->value(), many);
    EXPECT_FALSE(cursor.Fetch());
    EXPECT_EQ(engine().rows(connections).at(0).at(0), before);
}

TEST_F(PostgresLongRead, OneThatIsCutOffByTheFailureOfAnotherIsAFailure) {
    engine().run("CREATE VIEW bad AS SELECT 1 / (i - i) AS i FROM t");
    QORRdbmsTran transaction(ASAccess::ReadLong);
    ASCursor cursor(*transaction);
    project(cursor);
    ASSERT_TRUE(cursor.Fetch());
    const Column value = column(domainOf("bad"), "i", ASType::BigInt);
    ASCursor other(*transaction);
    other.Filter().Project() << value.attribute;
    EXPECT_EQ(failureOf([&] { readOn(other); }).text(), "division by zero");
    EXPECT_EQ(failureOf([&] { readOn(cursor); }).failure(), ASFailure::Aborted);
}

TEST_F(PostgresLongRead, OneWhoseConnectionIsLostIsAFailure) {
    QORRdbmsTran transaction(ASAccess::ReadLong);
    ASCursor cursor(*transaction);
    project(cursor);
    ASSERT_TRUE(cursor.Fetch());
    engine().rows(
        "SELECT pg_terminate_backend(pid, 60000) FROM pg_stat_activity WHERE datname = current_database()"
        " AND pid <> pg_backend_pid()");
    EXPECT_EQ(failureOf([&] { readOn(cursor); }).failure(), ASFailure::Unreachable);
}

TEST_F(PostgresLongRead, OneThatIsLeftInTheMiddleKeepsNoState) {
    for (int turn = 0; turn < 3; ++turn) {
        QORRdbmsTran transaction(ASAccess::ReadLong);
        ASCursor cursor(*transaction);
        project(cursor);
        ASSERT_TRUE(cursor.Fetch());
    }
    EXPECT_EQ(engine().cell("SELECT count(*) FROM pg_stat_activity WHERE state LIKE 'idle in transaction%'"), "0");
    QORRdbmsTran transaction(ASAccess::ReadLong);
    ASCursor cursor(*transaction);
    project(cursor);
    EXPECT_EQ(readOn(cursor), many);
}

TEST_F(PostgresLongRead, EndsWithItsRequest) {
    engine().run("CREATE VIEW endless AS SELECT a.i, a.s FROM t a, t b, t c");
    const auto control = std::make_shared<QORRequestControl>(std::chrono::milliseconds(300));
    const QORRequestScope scope(control);
    const Column value = column(domainOf("endless"), "i", ASType::BigInt);
    const auto read = [&] {
        QORRdbmsTran transaction(ASAccess::ReadLong);
        ASCursor cursor(*transaction);
        cursor.Filter().Project() << value.attribute;
        readOn(cursor);
    };
    EXPECT_THROW(read(), QORException);
}

}  // namespace
}  // namespace QOR::test
