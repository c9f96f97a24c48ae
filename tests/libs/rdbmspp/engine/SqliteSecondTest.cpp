// The second of a stored time is what the engine itself makes of it, and nothing is made of any other text.
#include <string>

#include "libs/rdbmspp/DatabaseFixture.h"

namespace QOR::test {
namespace {

class SqliteSecondTest : public DatabaseTest {
protected:
    void SetUp() override { open(""); }
    std::string ask(const std::string& expression) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASStatement& statement = transaction->prepare("SELECT coalesce(" + expression + ", 'none')");
        statement.execute();
        EXPECT_TRUE(statement.fetch());
        return std::string(statement.text(1));
    }
    static std::string engines(const std::string& time) {
        return "CASE WHEN " + time + " = datetime(" + time + ") THEN CAST(strftime('%s', " + time + ") AS INTEGER) END";
    }
};

TEST_F(SqliteSecondTest, IsThatOfTheEngineForTimesOfTheStoredForm) {
    for (const char* const time :
         {"'1970-01-01 00:00:00'", "'1969-12-31 23:59:59'", "'2024-02-29 12:34:56'", "'0000-01-01 00:00:00'",
          "'9999-12-31 23:59:59'", "'1900-03-01 00:00:00'", "'2024-02-30 00:00:00'", "'2023-02-31 24:59:59'"}) {
        EXPECT_NE(ask("qor_second(" + std::string(time) + ")"), "none") << time;
        EXPECT_EQ(ask("qor_second(" + std::string(time) + ")"), ask(engines(time))) << time;
    }
}

TEST_F(SqliteSecondTest, IsNoneForAnythingElse) {
    for (const char* const time :
         {"NULL", "''", "0", "2450000.12345678901", "'2450000.12345678901'", "'now'", "'2024-13-01 00:00:00'",
          "'2024-02-32 00:00:00'", "'2024-00-01 00:00:00'", "'2024-02-29T12:34:56'", "'2024-02-29 25:00:00'",
          "'2024-02-29 12:34:60'", "'2024-02-29 12:34:56Z'", "'2024-02-29 12:34:56.5'", "'12:00:00.0123456789'",
          "'2024-02-29 12:34   '", "' 024-02-29 12:34:56'", "x'323032342d30322d32392031323a33343a3536'",
          "'2024-02-29 12:34:5' || char(0)"}) {
        EXPECT_EQ(ask("qor_second(" + std::string(time) + ")"), "none") << time;
        EXPECT_EQ(ask(std::string("typeof(") + time + ") = 'text' AND " + engines(time) + " IS NOT NULL"), "0") << time;
    }
}

}  // namespace
}  // namespace QOR::test
