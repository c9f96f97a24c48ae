// Decimal numbers and whole numbers are compared and added up to their last digit, on each engine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "libs/rdbmspp/EngineFixture.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using Function = ASGroupAttribute::Function;

class ExactNumbers : public EngineTest {
protected:
    void SetUp() override {
        EngineTest::SetUp();
        open(
            "CREATE TABLE t (id INT, x DECIMAL, d FLOAT, m BIGINT, s NVARCHAR(30), p IMAGE);"
            "CREATE VIEW v AS SELECT * FROM t");
    }
    void insert(const std::string& values) { run("INSERT INTO t (id, x) VALUES " + values); }
    std::vector<std::string> aggregate(Function function) const {
        ASGroupAttribute group(function, x.attribute);
        group.Register(makeData(ASType::Double), v);
        return select(group);
    }
    std::vector<std::string> ids(const ASComparison& condition) const {
        return select(id.attribute, condition, {ASOrder(id.attribute)});
    }
    /// Every number that the rows' decimals, summed, are equal to.
    std::vector<std::string> idsOfSum() const {
        ASGroupAttribute sum(Function::Sum, x.attribute);
        sum.Register(makeData(ASType::Double), v);
        ASSelect nested;
        nested.Filter().Project() << sum;
        return ids(ASAttribute::In(
            x.attribute, ASAttribute(std::make_shared<const ASNestedSelect>(nested, QORRdbms::instance().dialect()))));
    }

    ASDomainPtr v = ASDomain::view("v", {}, {{"x", ASStorage::Decimal}});
    Column id = column(v, "id", ASType::Int);
    Column x = column(v, "x", ASType::Double);
    Column d = column(v, "d", ASType::Double);
    Column m = column(v, "m", ASType::BigInt);
    Column s = column(v, "s");
    Column p = column(v, "p", ASType::Blob);
};

TEST_P(ExactNumbers, SumsAreThoseOfTheDigits) {
    insert("(1, 0.1), (2, 0.2), (3, NULL)");
    EXPECT_THAT(aggregate(Function::Sum), ElementsAre("0.3"));
    EXPECT_THAT(aggregate(Function::Average), ElementsAre("0.15"));
    insert("(4, -0.3)");
    EXPECT_THAT(aggregate(Function::Sum), ElementsAre("0"));
    insert("(5, 9007199254740993), (6, 0.1)");
    EXPECT_THAT(aggregate(Function::Sum), ElementsAre("9007199254740993.1"));
    EXPECT_THAT(aggregate(Function::Max), ElementsAre("9007199254740993"));
    insert("(7, -9007199254740994)");
    EXPECT_THAT(aggregate(Function::Sum), ElementsAre("-0.9"));
    EXPECT_THAT(select(x.attribute, {}, {ASOrder(x.attribute)}),
                ElementsAre("<null>", "-9007199254740994", "-0.3", "0.1", "0.1", "0.2", "9007199254740993"));
}

TEST_P(ExactNumbers, SumsOfAnySizeAreThoseOfTheDigits) {
    for (int i = 0; i < 20; ++i)
        insert("(1, 9223372036854775807)");
    EXPECT_THAT(aggregate(Function::Sum), ElementsAre("184467440737095516140"));
    insert("(2, 1e20), (3, 1e-7), (4, 100)");
    EXPECT_THAT(aggregate(Function::Sum), ElementsAre("284467440737095516240.0000001"));
    insert("(5, -284467440737095516240)");
    run("DELETE FROM t WHERE id < 6");
    EXPECT_THAT(aggregate(Function::Sum), ElementsAre("<null>"));
    EXPECT_THAT(aggregate(Function::Average), ElementsAre("<null>"));
    insert("(1, -1e20), (2, 1e-7), (3, -5)");
    EXPECT_THAT(aggregate(Function::Sum), ElementsAre("-100000000000000000004.9999999"));
    insert("(1, 1e20), (2, 1000)");
    EXPECT_THAT(aggregate(Function::Sum), ElementsAre("995.0000001"));
}

