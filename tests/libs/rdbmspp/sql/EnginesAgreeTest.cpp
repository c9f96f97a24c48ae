// The same rows in both engines, and the same questions: whatever SQLite answers, PostgreSQL answers too.
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "libs/rdbmspp/Columns.h"
#include "support/PostgresServer.h"
#include "support/SqliteFile.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

using Function = ASGroupAttribute::Function;
using Answers = std::map<std::string, std::string>;

// One row for each place; words that are a number, a time or a GUID in one column stand as texts in the others.
constexpr const char* rows = R"(INSERT INTO t VALUES
 (1, 10, 9007199254740993, 0.1, 12.25, '10', 'ab', '6ba7b810-9dad-41d1-80b4-000000000001', '2024-01-01 00:00:00', '1'),
 (2, -5, 10, 10, 0.1, '010', 'AB', '0a0a0a0a-9dad-41d1-80b4-000000000002', '2024-01-02 00:00:00', '0'),
 (3, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL),
 (4, 2147483647, -1, -1e10, -5, 'B', 'abc', 'ffffffff-9dad-41d1-80b4-000000000004', '1999-12-31 23:59:59', '1'),
 (5, 0, 3000000000, 9007199254740992, 100, 'b', '', '6ba7b810-9dad-41d1-80b4-000000000005', '2024-01-01 12:00:00', '0'),
 (6, 1, 0, 0.3, 7, 'Ä%_\', 'a b', '6ba7b810-9dad-41d1-80b4-000000000006', '0044-03-15 01:02:03', '1'),
 (7, 11, 11, 11, 11, '', 'ä', '6ba7b810-9dad-41d1-80b4-000000000007', '9999-12-31 23:59:59', '0'),
 (8, 12, 12, 12, 12, '2024-01-02 00:00:00', 'é', '6ba7b810-9dad-41d1-80b4-000000000008', '2024-02-29 00:00:01', '1'),
 (9, 13, 13, 13, 13, '0a0a0a0a-9dad-41d1-80b4-000000000002', 'A', '6ba7b810-9dad-41d1-80b4-000000000009',
  '2024-03-01 00:00:00', '0'))";

constexpr const char* literals[] = {
    "10",
    "010",
    " 10 ",
    "\t10",
    "10.0",
    "1e1",
    "+10",
    "0x10",
    "-5",
    "abc",
    "",
    "B",
    "b",
    "ab",
    "ab ",
    "0.1",
    "12.250",
    ".1",
    "1e",
    "-",
    "3000000000",
    "9007199254740993",
    "9007199254740992.0",
    "99999999999999999999",
    "1e999",
    "-1e999",
    "NaN",
    "Infinity",
    "6ba7b810-9dad-41d1-80b4-000000000001",
    "6BA7B810-9DAD-41D1-80B4-000000000001",
    "{6ba7b810-9dad-41d1-80b4-000000000001}",
    "6ba7",
    "2024-01-01 00:00:00",
    "2024-01-01T00:00:00",
    "2024-01-01",
    "2024",
    "2024-02-30 00:00:00",
    "2024-01-01 00:00+01",
    "0000-01-01 00:00:00",
    "1",
    "0",
    "true",
    "\xC3\x84%_\\",
    "\xC3\xA4",
    "%",
    "_",
    "%b%",
    "A%",
    "'; DROP TABLE t; --",
    "?",
    "{fn now()}",
    "\\",
    "$1",
};

class EnginesAgree : public ::testing::Test {
protected:
    static void SetUpTestSuite() { QORRdbms::prepareProcess(); }
    void SetUp() override {
        SqliteFile file(m_folder.file("test.db"));
        file.run(
            "CREATE TABLE t (id INT, n INT, m BIGINT, d FLOAT, x DECIMAL, s NVARCHAR(60), c CHAR(10),"
            " g UNIQUEIDENTIFIER, w DATETIME, f BIT); CREATE VIEW v AS SELECT * FROM t");
        file.run(rows);
        PostgresConnection server = m_database.connect();
        server.run(
            "CREATE TABLE t (id int, n int, m bigint, d float8, x numeric, s varchar(60), c char(10), g uuid,"
            " w timestamp, f boolean); CREATE VIEW v AS SELECT * FROM t");
        server.run(rows);
    }
    void TearDown() override { QORRdbms::instance().shutdown(); }
    /// Further rows, in both.
    void add(const std::string& sql) {
        SqliteFile(m_folder.file("test.db")).run(sql);
        m_database.connect().run(sql);
    }

