// Ordered selects: their columns and rows have the request's order, and pages that go on from a token make the whole,
// whatever the rows, their order and the size of the pages.
#include <algorithm>
#include <array>
#include <functional>
#include <random>
#include <utility>

#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORPageToken.h"
#include "QORPager/Operators/Pager2/QORPreparedSelect.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORPager/Operators/Pager2/QORViewMetadata.h"
#include "libs/QORLibAgent/LogDatabase.h"
#include "support/HostDatabase.h"
#include "support/OperatorClient.h"
#include "support/Pager2Harness.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

using Rows = std::vector<std::vector<std::string>>;

/// An answer, as a program takes it apart.
struct Answer {
    std::vector<std::string> columns{};
    Rows rows{};
    std::vector<std::pair<QORTag, std::string>> behind{};  ///< elements behind the rows

    std::string get(QORTag tag) const {
        for (const auto& [one, text] : behind) {
            if (one == tag) return text;
        }
        return "<absent>";
    }
    std::vector<QORTag> tags() const {
        std::vector<QORTag> all;
        for (const auto& [tag, text] : behind)
            all.push_back(tag);
        return all;
    }
    std::string next() const { return get(tag::next); }
};

Answer answerOf(const std::string& notation) {
    Answer answer;
    answer.rows = valuesOf(notation);
    QORResponse response = readResponse(notation);
    QORBinaryIterator it = response.response.root();
    EXPECT_EQ(it.firstChild(tag::rowSet), 0) << notation;
    if (it.firstChild() != 0) return answer;
    do {
        std::string text;
        it.getValue(text);
        if (it.curID() == tag::name) answer.columns.push_back(text);
        if (it.curID() != tag::name && it.curID() != tag::row) answer.behind.emplace_back(it.curID(), text);
    } while (it.nextSibling() == 0);
    return answer;
}

/// A question, to which parts may be added.
class Question {
public:
    explicit Question(std::string view) : m_parts("[1009,\"" + std::move(view) + "\"],[2401]") {}
    Question& with(const std::string& element) {
        m_parts += "," + element;
        return *this;
    }
    Question& field(const std::string& name) { return with("[1741,\"" + name + "\"]"); }
    Question& aggregate(const std::string& function, const std::string& column) {
        return with("[1741,[[2222,[[1026,\"" + function + "\"],[1741,\"" + column + "\"]]]]]");
    }
    Question& sort(const std::string& name, bool descending = false) {
        return with("[1743,[[1741,\"" + name + "\"]" + (descending ? ",[1378]" : "") + "]]");
    }
    /// All of it.
    std::string text() const { return "[1740,[" + m_parts + "]]"; }
    std::string page(int size, const std::string& token = {}, const std::string& more = {}) const {
        return "[1740,[" + m_parts + ",[1377,[[1024,\"" + std::to_string(size) + "\"]]]" +
               (token.empty() ? "" : ",[2402,\"" + token + "\"]") + more + "]]";
    }

private:
    std::string m_parts;
};

class PageTest : public LogDatabaseTest {
protected:
    void SetUp() override {
        LogDatabaseTest::SetUp();
        forgetMetadata();
        // What is known of the views is learned with the first question of a client that may not see all.
        client.ask(Question("vOpLog").field("id").page(1), accessTo({0}));
    }
    void TearDown() override {
        LogDatabaseTest::TearDown();
        forgetMetadata();
    }

    Answer ask(const std::string& request, const QORClientContextPtr& as = fullAccess()) {
        const std::string notation = client.ask(request, as);
        EXPECT_EQ(notation.find("\"error\""), std::string::npos) << request << "\n" << notation;
        return answerOf(notation);
    }

    /// The rows of all pages, one after the other.
    Rows walk(const Question& question, int size, const QORClientContextPtr& as = fullAccess()) {
        Rows rows;
        std::string token;
        for (int pages = 0; pages < 2000; ++pages) {
            const Answer page = ask(question.page(size, token), as);
            rows.insert(rows.end(), page.rows.begin(), page.rows.end());
            token = page.next();
            EXPECT_EQ(token.empty() || page.rows.size() == static_cast<std::size_t>(size), true);
            if (token.empty()) return rows;
        }
        ADD_FAILURE() << "the pages have no end: " << question.text();
        return rows;
    }

