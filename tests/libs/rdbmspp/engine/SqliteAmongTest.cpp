// Whether a value is one of many GUIDs is answered as a list of them would.
#include <string>
#include <vector>

#include "libs/rdbmspp/DatabaseFixture.h"

namespace QOR::test {
namespace {

class SqliteAmongTest : public DatabaseTest {
protected:
    void SetUp() override { open(""); }
    std::string ask(const std::string& expression) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASStatement& statement = transaction->prepare("SELECT " + expression);
        statement.execute();
        EXPECT_TRUE(statement.fetch());
        return std::string(statement.text(1));
    }
};

std::string guid(int number) {
    return "0123abcd-0000-4000-8000-" + std::to_string(100'000'000'000 + number);
}

TEST_F(SqliteAmongTest, AnswersAsAListDoes) {
    std::string list, items;
    for (int number = 90; number >= 0; number -= 3) {
        list += (list.empty() ? "'" : ", '") + guid(number) + "'";
        items += guid(number);
    }
    std::vector<std::string> values = {"NULL", "''",          "1",
                                       "1.5",  "x'30313233'", "'0123ABCD-0000-4000-8000-100000000000'"};
    for (int number = -1; number <= 91; ++number)
        values.push_back("'" + guid(number) + "'");
    const std::string known = guid(0);
    values.push_back("CAST('" + known + "' AS BLOB)");
    values.push_back("'" + known + "x'");
    values.push_back("'" + known.substr(1) + "'");
    values.push_back("'" + known + "' || char(0)");
    values.push_back("replace('" + known + "', '-', char(0))");
    int inside = 0;
    for (const std::string& value : values) {
        const std::string expected = ask("coalesce(+(" + value + ") IN (" + list + "), 0)");
        EXPECT_EQ(ask("qor_among(" + value + ", '" + items + "')"), expected) << value;
        inside += expected == "1" ? 1 : 0;
    }
    EXPECT_EQ(inside, 31);
    EXPECT_EQ(ask("qor_among('" + known + "', '')"), "0");
}

TEST_F(SqliteAmongTest, AListThatIsNoneIsRefused) {
    EXPECT_THROW(ask("qor_among('a', 'b')"), AException);
    EXPECT_THROW(ask("qor_among('a', NULL)"), AException);
}

}  // namespace
}  // namespace QOR::test