    /// Asks both engines, and compares what they answered.
    void agree(const std::function<void(Answers&)>& ask) {
        Answers theirs[2];
        const std::string strings[] = {"Driver=SQLite3;Database=" + m_folder.file("test.db"),
                                       m_database.connectionString()};
        for (int engine = 0; engine < 2; ++engine) {
            ASDatabaseOptions options;
            options.connectionString = strings[engine];
            QORRdbms::instance().configure(options);
            ask(theirs[engine]);
        }
        for (const auto& [question, answer] : theirs[0])
            EXPECT_EQ(theirs[1].at(question), answer) << question;
        EXPECT_FALSE(theirs[0].empty());
    }
    std::string ids(const ASComparison& condition) const {
        std::string all;
        try {
            for (const std::string& each : select(id.attribute, condition, {ASOrder(id.attribute)}, 20))
                all += each + " ";
        } catch (const AException& error) {
            all = "failure: " + error.text();
        }
        return all;
    }
    static bool familyIsNumber(const Column& each) {
        return each.attribute.type() == ASType::Int || each.attribute.type() == ASType::BigInt;
    }
    static ASAttribute literal(std::string_view text) {
        return {ASAttribute::Raw::Expression, ASSession::quoteLiteral(text)};
    }
    /// All six comparisons.
    template <class Left, class Right>
    void compare(Answers& answers, const std::string& question, const Left& left, const Right& right) const {
        answers[question + " ="] = ids(left == right);
        answers[question + " <>"] = ids(left != right);
        answers[question + " <"] = ids(left < right);
        answers[question + " <="] = ids(left <= right);
        answers[question + " >"] = ids(left > right);
        answers[question + " >="] = ids(left >= right);
    }
    /// A select that stands in a condition.
    template <class Selected>
    static ASAttribute nested(const Selected& what, const ASComparison& condition = {}) {
        ASSelect select;
        select.Filter().Project() << what;
        select.Filter().Set(condition);
        return ASAttribute(std::make_shared<const ASNestedSelect>(select, QORRdbms::instance().dialect()));
    }

    TemporaryDirectory m_folder;
    PostgresDatabase m_database;
    ASDomainPtr v = ASDomain::view("v", {}, {{"x", ASStorage::Decimal}, {"f", ASStorage::Boolean}});
    Column id = column(v, "id", ASType::Int);
    std::vector<Column> columns{column(v, "n", ASType::Int),
                                column(v, "m", ASType::BigInt),
                                column(v, "d", ASType::Double),
                                column(v, "x", ASType::Double),
                                column(v, "s"),
                                column(v, "c", ASType::Char),
                                column(v, "g", ASType::Guid),
                                column(v, "w", ASType::DateTime),
                                column(v, "f", ASType::Int)};
};

TEST_F(EnginesAgree, AboutColumnsAndLiterals) {
    agree([&](Answers& answers) {
        for (const Column& each : columns) {
            for (const char* text : literals) {
                const std::string question = each.attribute.name() + " " + text;
                answers[question + " in"] = ids(ASAttribute::In(each.attribute, ASSession::quoteLiteral(text)));
                answers[question + " not in"] = ids(!ASAttribute::In(each.attribute, ASSession::quoteLiteral(text)));
                answers[question + " .."] = ids(ASAttribute::Between(each.attribute, literal(text), literal("zz")));
                answers[question + " from"] = ids(ASAttribute::Between(each.attribute, literal(""), literal(text)));
            }
        }
    });
}

TEST_F(EnginesAgree, AboutListsOfAnyLength) {
    std::string all;
    for (const char* text : literals)
        all += (all.empty() ? "" : ", ") + ASSession::quoteLiteral(text);
    agree([&](Answers& answers) {
        for (const Column& each : columns) {
            for (const std::string& list : {all, all + ", " + all + ", 'a\"b', 'c\\'"}) {
                const std::string question = each.attribute.name() + " " + std::to_string(list.size());
                answers[question + " in"] = ids(ASAttribute::In(each.attribute, list));
                answers[question + " not in"] = ids(!ASAttribute::In(each.attribute, list));
            }
        }
    });
}

TEST_F(EnginesAgree, AboutPatterns) {
    agree([&](Answers& answers) {
        for (const Column& each : columns) {
            if (each.attribute.type() == ASType::Double) continue;  // their text forms are the engine's
            for (const char* text : literals) {
                for (const char escape : {'\0', '\\', '!', '%'}) {
                    const std::string question = each.attribute.name() + " " + text + " " + std::string(1, escape);
                    answers[question] = ids(ASAttribute::Like(each.attribute, text, escape));
                    answers[question + " not"] = ids(!ASAttribute::Like(each.attribute, text, escape));
                }
            }
        }
    });
}