TEST_P(ExactNumbers, AveragesOfWholeNumbersAreMadeOfTheirExactSums) {
    ASGroupAttribute average(Function::Average, m.attribute);
    average.Register(makeData(ASType::Double), v);
    EXPECT_THAT(select(average), ElementsAre("<null>"));
    run("INSERT INTO t (id, m) VALUES (1, 9007199254740993), (2, -1), (3, NULL)");
    EXPECT_THAT(select(average), ElementsAre("4503599627370496"));
    run("INSERT INTO t (id, m) VALUES (4, 9223372036854775807), (5, 9223372036854775807), (6, 1)");
    EXPECT_THAT(select(average), ElementsAre("3.6911502545928586e+18"));
    run("DELETE FROM t WHERE id IN (4, 5); UPDATE t SET m = 9007199254740994 WHERE id = 1;"
        "INSERT INTO t (id, m) VALUES (7, 1), (8, 1)");
    EXPECT_THAT(select(average), ElementsAre("1801439850948199.2"));
}

TEST_P(ExactNumbers, SumsAreSortedAsNumbers) {
    run("INSERT INTO t (id, x, m) VALUES (1, 9.5, 1), (2, 100, 2), (3, 0.5, 1), (4, -3, 3), (5, 9007199254740993, 4)");
    ASGroupAttribute sum(Function::Sum, x.attribute);
    const auto received = makeData(ASType::Double);
    sum.Register(received, v);
    for (const bool distinct : {false, true}) {
        QORRdbmsTran transaction(ASAccess::ReadOne);
        ASCursor cursor(*transaction);
        ASProject& project = distinct ? cursor.Filter().DistinctProject() : cursor.Filter().Project();
        project << sum << m.attribute;
        cursor.Order(ASOrder(sum));
        std::vector<std::string> sums;
        while (cursor.Fetch())
            sums.push_back(cell(*received));
        EXPECT_THAT(sums, ElementsAre("-3", "10", "100", "9007199254740993")) << distinct;
    }
}

TEST_P(ExactNumbers, NestedSumsAreComparedAsNumbers) {
    insert("(1, 0.1), (2, 0.2), (3, 0.3), (4, -0.3)");
    EXPECT_THAT(idsOfSum(), ElementsAre("3"));
    insert("(5, 9007199254740993), (6, -0.3)");
    EXPECT_THAT(idsOfSum(), ElementsAre("5"));
}

TEST_P(ExactNumbers, DecimalsAreComparedWithWhatWasWritten) {
    insert("(1, 9007199254740993), (2, 9007199254740992), (3, 0.1), (4, 0.30000000000000004)");
    EXPECT_THAT(ids(x.attribute == ASDouble(9007199254740992, "9007199254740993")), ElementsAre("1"));
    EXPECT_THAT(ids(x.attribute < ASDouble(9007199254740992, "9007199254740993")), ElementsAre("2", "3", "4"));
    EXPECT_THAT(ids(x.attribute == ASDouble(9007199254740992)), ElementsAre("2"));
    EXPECT_THAT(ids(x.attribute == ASDouble(0.1, "0.10")), ElementsAre("3"));
    EXPECT_THAT(ids(x.attribute == ASDouble(0.3, "0.3")), ElementsAre());
}

TEST_P(ExactNumbers, NumbersOfDifferentKindsAreComparedToTheLastDigit) {
    run("INSERT INTO t (id, m, d, x) VALUES (1, 9007199254740993, 9007199254740992, 9007199254740993),"
        " (2, 1152921504606846976, 1152921504606846976, 1152921504606846976), (3, 9223372036854775807, "
        "9223372036854775807, 0.1),"
        " (4, 0, 0.1, 0.1), (5, NULL, 1, 1)");
    EXPECT_THAT(ids(m.attribute == d.attribute), ElementsAre("2"));
    EXPECT_THAT(ids(m.attribute > d.attribute), ElementsAre("1"));
    EXPECT_THAT(ids(d.attribute > m.attribute), ElementsAre("3", "4"));
    EXPECT_THAT(ids(x.attribute == d.attribute), ElementsAre("2", "4", "5"));
    EXPECT_THAT(ids(x.attribute == m.attribute), ElementsAre("1", "2"));
    ASSelect nested;
    nested.Filter().Project() << d.attribute;
    EXPECT_THAT(ids(ASAttribute::In(m.attribute, ASAttribute(std::make_shared<const ASNestedSelect>(
                                                     nested, QORRdbms::instance().dialect())))),
                ElementsAre("2"));
}

