// What the linter calls always false has no rows, whatever the rows are: generated conditions over generated rows,
// asked of the operator on each engine.
#include "QORQuery/QORConditionLint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "QORMessage/QORMessage.h"
#include "plugins/QORPager/Operators/Pager2/PeopleDatabase.h"

namespace QOR::test {
namespace {

using Words = std::vector<std::string>;

struct Column {
    const char* name;
    const char* sqliteType;
    const char* postgresType;
    Words values;  ///< few, so that conditions often contradict themselves, and often do not
};

const std::vector<Column>& columns() {
    static const std::vector<Column> all{
        {"n", "int", "int", {"1", "2", "3", "007"}},
        {"b", "bigint", "bigint", {"1", "9007199254740993", "9007199254740992", "-1"}},
        {"d", "float", "float8", {"1.5", "1.25", "2", "1.50"}},
        {"x", "decimal", "numeric", {"0.1", "0.10", "123456789012345678.25", "123456789012345678.26"}},
        {"s", "nvarchar(20)", "varchar(20)", {"a", "A", "b", "a ", "1", "1.0", "", "null"}},
        {"t", "datetime", "timestamp", {"2024-05-01 00:00:00", "2024-05-01", "2024-05-01T00:00:00Z", "2024-05-02"}},
        {"g",
         "uniqueidentifier",
         "uuid",
         {"aaaaaaaa-0000-0000-0000-000000000001", "{AAAAAAAA-0000-0000-0000-000000000001}",
          "bbbbbbbb-0000-0000-0000-000000000002"}},
    };
    return all;
}

class Dice {
public:
    explicit Dice(std::uint64_t seed) : m_dice(seed) {}
    std::size_t number(std::size_t below) { return m_dice() % below; }
    bool chance(std::size_t percent) { return number(100) < percent; }
    template <class T>
    const T& pick(const std::vector<T>& from) {
        return from[number(from.size())];
    }

private:
    std::mt19937_64 m_dice;
};

class Conditions {
public:
    explicit Conditions(std::uint64_t seed) : m_dice(seed) {}

    std::string condition(int depth) {
        const std::size_t kind = depth > 0 ? m_dice.number(10) : 9;
        if (kind < 2) return element("not", condition(depth - 1));
        if (kind > 6) return comparison();
        std::string terms = condition(depth - 1);
        for (std::size_t more = 1 + m_dice.number(2); more > 0; --more)
            terms += "," + condition(depth - 1);
        return element(kind < 5 ? "and" : "or", terms);
    }

private:
    static std::string leaf(const char* name, const std::string& text) {
        return std::string("[\"") + name + "\",\"" + text + "\"]";
    }
    static std::string element(const char* name, const std::string& children) {
        return std::string("[\"") + name + "\",[" + children + "]]";
    }
    std::string operand(const Column& column) {
        const std::string field = leaf("field", column.name);
        if (!m_dice.chance(15)) return field;
        return element("function", leaf("name", m_dice.chance(50) ? "upper" : "lower") + "," + field);
    }
    std::string value(const Column& column) { return leaf("value", m_dice.pick(column.values)); }

    std::string comparison() {
        const Column& column = m_dice.chance(60) ? columns()[m_dice.number(2)] : m_dice.pick(columns());
        const std::string left = operand(column);
        switch (m_dice.number(9)) {
            case 0:
                return element("is_null", left);
            case 1:
                return element("between", left + "," + value(column) + "," + value(column));
            case 2:
                return element("in", left + "," + value(column) + (m_dice.chance(50) ? "," + value(column) : ""));
            case 3:
                return element("like", left + "," + leaf("value", m_dice.chance(50) ? "a%" : "%"));
            default: {
                static const Words operators{"eq", "eq", "ne", "lt", "le", "gt", "ge"};
                const std::string other = m_dice.chance(10) ? operand(column) : value(column);
                const bool turned = m_dice.chance(30);
                return element(m_dice.pick(operators).c_str(), turned ? other + "," + left : left + "," + other);
            }
        }
    }

    Dice m_dice;
};

class Lint : public Pager2Test {
protected:
    static void SetUpTestSuite() {
        PeopleDatabase& people = PeopleDatabase::instance();
        DirectDatabase& direct = people.direct;
        std::string table = "create table lint(id int";
        for (const Column& column : columns())
            table += std::string(", ") + column.name + " " + oneOf(column.sqliteType, column.postgresType);
        direct.run(table + "); create view \"vLint\" as select * from lint;");
        Dice dice(7);
        for (int id = 0; id < 300; ++id) {
            std::string row = "insert into lint values (" + std::to_string(id);
            for (const Column& column : columns())
                row += dice.chance(15) ? std::string(", null") : ", '" + dice.pick(column.values) + "'";
            direct.run(row + ");");
        }
        people.reopen();
        forgetMetadata();
    }
};

bool isCalledFalse(const std::string& condition) {
    QORMessage message;
    readElement(condition, message);
    QORConditionFacts facts;
    facts.view = "vLint";
    facts.types = [](std::string_view, std::string_view name) {
        for (const Column& column : columns())
            if (name == column.name) return std::string(column.sqliteType);
        return std::string();
    };
    const auto warnings = lintCondition(message.rootNode()->firstChild, facts);
    return std::any_of(warnings.begin(), warnings.end(),
                       [](const QORConditionWarning& warning) { return warning.code == "always_false"; });
}

TEST_F(Lint, WhatIsCalledAlwaysFalseHasNoRows) {
    const char* const seed = std::getenv("QOR_LINT_SEED");
    Conditions conditions(seed != nullptr ? std::strtoull(seed, nullptr, 10) : 1);
    int called = 0;
    int empty = 0;
    constexpr int asked = 4000;
    for (int i = 0; i < asked; ++i) {
        const std::string condition = conditions.condition(3);
        const bool isFalse = isCalledFalse(condition);
        called += isFalse ? 1 : 0;
        if (!isFalse && i % 8 != 0) continue;
        const std::string answer =
            client.ask(R"(["select",[["view","vLint"],["field","id"],["where",[)" + condition + "]]]]");
        const QORResponse response = readResponse(answer);
        if (response.error) continue;
        const bool none = valuesOf(answer).empty();
        empty += none ? 1 : 0;
        EXPECT_TRUE(!isFalse || none) << condition << answer;
    }
    EXPECT_GT(called, asked / 20) << "of so few nothing is proved";
    EXPECT_LT(called, asked / 2);
    EXPECT_GE(empty, called / 2);
}

}  // namespace
}  // namespace QOR::test