    /// As many records of each kind, of few values and many nulls.
    void fill(unsigned count, std::uint64_t seed = 1) {
        std::mt19937_64 random(seed);
        const auto below = [&](std::uint64_t end) { return random() % end; };
        const auto word = [&]() -> std::string {
            constexpr const char* words[] = {"null", "\"\"", "\"a\"", "\"Z\"", "\"ä\"", "\"b c\"", "\"'\"", "\"10\""};
            return words[below(8)];
        };
        const auto eid = [&] { return "\"" + eidOf(1 + below(4)).toString() + "\""; };
        const auto time = [&] { return "\"2024-05-01 10:00:0" + std::to_string(below(4)) + "\""; };
        std::string lines;
        for (unsigned i = 1; i <= 7; ++i) {
            lines += R"({"kind":"environment","eid":")" + eidOf(i).toString() + R"(","title":)" + word() +
                     R"(,"state":)" + std::to_string(below(2)) + R"(,"config":{"hostname":"h)" +
                     std::to_string(below(3)) + "\"" + (below(2) == 0 ? R"(,"memory":9007199254740993)" : "") + "}}\n";
        }
        for (unsigned i = 1; i <= count; ++i) {
            const std::string number = std::to_string(i * 7919 % 1000);
            lines += R"({"kind":"operation","id":"op-)" + number + R"(","parent_id":)" + word() + R"(,"op":)" + word() +
                     R"(,"status":)" + std::to_string(below(3)) + R"(,"time":)" + time() + R"(,"eid":)" +
                     (below(4) == 0 ? "null" : eid()) + "}\n";
            lines += R"({"kind":"event","time":)" + time() + R"(,"eid":)" + (below(4) == 0 ? "null" : eid()) +
                     R"(,"source":)" + word() + R"(,"category":)" + word() + "}\n";
            lines += R"({"kind":"backup","id":"b)" + number + R"(","eid":)" + eid() + R"(,"time":)" + time() +
                     R"(,"size":)" + std::to_string(below(3) * 5000000000U) + R"(,"type":1,"name":)" + word() + "}\n";
        }
        const QORIngestResult result = import(lines);
        ASSERT_FALSE(result.failure) << result.failure->reason;
    }

    /// Rows of statements of its own. \param values with n, a number from 1 on
    static void storeNumbered(const std::string& table, const std::string& values, unsigned count) {
        const std::string last = std::to_string(count);
        runSql("INSERT INTO " + table + " SELECT " + values + " FROM " +
               (testEngine() == ASEngine::SQLite
                    ? "(WITH RECURSIVE g(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM g WHERE n < " + last +
                          ") SELECT n FROM g)"
                    : "(SELECT i::text AS n FROM generate_series(1, " + last + ") AS g (i)) r"));
    }

    Pager2Client client;
};

TEST_F(PageTest, ColumnsComeAsTheyWereAskedForAsOftenAsTheyWere) {
    fill(3);
    const Answer answer =
        ask(Question("vOpLog").field("status").field("id").field("status").aggregate("COUNT", "eid").text());
    EXPECT_THAT(answer.columns, ElementsAre("status", "id", "status", "count(eid)"));
    ASSERT_THAT(answer.rows, SizeIs(3));
    for (const auto& row : answer.rows)
        EXPECT_EQ(row.at(0), row.at(2));
    EXPECT_THAT(answer.behind, IsEmpty());
}

TEST_F(PageTest, SortKeysApplyInTheirOrderAndTiesAreBrokenByTheKeyOfTheView) {
    fill(40);
    Rows rows = ask(Question("vOpLog").field("time").field("id").sort("time", true).text()).rows;
    EXPECT_TRUE(std::is_sorted(rows.begin(), rows.end(), std::greater<>()));
    rows = ask(Question("vOpLog").field("status").field("eid").field("id").sort("status").sort("eid").text()).rows;
    for (auto& row : rows)
        row[1] = row[1] == "<null>" ? "" : row[1];
    EXPECT_TRUE(std::is_sorted(rows.begin(), rows.end()));
    rows = ask(Question("vOpLog").field("id").text()).rows;
    EXPECT_TRUE(std::is_sorted(rows.begin(), rows.end()));
    EXPECT_THAT(rows, SizeIs(40));
}

TEST_F(PageTest, TheLastPageSaysSo) {
    fill(5);
    const Question question = Question("vOpLog").field("id");
    EXPECT_EQ(ask(question.page(5)).next(), "");
    EXPECT_EQ(ask(question.page(6)).next(), "");
    const std::string token = ask(question.page(4)).next();
    EXPECT_NE(token, "");
    const Answer last = ask(question.page(1, token));
    EXPECT_THAT(last.rows, SizeIs(1));
    EXPECT_EQ(last.next(), "");
    EXPECT_EQ(ask(question.page(2147483647)).next(), "");
    EXPECT_EQ(ask(question.text()).next(), "<absent>") << "without a limit there are no pages";
}

TEST_F(PageTest, AnOffsetGoesOnWithAToken) {
    fill(9);
    const Question question = Question("vEventLog").field("id").field("source").sort("source", true);
    const Rows all = ask(question.text()).rows;
    const std::string request =
        R"([1740,[[1009,"vEventLog"],[2401],[1741,"id"],[1741,"source"],[1743,[[1741,"source"],[1378]]],)"
        R"([1377,[[1024,"3"],[1087,"2"]]]]])";
    const Answer second = ask(request);
    EXPECT_EQ(second.rows, Rows(all.begin() + 2, all.begin() + 5));
    EXPECT_EQ(ask(question.page(9, second.next())).rows, Rows(all.begin() + 5, all.end()));
}

/// Questions that nobody thought of.
class MadeQuestions {
public:
    explicit MadeQuestions(std::uint64_t seed) : m_random(seed) {}