TEST_F(EnginesAgree, AboutPatternsThatAreColumns) {
    agree([&](Answers& answers) {
        const ASAttribute& s = columns[4].attribute;
        for (const Column& each : columns) {
            if (each.attribute.type() == ASType::Double) continue;
            for (const char escape : {'\0', '\\', 'b'}) {
                const std::string question = each.attribute.name() + " " + std::string(1, escape);
                answers[question] = ids(ASAttribute::Like(each.attribute, s, escape));
                answers[question + " not"] = ids(!ASAttribute::Like(each.attribute, s, escape));
            }
        }
    });
}

TEST_F(EnginesAgree, AboutValuesOfTheColumnsType) {
    agree([&](Answers& answers) {
        const auto ask = [&](const Column& each, const auto& value) {
            compare(answers, each.attribute.name() + " " + value.Str(), each.attribute, value);
        };
        for (const std::int64_t value :
             {INT64_C(10), INT64_C(-5), INT64_C(0), INT64_C(1), INT64_C(3000000000), INT64_C(9007199254740993)}) {
            for (const std::size_t whole : {0U, 1U, 8U})
                ask(columns[whole], ASInt64(value));
        }
        for (const double value : {0.1, 12.25, 10.0, 0.30000000000000004, -1e10, 1e300}) {
            for (const std::size_t number : {0U, 1U, 2U, 3U})
                ask(columns[number], ASDouble(value));
        }
        for (const char* text : {"ab", "B", "", "\xC3\xA4", "010"}) {
            ask(columns[4], ASVStr(60, text));
            ask(columns[5], ASStr(11, text));
        }
        ask(columns[6], ASGuid(*Guid::parse("6BA7B810-9DAD-41D1-80B4-000000000005")));
        for (const std::int64_t seconds : {INT64_C(1704067200), INT64_C(0), INT64_C(253402300799)})
            ask(columns[7], ASTime(seconds));
    });
}

// A double beside such a number is smaller or greater than it, and never the same.
TEST_F(EnginesAgree, AboutWholeNumbersThatNoDoubleIs) {
    add("INSERT INTO t (id, d) VALUES (10, 9007199254740994), (11, 9007199254740996), (12, 9223372036854775807),"
        " (13, -9223372036854775808)");
    agree([&](Answers& answers) {
        for (const std::int64_t value : {INT64_C(9007199254740993), INT64_C(9007199254740995),
                                         INT64_C(9007199254740992), INT64_MAX, INT64_MIN, INT64_MIN + 1}) {
            for (const std::size_t number : {1U, 2U, 3U})
                compare(answers, columns[number].attribute.name() + " " + std::to_string(value),
                        columns[number].attribute, ASInt64(value));
        }
    });
}

TEST_F(EnginesAgree, AboutValuesOfOtherTypesThanTheColumns) {
    agree([&](Answers& answers) {
        for (const Column& each : columns) {
            for (const char* text : {"abc", "7", "2024-01-01 00:00:00"})
                compare(answers, each.attribute.name() + " " + text, each.attribute, ASVStr(60, text));
        }
        for (const std::size_t untyped : {6U, 7U}) {
            compare(answers, columns[untyped].attribute.name() + " a number", columns[untyped].attribute, ASInt(5));
        }
    });
}

TEST_F(EnginesAgree, AboutLiteralsOnTheLeft) {
    agree([&](Answers& answers) {
        for (const char* text : {"10", "B", "", "6ba7b810-9dad-41d1-80b4-000000000005", "2024-01-01 00:00:00"}) {
            for (const Column& each : columns)
                compare(answers, std::string(text) + " " + each.attribute.name(), literal(text), each.attribute);
            compare(answers, std::string(text) + " value", literal(text), ASVStr(10, "9"));
            compare(answers, std::string(text) + " literal", literal(text), literal("B"));
            answers[std::string(text) + " like"] = ids(ASAttribute::Like(literal(text), "b%", 0));
            answers[std::string(text) + " like itself"] = ids(ASAttribute::Like(literal(text), literal(text), '\\'));
        }
        answers["numbers"] = ids(ASData::LT(ASInt(9), ASDouble(10.5)));
        answers["numbers the other way"] = ids(ASData::LT(ASDouble(10.5), ASInt(9)));
        answers["texts"] = ids(ASData::LT(ASVStr(5, "9"), ASVStr(5, "10")));
    });
}