TEST_P(ExactNumbers, BytesAreGreaterThanTexts) {
    run("INSERT INTO t (id, s) VALUES (1, 'a'), (2, '~'), (3, NULL)");
    const RealBlob bytes("a", 1);
    EXPECT_THAT(ids(s.attribute == ASRealBlob(bytes)), ElementsAre());
    EXPECT_THAT(ids(s.attribute != ASRealBlob(bytes)), ElementsAre("1", "2"));
    EXPECT_THAT(ids(s.attribute < ASRealBlob(bytes)), ElementsAre("1", "2"));
    EXPECT_THAT(ids(id.attribute < ASRealBlob(bytes)), ElementsAre("1", "2", "3"));
    run(std::string("UPDATE t SET p = ") + (isPostgres() ? "'\\x61'" : "x'61'") + " WHERE id > 1");
    EXPECT_THAT(ids(p.attribute == ASRealBlob(bytes)), ElementsAre("2", "3"));
    EXPECT_THAT(ids(p.attribute == ASVStr(20, "a")), ElementsAre());
    EXPECT_THAT(ids(p.attribute > ASVStr(20, "b")), ElementsAre("2", "3"));
    EXPECT_THAT(ids(p.attribute > s.attribute), ElementsAre("2"));
    EXPECT_THAT(ids(p.attribute <= s.attribute), ElementsAre());
    EXPECT_THAT(ids(s.attribute < p.attribute), ElementsAre("2"));
    EXPECT_THAT(ids(id.attribute < p.attribute), ElementsAre("2", "3"));
    EXPECT_THAT(ids(s.attribute == p.attribute), ElementsAre());
}

TEST_P(ExactNumbers, FoldedNumbersAndTimesAreTheirTexts) {
    run("INSERT INTO t (id, d, x) VALUES (1, 2, 100), (2, 1e30, 0.1), (3, 1.5e-7, -3), (4, 0.30000000000000004, "
        "12.25)");
    const auto like = [&](const ASAttribute& of, const char* pattern) {
        return ids(ASAttribute::Like(of, pattern, 0));
    };
    EXPECT_THAT(like(d.attribute, "2.0"), ElementsAre("1"));
    EXPECT_THAT(like(ASAttribute::Upper(d.attribute), "1.0E+30"), ElementsAre("2"));
    EXPECT_THAT(like(d.attribute, "1.5e-07"), ElementsAre("3"));
    EXPECT_THAT(like(d.attribute, "0.3"), ElementsAre("4"));
    EXPECT_THAT(like(x.attribute, "100"), ElementsAre("1"));
    EXPECT_THAT(ids(ASAttribute::Lower(x.attribute) == ASVStr(9, "12.25")), ElementsAre("4"));
    const std::vector<ASAttribute> folded{ASAttribute::Lower(x.attribute)};
    EXPECT_THAT(ids(ASAttribute::In(s.attribute, folded)), ElementsAre());
    run("UPDATE t SET s = '12.25' WHERE id < 3");
    EXPECT_THAT(ids(ASAttribute::In(s.attribute, folded)), ElementsAre());
    run("UPDATE t SET s = '12.25' WHERE id = 4");
    EXPECT_THAT(ids(ASAttribute::In(s.attribute, folded)), ElementsAre("4"));
}

INSTANTIATE_TEST_SUITE_P(SQLite, ExactNumbers, ::testing::Values(ASEngine::SQLite));
INSTANTIATE_TEST_SUITE_P(PostgreSQL, ExactNumbers, ::testing::Values(ASEngine::PostgreSQL));

}  // namespace
}  // namespace QOR::test