    Question next() {
        static const std::vector<std::pair<const char*, std::vector<const char*>>> views{
            {"vOpLog", {"id", "parent_id", "op", "status", "time", "eid"}},
            {"vEventLog", {"id", "time", "eid", "source", "category"}},
            {"vBackupInfo", {"id", "eid", "storage_eid", "time", "size", "name"}},
            {"vEnvironment", {"eid", "title", "state", "hostname", "memory", "boot_time"}}};
        const auto& [view, columns] = views[below(views.size())];
        Question question(view);
        std::vector<std::string> fields;
        for (std::size_t i = 0; i <= below(4); ++i)
            question.field(fields.emplace_back(columns[below(columns.size())]));
        const std::uint64_t kind = below(8);
        if (kind == 0) question.with("[2293]");
        if (kind == 1) question.aggregate("count", columns[below(columns.size())]);
        const bool narrow = kind < 2;
        for (std::size_t i = below(4); i > 0; --i)
            question.sort(narrow ? fields[below(fields.size())] : columns[below(columns.size())], below(2) == 0);
        if (kind == 1 && below(2) == 0) question.aggregate("max", "id").sort("max(id)", below(2) == 0);
        if (below(3) == 0)
            question.with(R"([1742,[[2236,[[2227,[[1741,"eid"],[1018,")" + eidOf(2).toString() +
                          R"("]]],[2233,[[1741,"eid"]]]]]]])");
        return question;
    }
    std::uint64_t below(std::uint64_t end) { return m_random() % end; }

private:
    std::mt19937_64 m_random;
};

TEST_F(PageTest, PagesMakeTheWholeWhateverIsAsked) {
    fill(60);
    MadeQuestions made(20240501);
    for (int i = 0; i < (hasTestServers() ? 40 : 120); ++i) {
        const Question question = made.next();
        const auto as = made.below(3) == 0 ? accessTo({1, 3}) : fullAccess();
        const Rows all = ask(question.text(), as).rows;
        const int size = static_cast<int>(made.below(2) == 0 ? 1 + made.below(4) : 1 + made.below(all.size() + 2));
        EXPECT_EQ(walk(question, size, as), all) << question.text() << " in pages of " << size;
        if (HasFailure()) return;
    }
}

TEST_F(PageTest, NullsInAnyKeyAreReachedFromEitherSide) {
    fill(60);
    for (int way = 0; way < 4; ++way) {
        const Question question = Question("vOpLog")
                                      .field("op")
                                      .field("parent_id")
                                      .with("[2293]")
                                      .sort("op", way % 2 == 0)
                                      .sort("parent_id", way < 2);
        const Rows all = ask(question.text()).rows;
        for (const int size : {1, 2, 5})
            EXPECT_EQ(walk(question, size), all) << question.text() << size;
    }
}

TEST_F(PageTest, RowsThatStayComeOnceWhateverComesAndGoesBetweenPages) {
    QOR_NOT_WITH_SERVERS("removes records by statements of its own");
    fill(80);
    std::mt19937_64 random(5);
    for (const bool descending : {false, true}) {
        const Question question =
            Question("vOpLog").field("id").field("op").sort("op", descending).sort("time", !descending);
        std::vector<std::string> stay;
        for (const auto& row : ask(question.text()).rows) {
            if (row[0].starts_with("op-") && row[0].back() % 2 == 0) stay.push_back(row[0]);
        }
        std::vector<std::string> seen;
        std::string token;
        do {
            const Answer page = ask(question.page(7, token));
            for (const auto& row : page.rows)
                seen.push_back(row[0]);
            token = page.next();
            const std::string odd = std::to_string(random() % 500 * 2 + 1);
            runSql("DELETE FROM qor_operation WHERE id = 'op-" + odd + "'");
            import(R"({"kind":"operation","id":"new-)" + odd + R"(","op":")" + std::string(1, "aZb"[random() % 3]) +
                   R"(","status":0,"time":"2024-05-01 10:00:02"})" + "\n");
        } while (!token.empty());
        for (const std::string& id : stay)
            EXPECT_EQ(std::count(seen.begin(), seen.end(), id), 1) << id;
        std::sort(seen.begin(), seen.end());
        EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end()) << "a row that is not changed comes once";
    }
}

TEST_F(PageTest, ALastRowThatIsGoneIsNoHindrance) {
    QOR_NOT_WITH_SERVERS("removes records by statements of its own");
    fill(10);
    const Question question = Question("vOpLog").field("id").sort("time");
    const Rows all = ask(question.text()).rows;
    const Answer first = ask(question.page(4));
    runSql("DELETE FROM qor_operation WHERE id = '" + first.rows.back()[0] + "'");
    EXPECT_EQ(ask(question.page(10, first.next())).rows, Rows(all.begin() + 4, all.end()));
}