TEST_F(EnginesAgree, AboutListsOfLiteralsColumnsAndCalls) {
    std::string many = "'B'";
    for (int i = 0; i < 60; ++i)
        many += ", '" + std::to_string(i) + "'";
    agree([&](Answers& answers) {
        const ASAttribute& s = columns[4].attribute;
        const ASAttribute& c = columns[5].attribute;
        for (const std::string& list :
             {std::string(R"("v"."c", 'B')"), std::string("coalesce(upper('b'), 'x'), '010'"), many + ", lower('B')"}) {
            answers[list] = ids(ASAttribute::In(s, list));
            answers[list + " not"] = ids(!ASAttribute::In(s, list));
            answers[list + " literal"] = ids(ASAttribute::In(literal("B"), list));
        }
        answers["long"] = ids(ASAttribute::In(literal("B"), many));
        answers["select"] = ids(ASAttribute::In(literal("B"), nested(s)));
        answers["select of none"] = ids(ASAttribute::In(literal("no text there"), nested(s)));
        const ASAttribute& n = columns[0].attribute;
        ASGroupAttribute count(Function::Count, n);
        count.Register(makeData(ASType::BigInt), v);
        for (const char* text : {"10", "8", "1e1", "B"}) {
            const std::string question = std::string(text) + " in ";
            answers[question + "columns"] =
                ids(ASAttribute::In(literal(text), std::vector<ASAttribute>{n, s, id.attribute}));
            answers[question + "numbers"] = ids(ASAttribute::In(literal(text), nested(n)));
            answers[question + "a count"] = ids(ASAttribute::In(literal(text), nested(count)));
        }
        answers["literal of a select"] = ids(ASAttribute::In(c, "SELECT 'ab'"));
    });
}

// Compared, and not read, they are values of the column itself.
TEST_F(EnginesAgree, AboutSelectsOfTheSmallestAndTheGreatest) {
    agree([&](Answers& answers) {
        for (const Column& each : columns) {
            if (each.attribute.type() == ASType::Double) continue;
            for (const Function function : {Function::Min, Function::Max, Function::Count}) {
                ASGroupAttribute edge(function, each.attribute);
                edge.Register(makeData(ASType::BigInt), v);
                const std::string question = each.attribute.name() + std::to_string(static_cast<int>(function));
                for (const Column& other : columns) {
                    if (other.attribute.type() == ASType::Double) continue;
                    // SQLite reads texts for numbers here, or does not, as the column's table says.
                    const bool number = function == Function::Count || familyIsNumber(each);
                    if (number != familyIsNumber(other)) continue;
                    compare(answers, question + " " + other.attribute.name(), other.attribute, nested(edge));
                }
            }
        }
        for (const Function function : {Function::Sum, Function::Average}) {
            for (const std::size_t number : {0U, 3U}) {
                ASGroupAttribute sum(function, columns[number].attribute);
                sum.Register(makeData(ASType::Double), v);
                const std::string question =
                    "over " + std::to_string(number) + std::to_string(static_cast<int>(function));
                compare(answers, question, columns[1].attribute, nested(sum, id.attribute < ASInt(3)));
            }
            ASGroupAttribute none(function, columns[6].attribute);
            none.Register(makeData(ASType::Double), v);
            compare(answers, "of GUIDs " + std::to_string(static_cast<int>(function)), columns[1].attribute,
                    nested(none));
        }
        ASGroupAttribute greatest(Function::Max, columns[3].attribute);
        greatest.Register(makeData(ASType::Double), v);
        compare(answers, "decimal", columns[1].attribute, nested(greatest));
        ASAttribute text(ASAttribute::Raw::Expression, "'B'");
        text.Register(v);
        answers["an expression"] = ids(ASAttribute::In(columns[4].attribute, nested(text)));
    });
}

TEST_F(EnginesAgree, AboutColumnsOfDifferentTypes) {
    agree([&](Answers& answers) {
        for (const Column& left : columns) {
            for (const Column& right : columns) {
                const std::string question = left.attribute.name() + " " + right.attribute.name();
                const bool mixed = left.attribute.type() == ASType::Double || right.attribute.type() == ASType::Double;
                if (mixed && left.attribute.type() != right.attribute.type()) continue;
                answers[question + " ="] = ids(left.attribute == right.attribute);
                answers[question + " <"] = ids(left.attribute < right.attribute);
                answers[question + " >="] = ids(left.attribute >= right.attribute);
            }
        }
    });
}

