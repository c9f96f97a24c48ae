// Conditions that are long or deep: they have to reach the engine in a form that it takes, and mean the same.
#include <functional>
#include <optional>
#include <random>

#include "libs/rdbmspp/EngineFixture.h"

namespace QOR::test {
namespace {

class ASCondition : public EngineTest {
protected:
    void prepareDatabase() override {
        open(
            "CREATE TABLE t (a INT, b NVARCHAR(20));"
            "INSERT INTO t WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 49)"
            " SELECT CASE WHEN i % 10 = 9 THEN NULL ELSE i END, 'name' || i FROM n;"
            "CREATE VIEW v AS SELECT a, b FROM t");
    }
    ASDomainPtr v = domainOf("v");
    Column a = column(v, "a", ASType::Int);
    Column b = column(v, "b");

    ASComparison is(int value) const { return a.attribute == ASInt(value); }
    std::size_t count(const ASComparison& condition) const { return select(b.attribute, condition).size(); }
};

TEST_P(ASCondition, ChainsOfThousandsAreTaken) {
    for (const int length : {100, 101, 1000, 10000}) {
        ASComparison any;
        ASComparison all;
        for (int i = 0; i < length; ++i) {
            any = std::move(any) || is(1000 + i);
            all = all && (a.attribute != ASInt(1000 + i));  // copied each time, as callers do
        }
        EXPECT_EQ(count(any || is(3)), 1u) << length;
        EXPECT_EQ(count(all && (a.attribute < ASInt(3))), 3u) << length;
        EXPECT_EQ(count(!(any || is(3))), 44u) << length;  // all but one of those that are not null
    }
}

/// What a tree is worth for a row, computed beside the tree; empty stands for unknown.
using Worth = std::function<std::optional<bool>(std::optional<int>)>;
struct Tree {
    ASComparison condition;
    Worth worth;
};

std::optional<bool> both(std::optional<bool> x, std::optional<bool> y) {
    if ((x && !*x) || (y && !*y)) return false;
    return x && y ? std::optional(true) : std::nullopt;
}

std::optional<bool> negated(std::optional<bool> x) {
    return x ? std::optional(!*x) : std::nullopt;
}

class TreeMaker {
public:
    TreeMaker(const ASAttribute& attribute, unsigned seed) : m_attribute(attribute), m_random(seed) {}

    Tree leaf() {
        const int value = static_cast<int>(m_random() % 50);
        switch (m_random() % 6) {
            case 0:
                return {m_attribute == ASInt(value), compared(value, std::equal_to<>())};
            case 1:
                return {m_attribute >= ASInt(value), compared(value, std::greater_equal<>())};
            case 2:
                return {m_attribute < ASInt(value), compared(value, std::less<>())};
            case 3:
                return {ASAttribute::IsNull(m_attribute), [](auto row) { return !row.has_value(); }};
            case 4:
                return {ASAttribute::In(m_attribute, std::to_string(value) + ", 7"),
                        [value](auto row) { return row ? std::optional(*row == value || *row == 7) : std::nullopt; }};
            default:
                return {ASAttribute::Between(m_attribute, raw(value), raw(value + 10)), [value](auto row) {
                            return row ? std::optional(*row >= value && *row <= value + 10) : std::nullopt;
                        }};
        }
    }