TEST_F(PageTest, ValuesOfAnyFormAndLengthGoOn) {
    QOR_NOT_WITH_SERVERS("stores records by statements of its own");
    const bool sqlite = testEngine() == ASEngine::SQLite;
    const std::vector<std::string> values{"NULL",
                                          "''",
                                          "'" + std::string(700, 'x') + "'",
                                          "'" + std::string(3000, 'y') + "'",
                                          "'" + std::string(3000, 'y') + "z'",
                                          "'''; --'",
                                          "'\\'",
                                          sqlite ? "CAST(x'ff41' AS TEXT)" : "U&'\\d83d\\de00'",
                                          "'Ä'",
                                          "'10'",
                                          "'9'"};
    int number = 0;
    for (const std::string& value : values) {
        const std::string text = std::to_string(++number);
        runSql("INSERT INTO qor_operation (id, op, status, time) VALUES ('" + text + "', " + value + ", " +
               (number % 2 == 0 ? "-2147483648" : "2147483647") + ", '0001-01-01 00:00:00')");
        runSql("INSERT INTO qor_backup (id, time, size, type) VALUES ('" + text + "', '9999-12-31 23:59:59', " +
               (number % 2 == 0 ? "9223372036854775807" : "-9223372036854775807") + ", 0)");
    }
    for (const bool descending : {false, true}) {
        for (const Question& question :
             {Question("vOpLog").field("id").field("op").sort("op", descending).sort("status", true),
              Question("vOpLog").field("id").sort("status", descending).sort("op").sort("time"),
              Question("vOpLog").field("op").with("[2293]").sort("op", descending),
              Question("vBackupInfo").field("id").sort("size", descending).sort("time", !descending)}) {
            const Rows all = ask(question.text()).rows;
            ASSERT_THAT(all, SizeIs(values.size()));
            for (const int size : {1, 2, 3, 5})
                EXPECT_EQ(walk(question, size), all) << question.text() << size;
        }
    }
}

TEST_F(PageTest, WhatAnotherProgramWroteInFormsOfItsOwnGoesOn) {
    QOR_ONLY_ON(ASEngine::SQLite);
    int number = 0;
    for (const char* status : {"'status'", "1", "1.5", "'1x'", "x'00ff'", "9007199254740993", "2"}) {
        for (const char* eid : {"'6BA7B810-9DAD-11D1-80B4-000000000001'", "'6ba7b810-9dad-11d1-80b4-000000000001'",
                                "'e'", "NULL", "12", "1.5e300"}) {
            ++number;
            runSql("INSERT INTO qor_operation (id, status, time, eid) VALUES (" + std::to_string(number) + ", " +
                   status + ", '2024-05-01 10:00:0" + std::to_string(number % 3) + "', " + eid + ")");
            runSql("INSERT INTO qor_environment (eid, state, transition, updated, boot_time) VALUES ('" +
                   std::to_string(number) + "', 1, 1, '2024-05-01 10:00:00', " + eid + ")");
        }
    }
    for (const char* first : {"time", "eid", "status"}) {
        for (const bool descending : {false, true}) {
            for (const Question& question : {Question("vOpLog").field("id").sort(first, descending).sort("eid"),
                                             Question("vOpLog").field("eid").field("status").with("[2293]"),
                                             Question("vEnvironment").field("eid").sort("boot_time", descending)}) {
                const Rows all = ask(question.text()).rows;
                for (const int size : {1, 4, 7})
                    EXPECT_EQ(walk(question, size), all) << question.text() << size;
            }
        }
    }
}

TEST_F(PageTest, AClientSeesItsOwnRowsWhoseverTokenItShows) {
    fill(60);
    const Question question = Question("vOpLog").field("id").field("eid").sort("time", true);
    const std::string token = ask(question.page(10)).next();
    const Answer answer = ask(question.page(100, token), accessTo({2}));
    EXPECT_FALSE(answer.rows.empty());
    for (const auto& row : answer.rows)
        EXPECT_EQ(row[1], eidOf(2).toString());
    EXPECT_THAT(ask(question.page(100, token), restricted({})).rows, IsEmpty());
}

TEST_F(PageTest, ClientsWhoTakeTurnsOverOneKeptSelectSeeTheirOwnRows) {
    fill(60);
    const Question question = Question("vOpLog").field("id").field("eid").sort("time", true).with(R"([2403,"exact"])");
    const std::array clients{accessTo({1}), accessTo({2}), accessTo({1, 2, 3}), restricted({})};
    std::array<std::vector<Answer>, clients.size()> expected;
    for (std::size_t who = 0; who < clients.size(); ++who) {
        do {
            PreparedSelect::forgetAll();
            const std::string token = expected[who].empty() ? std::string() : expected[who].back().next();
            expected[who].push_back(ask(question.page(3, token), clients[who]));
        } while (!expected[who].back().next().empty());
    }
    ASSERT_GT(expected[0].size(), 2U);
    ASSERT_NE(expected[0].front().rows, expected[1].front().rows);
    PreparedSelect::forgetAll();
    std::array<std::string, clients.size()> tokens;
    for (std::size_t page = 0; page < expected[2].size(); ++page) {
        for (std::size_t who = 0; who < clients.size(); ++who) {
            if (page >= expected[who].size()) continue;
            const Answer answer = ask(question.page(3, tokens[who]), clients[who]);
            EXPECT_EQ(answer.rows, expected[who][page].rows) << "client " << who << ", page " << page;
            EXPECT_EQ(answer.get(tag::total), expected[who][page].get(tag::total));
            tokens[who] = answer.next();
        }
    }
    EXPECT_EQ(PreparedSelect::kept(), 1U);
}