TEST_F(EnginesAgree, AboutLettersThatAreFolded) {
    agree([&](Answers& answers) {
        for (const std::size_t text : {4U, 5U, 6U, 7U}) {
            const ASAttribute& a = columns[text].attribute;
            for (const char* wanted : {"ab", "AB", "\xC3\xA4", "\xC3\x84%_\\", "b"}) {
                const std::string question = a.name() + " " + wanted;
                answers[question + " lower"] = ids(ASAttribute::Lower(a) == literal(wanted));
                answers[question + " upper"] = ids(ASAttribute::Upper(a) == ASAttribute::Upper(literal(wanted)));
                answers[question + " both"] =
                    ids(ASAttribute::Upper(ASAttribute::Lower(a)) == ASAttribute::Upper(literal(wanted)));
                answers[question + " in"] =
                    ids(ASAttribute::In(ASAttribute::Lower(a), "lower(" + ASSession::quoteLiteral(wanted) + "), 'x'"));
            }
        }
    });
}

TEST_F(EnginesAgree, AboutOrdersDistinctValuesAndPages) {
    agree([&](Answers& answers) {
        for (const Column& each : columns) {
            for (const bool descending : {false, true}) {
                const ASOrder up(each.attribute);
                ASOrder order = descending ? -up : up;
                order << ASOrder(id.attribute);
                const std::string question = each.attribute.name() + (descending ? " down" : " up");
                for (const std::string& row : select(each.attribute, {}, {order}, 5, 1))
                    answers[question] += row + "|";
                for (const int limit : {0, 5}) {
                    QORRdbmsTran transaction(ASAccess::ReadOne);
                    ASCursor cursor(*transaction);
                    cursor.Filter().DistinctProject() << each.attribute;
                    cursor.Order(descending ? -up : up);
                    if (limit > 0) cursor.Limit(limit, 1);
                    while (cursor.Fetch())
                        answers[question + " distinct " + std::to_string(limit)] += cell(*each.data) + "|";
                }
            }
        }
    });
}

TEST_F(EnginesAgree, AboutAggregates) {
    agree([&](Answers& answers) {
        for (const Column& each : columns) {
            for (const Function function : {Function::Sum, Function::Average, Function::Min, Function::Max}) {
                ASGroupAttribute group(function, each.attribute);
                const bool whole = function != Function::Average && each.attribute.type() != ASType::Double &&
                                   (each.attribute.type() == ASType::Int || each.attribute.type() == ASType::BigInt);
                group.Register(makeData(whole ? ASType::BigInt : ASType::Double), v);
                std::string& answer = answers[each.attribute.name() + std::to_string(static_cast<int>(function))];
                // SQLite's averages are made of doubles, in which not every whole number of 64 bits has a place.
                const bool all = function != Function::Average;
                for (const std::string& row : select(group, all ? ASComparison() : id.attribute > ASInt(1)))
                    answer += row + "|";
                for (const std::string& row : select(group, ASComparison("1 = 0")))
                    answer += row + "|";
            }
        }
    });
}

TEST_F(EnginesAgree, AboutNestedSelects) {
    agree([&](Answers& answers) {
        const ASDialect& dialect = QORRdbms::instance().dialect();
        for (const Column& left : columns) {
            for (const Column& right : columns) {
                if (left.attribute.type() == ASType::Double || right.attribute.type() == ASType::Double) continue;
                ASSelect inner;
                inner.Filter().Project() << right.attribute;
                inner.Filter().Set(!ASAttribute::IsNull(right.attribute) &&
                                   ASAttribute::In(columns[4].attribute, "'10', 'B', 'b', '010'"));
                inner.Limit(3, 0);
                inner.Order(ASOrder(id.attribute));
                const bool numbers = familyIsNumber(left) != familyIsNumber(right);
                if (numbers) continue;  // SQLite reads texts for numbers here, or does not, as the column's table says
                const ASAttribute nested(std::make_shared<const ASNestedSelect>(inner, dialect));
                const std::string question = left.attribute.name() + " " + right.attribute.name();
                answers[question] = ids(ASAttribute::In(left.attribute, nested));
                answers[question + " not"] = ids(!ASAttribute::In(left.attribute, nested));
            }
        }
    });
}

}  // namespace
}  // namespace QOR::test