    /// As deep as asked for in one place, shallow in the others.
    Tree tree(int depth) {
        if (depth <= 0) return leaf();
        const auto kind = m_random() % 3;
        if (kind == 2) {
            const Tree inner = tree(depth - 1);
            return {!inner.condition, [w = inner.worth](auto row) { return negated(w(row)); }};
        }
        const auto width = 2 + m_random() % 3;
        const auto deep = m_random() % width;
        Tree result;
        for (std::size_t i = 0; i < width; ++i) {
            const Tree next = i == deep ? tree(depth - 1) : tree(static_cast<int>(m_random() % 2));
            if (i == 0) {
                result = next;
            } else if (kind == 0) {
                result = {result.condition && next.condition,
                          [x = result.worth, y = next.worth](auto row) { return both(x(row), y(row)); }};
            } else {
                result = {result.condition || next.condition, [x = result.worth, y = next.worth](auto row) {
                              return negated(both(negated(x(row)), negated(y(row))));
                          }};
            }
        }
        return result;
    }

private:
    static ASAttribute raw(int value) { return {ASAttribute::Raw::Expression, std::to_string(value)}; }
    template <class Operator>
    static Worth compared(int value, Operator op) {
        return [=](auto row) { return row ? std::optional<bool>(op(*row, value)) : std::nullopt; };
    }
    ASAttribute m_attribute;
    std::minstd_rand m_random;
};

TEST_P(ASCondition, TreesMeanTheSameHoweverDeepTheyAre) {
    for (unsigned seed = 0; seed < 150; ++seed) {
        TreeMaker maker(a.attribute, seed);
        const Tree tree = maker.tree(static_cast<int>(seed % 60));
        std::vector<std::string> expected;
        for (int i = 0; i < 50; ++i) {
            const auto worth = tree.worth(i % 10 == 9 ? std::nullopt : std::optional(i));
            if (worth && *worth) expected.push_back("name" + std::to_string(i));
        }
        ASSERT_EQ(select(b.attribute, tree.condition), expected) << "seed " << seed << ": " << tree.condition.Query();
    }
}

TEST_P(ASCondition, FortyLevelsOfEveryShapeAreTaken) {
    const auto nest = [&](auto step) {
        ASComparison condition = is(3);
        for (int level = 0; level < 40; ++level)
            condition = step(condition, level);
        return condition;
    };
    const ASComparison yes("1 = 1"), no("1 = 0");
    EXPECT_EQ(count(nest([&](const auto& c, int i) { return i % 2 ? yes && c : no || c; })), 1u);
    EXPECT_EQ(count(nest([&](const auto& c, int i) { return i % 2 ? c && yes : c || no; })), 1u);
    EXPECT_EQ(count(nest([&](const auto& c, int i) { return i % 2 ? !(yes && c) : !(c || no); })), 1u);
    EXPECT_EQ(count(nest([&](const auto& c, int i) { return i % 2 ? (yes && c) && yes : (no || c) || no; })), 1u);
    EXPECT_EQ(count(nest([&](const auto& c, int) { return !c; })), 1u);
}

TEST_P(ASCondition, WideChainsAtEveryOfFortyLevelsAreTaken) {
    ASComparison condition = is(3);
    for (int level = 0; level < 40; ++level) {
        ASComparison wide;
        for (int i = 0; i < 60; ++i)
            wide = level % 2 ? wide && ASComparison("1 = 1") : wide || ASComparison("1 = 0");
        condition = level % 2 ? wide && condition : wide || condition;
    }
    EXPECT_EQ(count(condition), 1u);
}

TEST_P(ASCondition, NestedSelectsAreTakenAsDeepAsTheEngineDoes) {
    ASComparison condition = is(3);
    ASComparison ofTexts = is(3);
    for (int level = 0; level < 10; ++level) {
        ASSelect inner;
        inner.Filter().Project() << a.attribute;
        inner.Filter().Set(condition);
        condition = ASAttribute::In(a.attribute, ASAttribute(std::make_shared<const ASNestedSelect>(inner, dialect())));
        inner.Filter().Set(ofTexts);
        ofTexts = ASAttribute::In(a.attribute, inner.Query(dialect()));
    }
    EXPECT_EQ(condition.Query(dialect()), ofTexts.Query(dialect()));
    for (const ASComparison& each : {condition, ofTexts})
        EXPECT_EQ(select(b.attribute, each), std::vector<std::string>{"name3"});
}

TEST_P(ASCondition, NestedSelectsThatAreTooDeepAreRefusedInOurWords) {
    if (isPostgres()) GTEST_SKIP() << "takes them";
    const auto nest = [&](int levels) {
        ASComparison condition = is(3);
        for (int level = 0; level < levels; ++level) {
            ASSelect inner;
            inner.Filter().Project() << a.attribute;
            inner.Filter().Set(condition);
            condition = ASAttribute::In(a.attribute, ASAttribute(std::make_shared<const ASNestedSelect>(
                                                         inner, ASDialect::of(ASEngine::SQLite))));
        }
        return condition;
    };
    EXPECT_EQ(failure([&] { nest(30); }), "the condition is nested too deeply for SQLite");
}

TEST_P(ASCondition, NestedSelectBelowFortyLevelsIsTaken) {
    ASComparison condition = ASAttribute::In(a.attribute, R"(SELECT "v"."a" FROM "v" WHERE "v"."b" = 'name3')");
    for (int level = 0; level < 40; ++level) {
        condition = level % 2 ? ASComparison("1 = 1") && condition : ASComparison("1 = 0") || condition;
    }
    EXPECT_EQ(count(condition), 1u);
}

// What is deep is turned so that it has no nots above comparisons.
TEST_P(ASCondition, BelowANotThatIsTurnedAComparisonBecomesItsOpposite) {
    const ASAttribute low(ASAttribute::Raw::Expression, "10");
    const ASAttribute high(ASAttribute::Raw::Expression, "20");
    const ASInt middle(20);
    const std::pair<ASComparison, std::size_t> cases[] = {
        {a.attribute == middle, 1},
        {a.attribute != middle, 44},
        {a.attribute > middle, 26},
        {a.attribute >= middle, 27},
        {a.attribute < middle, 18},
        {a.attribute <= middle, 19},
        {ASAttribute::Between(a.attribute, low, high), 10},
        {ASAttribute::In(a.attribute, "'1', '2'"), 2},
        {ASComparison("a > 20"), 26},
        {ASAttribute::Like(a.attribute, "1_", 0), 9},
    };
    for (const auto& [condition, rows] : cases) {
        ASComparison turned = !condition;
        for (int level = 0; level < 30; ++level)
            turned = level % 2 ? ASComparison("1 = 1") && turned : ASComparison("1 = 0") || turned;
        EXPECT_EQ(count(condition), rows) << condition.Query();
        EXPECT_EQ(count(turned), 45 - rows) << "but for those that are null: " << turned.Query();
    }
}

TEST_P(ASCondition, TooDeepIsRefusedInOurWords) {
    if (isPostgres()) GTEST_SKIP() << "takes them";
    ASComparison condition = is(3);
    for (int level = 0; level < 5000; ++level) {
        condition = level % 2 ? ASComparison("1 = 1") && condition : ASComparison("1 = 0") || condition;
    }
    EXPECT_EQ(failure([&] { count(condition); }), "the condition is nested too deeply for SQLite");
    EXPECT_EQ(failure([&] { condition.Query(); }), "the condition is nested too deeply for SQLite");
    std::string select = R"(SELECT "v"."a" FROM "v")";
    for (int level = 0; level < 30; ++level) {
        select = R"(SELECT "v"."a" FROM "v" WHERE "v"."a" IN ()" + select + ")";
    }
    EXPECT_EQ(failure([&] { count(ASAttribute::In(a.attribute, select)); }),
              "the condition is nested too deeply for SQLite");
    EXPECT_EQ(count(is(3)), 1u);
}

TEST_P(ASCondition, TooLongIsRefusedInOurWords) {
    if (isPostgres()) GTEST_SKIP() << "has a bound of its own, on values";
    ASComparison condition;
    for (int i = 0; i < 100'000; ++i)
        condition = std::move(condition) || is(3);
    EXPECT_EQ(failure([&] { condition.Query(); }), "the condition is nested too deeply for SQLite");
    EXPECT_EQ(failure([&] { count(condition); }), "the condition is nested too deeply for SQLite");
    EXPECT_EQ(count(is(3)), 1u);
}

// Each round doubles it, while it takes no more memory: laid out, it would have billions of terms.
TEST_P(ASCondition, PartsThatAreSharedAreNotLaidOutWithoutBound) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "up to the bound it takes half a gigabyte, and several under the thread sanitizer";
#endif
    ASComparison condition = is(3);
    for (int round = 0; round < 32; ++round)
        condition = condition || condition;
    EXPECT_EQ(failure([&] { count(condition); }), "the condition has too many terms");
}

TEST_P(ASCondition, MoreParametersThanAStatementTakesBecomeLiterals) {
    if (isPostgres()) GTEST_SKIP() << "no value becomes a literal there";
    ASComparison any;
    for (int i = 0; i < 40000; ++i)
        any = std::move(any) || (a.attribute == ASInt(10 + i % 5));
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Filter().Project() << b.attribute;
    cursor.Filter().Set(any);
    cursor.Limit(20, 0);
    while (cursor.Fetch()) {
    }
    EXPECT_EQ(cursor.GetAmount(), 5);
}

TEST_P(ASCondition, LongPatternIsRefusedInOurWords) {
    EXPECT_EQ(count(ASAttribute::Like(b.attribute, std::string(50000, '%'), 0)), 50u);
    EXPECT_EQ(failure([&] { count(ASAttribute::Like(b.attribute, std::string(50001, '%'), 0)); }),
              std::string("a pattern of LIKE has 50001 bytes; ") + dialect().name + " takes 50000");
}

TEST_P(ASCondition, NulByteIsRefusedInOurWords) {
    const ASVStr text(10, std::string_view("a\0b", 3));
    EXPECT_EQ(failure([&] { count(b.attribute == text); }), "a text with a NUL byte cannot be sent to the database");
    EXPECT_EQ(failure([&] { select(b.attribute, b.attribute == text, {}, 20); }),
              "a text with a NUL byte cannot be sent to the database");
}

/// SQLite compares any bytes.
TEST_P(ASCondition, TextThatIsNoUtf8IsComparedOrRefusedInOurWords) {
    const ASVStr text(10, std::string_view("a\xc3", 2));
    if (!dialect().takesUtf8Alone) {
        EXPECT_EQ(count(b.attribute == text), 0u);
        return;
    }
    EXPECT_EQ(failure([&] { count(b.attribute == text); }),
              "\"a\\xc3\" is no UTF-8, which all texts of PostgreSQL are");
    EXPECT_EQ(failure([&] { count(ASAttribute::Like(b.attribute, std::string("a\xc3%"), 0)); }),
              "\"a\\xc3%\" is no UTF-8, which all texts of PostgreSQL are");
}

TEST_P(ASCondition, ManyTermsAreTakenApartWithoutRecursion) {
    ASComparison left;
    ASComparison right;
    for (int i = 0; i < 200'000; ++i) {
        left = std::move(left) && ASComparison("1");
        right = ASComparison("1") && right;
        if (i % 3 == 0) right = !right;
    }
    EXPECT_FALSE(left.empty() || right.empty());
}

INSTANTIATE_TEST_SUITE_P(SQLite, ASCondition, ::testing::Values(ASEngine::SQLite));
INSTANTIATE_TEST_SUITE_P(PostgreSQL, ASCondition, ::testing::Values(ASEngine::PostgreSQL));

}  // namespace
}  // namespace QOR::test