TEST_F(PageTest, ATokenIsForItsQuestionAlone) {
    fill(5);
    const Question question = Question("vOpLog").field("id").sort("time");
    const std::string token = ask(question.page(2)).next();
    const auto errorOf = [&](const std::string& request) { return client.errorOf(request); };
    EXPECT_EQ(errorOf(Question("vOpLog").field("id").sort("time", true).page(2, token)),
              "400 after: the page token belongs to another question");
    EXPECT_EQ(errorOf(Question("vOpLog").field("op").sort("time").page(2, token)),
              "400 after: the page token belongs to another question");
    EXPECT_EQ(errorOf(question.page(2, "AAAA")), "400 the page token is not one of this database's");
    EXPECT_EQ(errorOf(question.page(2, {}, R"(,[2402,""])")), "400 the page token is not one of this database's");
    EXPECT_EQ(errorOf(question.page(2, {}, ",[2402]")), "400 the page token is not one of this database's");
    EXPECT_EQ(errorOf("[1740,[[1009,\"vOpLog\"],[2401],[1741,\"id\"],[2402,\"" + token + "\"]]]"),
              "400 after: a page token is for an ordered select with a limit");
    EXPECT_EQ(errorOf("[1740,[[1009,\"vOpLog\"],[1741,\"id\"],[1377,[[1024,\"2\"]]],[2402,\"" + token + "\"]]]"),
              "400 after: a page token is for an ordered select with a limit");
    EXPECT_EQ(errorOf("[1740,[[1009,\"vOpLog\"],[2401],[1741,\"id\"],[1743,[[1741,\"time\"]]],[1377,[[1024,\"2\"],"
                      "[1087,\"0\"]]],[2402,\"" +
                      token + "\"]]]"),
              "400 after: the page token says where the page begins, so an offset cannot be given");
}

TEST_F(PageTest, WhatIsOrderedIsRefusedWithinAnotherSelectAndWhereItCannotBe) {
    for (const char* element : {"[2401]", R"([2402,"x"])", R"([2403,"exact"])"}) {
        EXPECT_EQ(client.errorOf(Question("vOpLog")
                                     .field("id")
                                     .with(R"([1742,[[2234,[[1741,"eid"],[1740,[[1009,"vEnvironment"],[1741,"eid"],)" +
                                           std::string(element) + "]]]]]]")
                                     .text()),
                  "400 ordered, after and count belong to the outermost select")
            << element;
    }
    const std::string refusal =
        "400 sort: \"time\" is not among the fields, and distinct or grouped rows are sorted by nothing else";
    EXPECT_EQ(client.errorOf(Question("vOpLog").field("op").with("[2293]").sort("time").text()), refusal);
    EXPECT_EQ(client.errorOf(Question("vOpLog").field("op").aggregate("count", "id").sort("time").text()), refusal);
}

TEST_F(PageTest, ATokenKeepsTheMomentThatTimesWereToldFrom) {
    fill(5);
    const Question question = Question("vOpLog").field("id");
    const std::string first = ask(question.page(2, {}, R"(,[2406,"1234567"])")).next();
    EXPECT_EQ(openPageToken(first).now, 1234567);
    const std::string second = ask(question.page(2, first, R"(,[2406,"7654321"])")).next();
    EXPECT_EQ(openPageToken(second).now, 1234567);
    const std::int64_t before = currentTime();
    const std::string other = ask(question.page(2)).next();
    EXPECT_GE(openPageToken(other).now, before);
    EXPECT_LE(openPageToken(other).now, currentTime());
}

/// How the engine finds a page behind a token.
class PagePlan : public PageTest {
protected:
    /// The plans of the selects that the second page comes from.
    std::vector<std::string> plansOf(const Question& question, const QORClientContextPtr& as) {
        QORMessage request;
        readElement(question.page(20, ask(question.page(20), as).next()), request);
        QORBinaryIterator select = request.root();
        select.firstChild();
        const QORClientContextScope scope(as);
        std::vector<std::string> plans;
        for (const std::string& sql : SelectStmnt(select, nullptr).asSQLStrings())
            plans.push_back(sql + "\n" + planOf(sql));
        return plans;
    }

private:
    static std::string planOf(const std::string& sql) {
        const bool sqlite = testEngine() == ASEngine::SQLite;
        QORRdbmsTran tran(ASAccess::Read);
        if (!sqlite) tran->execute("SET LOCAL enable_seqscan = off");
        ASStatement& explain = tran->prepare((sqlite ? "EXPLAIN QUERY PLAN " : "EXPLAIN (COSTS OFF) ") + sql);
        explain.execute();
        std::string plan;
        while (explain.fetch())
            plan.append(explain.text(sqlite ? 4 : 1)).append("\n");
        explain.close();
        return plan;
    }
};

TEST_F(PagePlan, SeeksAnIndexAndSortsNoMoreThanWhatIsEqual) {
    QOR_NOT_WITH_SERVERS("is about one database");
    const bool sqlite = testEngine() == ASEngine::SQLite;
    fill(900);
    if (!sqlite) runSql("ANALYZE");
    const std::string mine = R"([1742,[[2225,[[1741,"eid"],[1018,")" + eidOf(2).toString() + R"("]]]]])";
    const auto all = fullAccess();
    for (const auto& [question, as] : std::vector<std::pair<Question, QORClientContextPtr>>{
             {Question("vOpLog").field("id").sort("time", true), all},
             {Question("vOpLog").field("op").sort("time"), all},
             {Question("vOpLog").field("id"), all},
             {Question("vOpLog").field("id").sort("id", true), all},
             {Question("vOpLog").field("id").with(mine).sort("time", true), all},
             {Question("vOpLog").field("id").with(mine).sort("time", true), accessTo({2})},
             {Question("vOpLog").field("id").sort("time", true), accessTo({2})},
             {Question("vOpLog").field("id").sort("eid").sort("time"), all},
             {Question("vOpLog").field("id").sort("eid", true).sort("time", true), all},
             {Question("vEventLog").field("source").sort("time", true), all},
             {Question("vEventLog").field("source"), all},
             {Question("vEventLog").field("source").sort("category").sort("time"), all},
             {Question("vBackupInfo").field("name").sort("time"), all},
             {Question("vBackupInfo").field("name").sort("storage_eid").sort("time"), all}}) {
        for (const std::string& plan : plansOf(question, as)) {
            // Where nulls end, one page passes over them.
            if (plan.find("NOT (") != std::string::npos) continue;
            EXPECT_THAT(plan, Not(HasSubstr("OFFSET")));
            if (sqlite) {
                EXPECT_THAT(plan, HasSubstr("SEARCH"));
                EXPECT_THAT(plan, Not(HasSubstr("SCAN")));
                EXPECT_THAT(plan, Not(HasSubstr("TEMP B-TREE FOR ORDER BY")));
            } else {
                EXPECT_THAT(plan, HasSubstr("Index Cond"));
                EXPECT_THAT(plan, Not(HasSubstr("Seq Scan")));
                EXPECT_THAT(plan, Not(::testing::ContainsRegex("(^|\n)( *-> *)?Sort")));
            }
        }
    }
}

/// What a page of a question says of changes since the first one.
class ChangedTest : public PageTest {
protected:
    void begin(const QORClientContextPtr& as) {
        m_tokens.clear();
        for (const Question& question : questions)
            m_tokens.push_back(ask(question.page(1), as).next());
        expect(as, {false, false, false, false});
    }
    /// \param changed of environments, operations, events, backups
    void expect(const QORClientContextPtr& as, const std::vector<bool>& changed) {
        for (std::size_t i = 0; i < questions.size(); ++i) {
            const Answer second = ask(questions[i].page(1, m_tokens[i]), as);
            EXPECT_EQ(second.get(tag::changed), changed[i] || hasTestServers() ? "true" : "false") << i;
            ASSERT_NE(second.next(), "");
            EXPECT_EQ(ask(questions[i].page(1, second.next()), as).get(tag::changed), second.get(tag::changed))
                << "the third page too tells of what was since the first";
        }
    }
    static void operation(const std::string& id, unsigned environment) {
        import(R"({"kind":"operation","id":")" + id + R"(","op":"x","status":0,"time":"2024-05-01 10:00:02","eid":")" +
               eidOf(environment).toString() + "\"}\n");
    }

    const std::vector<Question> questions{Question("vEnvironment").field("eid"), Question("vOpLog").field("id"),
                                          Question("vEventLog").field("id"), Question("vBackupInfo").field("id")};

private:
    std::vector<std::string> m_tokens;
};

TEST_F(ChangedTest, IsToldOfWhatCameWasReplacedOrWent) {
    fill(60);
    const auto all = fullAccess();
    begin(all);
    operation("new", 2);
    expect(all, {false, true, false, false});
    begin(all);
    operation("new", 2);
    expect(all, {false, true, false, false});
    begin(all);
    import(R"({"kind":"event","time":"2024-05-01 10:00:02","source":"x"})"
           "\n");
    expect(all, {false, false, true, false});
    begin(all);
    import(R"({"kind":"backup","id":"new","eid":")" + eidOf(2).toString() +
           R"(","time":"2024-05-01 10:00:02","size":1,"type":1})"
           "\n");
    expect(all, {false, false, false, true});
    begin(all);
    import(R"({"kind":"environment","eid":")" + eidOf(2).toString() +
           R"(","state":7})"
           "\n");
    expect(all, {true, false, false, false});
    if (hasTestServers()) return;
    begin(all);
    runSql("DELETE FROM qor_operation WHERE id = 'new'");
    expect(all, {false, true, false, false});
    begin(all);
    runSql("DELETE FROM qor_event WHERE category = 'a'");
    expect(all, {false, false, true, false});
    begin(all);
    runSql("DELETE FROM qor_event WHERE category IS NULL OR category = ''");
    expect(all, {false, false, true, false});
    begin(all);
    runSql("DELETE FROM qor_backup WHERE id = 'new'");
    expect(all, {false, false, false, true});
    begin(all);
    runSql("DELETE FROM qor_environment WHERE eid = '" + eidOf(7).toString() + "'");
    expect(all, {true, false, false, false});
    begin(all);
    runSql("UPDATE qor_event SET source = 'other' WHERE source = 'a'");
    expect(all, {false, false, true, false});
}

/// Does something while the first row of an answer is written.
class AtFirstRow final : public QORRowTaker {
public:
    explicit AtFirstRow(std::function<void()> work) : m_work(std::move(work)) {}
    bool takeRow(const QORMessageNode&) noexcept override { return take(); }
    bool takeValues(const QORMessageNode&, std::span<const QORRowValue>) noexcept override { return take(); }

private:
    bool take() noexcept {
        if (m_work) std::exchange(m_work, nullptr)();
        return true;
    }
    std::function<void()> m_work;
};

TEST_F(ChangedTest, IsToldOfWhatWasCommittedWhileTheFirstPageWasRead) {
    QOR_NOT_WITH_SERVERS("of rows in other places nobody knows");
    fill(60);
    const Question& question = questions[1];
    ask(question.page(1));  // from here on the state may be known
    QORMessage request;
    readElement(question.page(1), request);
    QORBinaryIterator select = request.root();
    select.firstChild();
    QORMessage response;
    AtFirstRow committing([] { operation("meanwhile", 2); });
    response.setRowTaker(&committing);
    std::string token;
    {
        const QORClientContextScope scope(fullAccess());
        QORBinaryIterator out = response.root();
        PreparedSelect(select)->execute(out);
        ASSERT_EQ(out.firstChild(tag::rowSet), 0);
        ASSERT_EQ(out.getValue(token, tag::next), 0);
    }
    EXPECT_EQ(ask(question.page(1, token)).get(tag::changed), "true");
    EXPECT_EQ(ask(question.page(1, ask(question.page(1)).next())).get(tag::changed), "false");
}

TEST_F(ChangedTest, IsNotToldOfWhatTheAskerMayNotSee) {
    fill(60);
    const auto mine = accessTo({1, 2, 5});
    begin(mine);
    operation("new", 3);
    import(R"({"kind":"event","time":"2024-05-01 10:00:02","eid":")" + eidOf(4).toString() +
           R"(","source":"x"})"
           "\n");
    import(R"({"kind":"event","time":"2024-05-01 10:00:02","source":"x"})"
           "\n");
    import(R"({"kind":"backup","id":"new","eid":")" + eidOf(3).toString() +
           R"(","time":"2024-05-01 10:00:02","size":1,"type":1})"
           "\n");
    import(R"({"kind":"environment","eid":")" + eidOf(3).toString() +
           R"(","state":7})"
           "\n");
    expect(mine, {false, false, false, false});
    operation("mine", 2);
    expect(mine, {false, true, false, false});
    if (hasTestServers()) return;
    begin(mine);
    runSql("DELETE FROM qor_operation WHERE eid = '" + eidOf(3).toString() + "'");
    runSql("DELETE FROM qor_backup WHERE eid = '" + eidOf(3).toString() + "'");
    runSql("DELETE FROM qor_event WHERE eid IS NULL");
    runSql("DELETE FROM qor_environment WHERE eid = '" + eidOf(7).toString() + "'");
    expect(mine, {false, false, false, false});
    runSql("UPDATE qor_operation SET eid = '" + eidOf(3).toString() + "' WHERE id = 'mine'");
    expect(mine, {false, true, false, false});
    begin(mine);
    import(R"({"kind":"event","time":"2024-05-01 10:00:02","eid":")" + eidOf(1).toString() +
           R"(","source":"x"})"
           "\n");
    import(R"({"kind":"environment","eid":")" + eidOf(2).toString() +
           R"(","state":7})"
           "\n");
    expect(mine, {true, false, true, false});
}

TEST_F(ChangedTest, MayBeWhereNobodyKnows) {
    fill(10);
    const Question nested = Question("vOpLog").field("id").with(
        R"([1742,[[2234,[[1741,"status"],[1740,[[1009,"vOpLog"],[1741,"status"]]]]]]])");
    const std::string token = ask(nested.page(1)).next();
    EXPECT_EQ(ask(nested.page(1, token)).get(tag::changed), "true") << "of what the other view shows";
    EXPECT_EQ(ask(nested.page(1)).get(tag::changed), "<absent>") << "on the first page";
    if (hasTestServers()) return;
    const Question question = Question("vOpLog").field("id");
    const std::string old = ask(question.page(1)).next();
    runSql("DELETE FROM qor_record_change");
    runSql("UPDATE qor_record_number SET n = n + 5");
    runSql("INSERT INTO qor_record_change (n, kind, first, last) SELECT n, 2, 1, 1 FROM qor_record_number");
    EXPECT_EQ(ask(question.page(1, old)).get(tag::changed), "true") << "entries are forgotten";
}

TEST_F(PageTest, CountsGoAsFarAsTheyWereAskedTo) {
    fill(30);
    const Question question = Question("vOpLog").field("id");
    const auto countsOf = [&](const Question& asked, const std::string& count, const QORClientContextPtr& as) {
        return ask(asked.page(7, {}, ",[2403,\"" + count + "\"]"), as);
    };
    Answer answer = countsOf(question, "none", fullAccess());
    EXPECT_THAT(answer.tags(), ElementsAre(tag::statistics, tag::next));
    EXPECT_EQ(answer.get(tag::statistics), "7");
    for (const char* count : {"capped", "exact"}) {
        answer = countsOf(question, count, fullAccess());
        EXPECT_THAT(answer.tags(), ElementsAre(tag::statistics, tag::total, tag::exactness, tag::next));
        EXPECT_EQ(answer.get(tag::total), "30");
        EXPECT_EQ(answer.get(tag::exactness), "exact");
    }
    answer = countsOf(question, "3600000ms", fullAccess());
    EXPECT_THAT(answer.tags(), ElementsAre(tag::statistics, tag::total, tag::exactness, tag::spent, tag::next));
    EXPECT_EQ(answer.get(tag::total), "30");
    EXPECT_EQ(answer.get(tag::exactness), "exact");
    const std::size_t own = ask(question.text(), accessTo({2})).rows.size();
    for (const char* count : {"capped", "exact", "60000ms"})
        EXPECT_EQ(countsOf(question, count, accessTo({2})).get(tag::total), std::to_string(own));
}

TEST_F(PageTest, CountsAreOfTheRowsThatAllPagesHave) {
    fill(30);
    for (const Question& question :
         {Question("vOpLog").field("op").with("[2293]"), Question("vOpLog").field("op").aggregate("count", "id"),
          Question("vOpLog").aggregate("sum", "status"),
          Question("vEventLog").field("source").field("time").with("[2293]").sort("time")}) {
        const std::string rows = std::to_string(ask(question.text()).rows.size());
        for (const char* count : {"capped", "exact", "60000ms"}) {
            const Answer answer = ask(question.page(2, {}, ",[2403,\"" + std::string(count) + "\"]"));
            EXPECT_EQ(answer.get(tag::total), rows) << question.text() << count;
            const Answer whole = ask(Question(question).with("[2403,\"" + std::string(count) + "\"]").text());
            EXPECT_EQ(whole.get(tag::total), rows) << question.text() << count;
            EXPECT_EQ(answer.get(tag::exactness), "exact");
        }
    }
}

TEST_F(PageTest, ACappedCountEndsAtItsCap) {
    QOR_NOT_WITH_SERVERS("stores records by statements of its own");
    storeNumbered("qor_event (time, source)", "'2024-05-01 10:00:00', n", 10001);
    const Question question = Question("vEventLog").field("source");
    const Answer above = ask(question.page(1, {}, R"(,[2403,"capped"])"));
    EXPECT_EQ(above.get(tag::total), "10000");
    EXPECT_EQ(above.get(tag::exactness), "at_least");
    runSql("DELETE FROM qor_event WHERE source = '1'");
    const Answer at = ask(question.page(1, {}, R"(,[2403,"capped"])"));
    EXPECT_EQ(at.get(tag::total), "10000");
    EXPECT_EQ(at.get(tag::exactness), "exact");
    // With a thousand, eight thousand and 64,000 as steps, all are counted in the end.
    EXPECT_EQ(ask(question.page(1, {}, R"(,[2403,"60000ms"])")).get(tag::total), "10000");
}

TEST_F(PageTest, ACountThatTakesTooLongTellsBounds) {
    QOR_NOT_WITH_SERVERS("stores records by statements of its own");
    const std::string eid = ", '" + eidOf(1).toString() + "'";
    storeNumbered("qor_operation (id, op, status, time, eid)", "n, n, 1, '2024-05-01 10:00:00'" + eid, 3000);
    storeNumbered("qor_event (time, source, eid)", "'2024-05-01 10:00:00', n" + eid, 3000);
    runSql("DELETE FROM qor_event WHERE source = '7'");
    // Each event has to be compared with each operation.
    const Question question =
        Question("vEventLog")
            .field("source")
            .with(R"([1742,[[2234,[[1741,"source"],[1740,[[1009,"vOpLog"],[1741,"op"],[1742,[[2231,)"
                  R"([[1741,"op"],[1741,"vEventLog.source"]]]]]]]]]]])");
    const Answer answer = ask(question.page(2, {}, R"(,[2403,"5ms"])"));
    EXPECT_THAT(answer.tags(),
                ElementsAre(tag::statistics, tag::total, tag::exactness, tag::most, tag::spent, tag::next));
    EXPECT_EQ(answer.get(tag::exactness), "between");
    EXPECT_GE(std::stoi(answer.get(tag::total)), 3) << "there is a further page";
    EXPECT_LE(std::stoi(answer.get(tag::total)), 2999);
    EXPECT_EQ(answer.get(tag::most), "3000");
    EXPECT_GT(std::stoi(answer.get(tag::spent)), 0);
    const Answer further = ask(question.page(2, answer.next(), R"(,[2403,"5ms"])"));
    EXPECT_THAT(further.rows, SizeIs(2));
    EXPECT_EQ(further.get(tag::changed), "true");
    const Answer mine = ask(question.page(2, {}, R"(,[2403,"5ms"])"), accessTo({1}));
    EXPECT_EQ(mine.get(tag::exactness), "at_least") << "how many records others have is not told";
}

TEST_F(PageTest, ACountThatIsNoneIsRefused) {
    for (const char* count : {"", "all", "ms", "0ms", "-5ms", "5", "5 ms", "3600001ms", "1e3ms"}) {
        EXPECT_EQ(client.errorOf(Question("vOpLog").field("id").page(1, {}, ",[2403,\"" + std::string(count) + "\"]")),
                  "400 count: \"" + std::string(count) + "\" is none of none, capped, exact and a time such as 200ms");
    }
}

TEST_F(PageTest, WithoutTheElementsNothingChanges) {
    fill(10);
    const std::string answer = client.ask(
        R"([1740,[[1009,"vOpLog"],[1741,"op"],[1741,"id"],[1741,"op"],[1743,[[1741,"op"]]],[1377,[[1024,"4"]]],[1259]]])");
    EXPECT_THAT(answerOf(answer).columns, ElementsAre("id", "op"));
    EXPECT_THAT(answerOf(answer).tags(), ElementsAre(tag::statistics, tag::total));
}

}  // namespace
}  // namespace QOR::test
