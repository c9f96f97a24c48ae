// What an exact request is answered besides rows, and what becomes of its pages while the log changes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "QORCommon/QORMemory.h"
#include "QORCommon/QORRequestControl.h"
#include "plugins/QORPager/Operators/Pager/ExactAnswer.h"
#include "plugins/QORPager/Operators/Pager/PagerHost.h"
#include "support/ResidentMemory.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

constexpr const char* failed = "pager.op_log.status <> 0";

/// `count` operations from `first` on, ten of each second; every third one failed; by turns of three environments.
std::string operations(int first, int count, std::int64_t second = 1700000000, const std::string& further = {}) {
    static constexpr const char* owners[] = {eidA, eidB, eidC};
    std::string lines;
    for (int number = first; number < first + count; ++number) {
        lines += R"({"kind":"operation","id":"o)" + std::to_string(number) + R"(","op":"run","status":)" +
                 std::to_string(number % 3 == 0 ? number % 7 + 1 : 0) + R"(,"time":)" +
                 std::to_string(second + number / 10) + R"(,"eid":")" + owners[number % 3] + "\"" + further + "}\n";
    }
    return lines;
}

std::string sortBy(const std::string& field, bool descending = false) {
    return ",[1743,[[1741,\"" + field + "\"]" + (descending ? ",[1378]" : "") + "]]";
}
std::string count(const std::string& how) {
    return ",[2403,\"" + how + "\"]";
}

class ExactPages : public ::testing::Test {
protected:
    std::string ask(const std::string& where, const std::string& more, const QORClientContextPtr& as = fullAccess()) {
        Ask ask{{"pager.op_log.id"}, {}, exact + more};
        if (!where.empty()) ask.where = where;
        return client.ask(ask.body(), as);
    }
    std::string idsOf(const std::string& where, const std::string& more = {},
                      const QORClientContextPtr& as = fullAccess()) {
        const Answer answer = readAnswer(ask(where, more, as));
        EXPECT_EQ(answer.error, "") << where;
        return firstCells(answer);
    }
    static void waitFor(const QORRequestControl& control) {
        while (!control.isDue())
            std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    /// All pages of a question, each with a deadline of its own that has passed when it begins.
    std::string walked(const std::string& where, const std::string& more, int size, std::size_t& pages,
                       std::chrono::milliseconds deadline = std::chrono::milliseconds::zero()) {
        PageWalk walk(client, Ask{{"pager.op_log.id"}, where, exact + more}, size);
        std::string ids;
        while (!walk.ended()) {
            const auto control = std::make_shared<QORRequestControl>(deadline);
            if (deadline.count() > 0) waitFor(*control);
            const QORRequestScope scope(control);
            if (!walk.next()) ADD_FAILURE() << walk.answer().error;
            const std::string page = firstCells(walk.answer());
            ids += (ids.empty() || page.empty() ? "" : " ") + page;
        }
        pages = walk.pages();
        return ids;
    }

    PagerHost host;
    PagerClient client;
};

TEST_F(ExactPages, AComparisonMeansWhatItSays) {
    host.import(operations(1, 9));
    EXPECT_EQ(idsOf(failed), "o9 o6 o3");
    EXPECT_EQ(idsOf("pager.op_log.status = 0 and not pager.op_log.id = 'o2'"), "o8 o7 o5 o4 o1");
    EXPECT_EQ(idsOf("PAGER.OP_LOG.STATUS <> 0"), "o9 o6 o3") << "the language knows names in any case";
    EXPECT_EQ(idsOf("1 = 2"), "") << "a filter that names no field is asked too";
    EXPECT_EQ(idsOf("not pager.op_log.id like '%longer than any'", pageOf(2)), "o9 o8");
    EXPECT_EQ(idsOf("pager.op_log.time > \"2023-11-14T22:13:19Z\"", pageOf(1)), "o9") << "in either quotes";
    EXPECT_EQ(idsOf(std::string("pager.op_log.parameter.env.eid = '{") + eidA + "}'"), "o9 o6 o3");
    EXPECT_EQ(idsOf("pager.op_log.parameter.env.eid = 'no GUID'"), "");
}

TEST_F(ExactPages, ColumnsAreThoseAskedForAsOftenAsAskedFor) {
    host.import(operations(3, 1));
    const std::string answer =
        client.ask(Ask{{"pager.op_log.status", "pager.op_log.id", "pager.op_log.status"}, {}, exact}.body());
    EXPECT_THAT(readAnswer(answer).rows, ElementsAre(ElementsAre("4", "o3", "4")));
}

TEST_F(ExactPages, WalksNeitherSkipNorRepeatRowsOfEqualKeys) {
    host.import(operations(1, 200));
    for (const std::string& sort :
         {std::string(), sortBy("pager.op_log.time"), sortBy("pager.op_log.time", true), sortBy("pager.op_log.op"),
          sortBy("pager.op_log.status", true), sortBy("pager.op_log.time") + sortBy("pager.op_log.status", true),
          sortBy("pager.op_log.time", true) + sortBy("pager.op_log.op"),
          sortBy("pager.op_log.status") + sortBy("pager.op_log.time", true)}) {
        SCOPED_TRACE(sort);
        std::size_t pages = 0;
        EXPECT_EQ(walked(failed, sort, 7, pages), idsOf(failed, sort));
        EXPECT_EQ(pages, 10U);  // of 66 rows
    }
}

TEST_F(ExactPages, APageMayHaveAnotherSizeThanTheOneBefore) {
    host.import(operations(1, 60));
    const std::string sort = sortBy("pager.op_log.op");
    PageWalk walk(client, Ask{{"pager.op_log.id"}, failed, exact + sort}, 3);
    ASSERT_TRUE(walk.next());
    EXPECT_EQ(firstCells(walk.answer()), "o3 o6 o9");
    walk.setSize(100);
    ASSERT_TRUE(walk.next());
    EXPECT_THAT(firstCells(walk.answer()), StartsWith("o12 o15"));
    EXPECT_EQ(walk.answer().rows.size(), 17U);
    EXPECT_TRUE(walk.ended());
}

TEST_F(ExactPages, ATokenAfterAnOffsetGoesOnBehindThePage) {
    host.import(operations(1, 60));
    for (const std::string& sort : {std::string(), sortBy("pager.op_log.status")}) {
        const std::string first = ask(failed, sort + limit(4, 5));
        const auto token = told(first, tag::next);
        ASSERT_TRUE(token);
        EXPECT_EQ(firstCells(readAnswer(ask(failed, sort + pageOf(4) + ",[2402,\"" + *token + "\"]"))),
                  idsOf(failed, sort + limit(4, 9)));
    }
}

TEST_F(ExactPages, WhatComesLaterStandsWhereItBelongsAndMovesNothing) {
    for (const std::string& sort : {std::string(), sortBy("pager.op_log.time"), sortBy("pager.op_log.status")}) {
        SCOPED_TRACE(sort);
        static int batch = 0;
        const std::int64_t begin = 1600000000 + 1000000LL * ++batch;
        const std::string where = std::string(failed) + " and pager.op_log.time >= '" + time2str(begin) +
                                  "' and pager.op_log.time <= '" + time2str(begin + 100000) + "'";
        host.import(operations(batch * 1000 + 1, 90, begin + 50 - batch * 100));
        const std::string before = idsOf(where, sort);
        PageWalk walk(client, Ask{{"pager.op_log.id"}, where, exact + sort}, 10);
        ASSERT_TRUE(walk.next());
        EXPECT_EQ(told(walk.text(), tag::changed), std::nullopt) << "nothing is said of a first page";
        std::string ids = firstCells(walk.answer());
        ASSERT_TRUE(walk.next());
        EXPECT_EQ(told(walk.text(), tag::changed), "false");
        ids += " " + firstCells(walk.answer());
        // Before all, behind all, and beside those of every second.
        for (const std::int64_t at : {0, 1, 5, 9, 90000})
            host.import(operations(batch * 1000 + 300 + static_cast<int>(at % 1000), 1, begin + at - batch * 100 - 30));
        std::string late;
        while (walk.next()) {
            EXPECT_EQ(told(walk.text(), tag::changed), "true");
            for (const auto& row : walk.answer().rows)
                (before.find(row.front() + " ") != std::string::npos || before.ends_with(row.front()) ? ids : late) +=
                    " " + row.front();
        }
        EXPECT_EQ(ids, before);
    }
}

TEST_F(ExactPages, RowsThatGoBetweenPagesLeaveTheOthersWhereTheyAre) {
    host.import(operations(1, 60));
    for (const std::string& sort : {std::string(), sortBy("pager.op_log.status")}) {
        PageWalk walk(client, Ask{{"pager.op_log.id"}, "pager.op_log.id like 'o%'", exact + sort}, 10);
        ASSERT_TRUE(walk.next());
        const std::string last = walk.answer().rows.back().front();
        QOR_NOT_WITH_SERVERS("rows are taken out of the table of one server");
        host.run("DELETE FROM qor_operation WHERE id = '" + last + "'");
        ASSERT_TRUE(walk.next());
        EXPECT_EQ(told(walk.text(), tag::changed), "true");
        EXPECT_THAT(firstCells(walk.answer()), Not(HasSubstr(last + " ")));
        EXPECT_EQ(firstCells(walk.answer()), idsOf("pager.op_log.id like 'o%'", sort + limit(10, 9)));
    }
}

TEST_F(ExactPages, ADeadlineEndsAPageWithATokenThatGoesOnToTheSameRows) {
    host.import(operations(1, 3000));
    for (const std::string& sort : {std::string(), sortBy("pager.op_log.time"), sortBy("pager.op_log.status", true),
                                    sortBy("pager.op_log.time") + sortBy("pager.op_log.id")}) {
        SCOPED_TRACE(sort);
        std::size_t whole = 0;
        std::size_t cut = 0;
        const std::string expected = walked("pager.op_log.id like '%77'", sort, 8, whole);
        EXPECT_EQ(walked("pager.op_log.id like '%77'", sort, 8, cut, std::chrono::milliseconds(1)), expected);
        EXPECT_GT(cut, 90U) << "a piece is read of a page that is due, and no more";
    }
}

TEST_F(ExactPages, ADeadlineThatNothingCanGoOnFromIsAnError) {
    host.import(operations(1, 3000));
    const auto due = [&](const std::string& more) {
        const auto control = std::make_shared<QORRequestControl>(std::chrono::milliseconds(1));
        waitFor(*control);
        const QORRequestScope scope(control);
        return readAnswer(ask("pager.op_log.id like 'o%'", more)).error;
    };
    EXPECT_EQ(due(sortBy("pager.op_log.status")), "408 the request's deadline of 1 ms has passed") << "no page";
    EXPECT_EQ(due(sortBy("pager.op_log.status") + limit(5, 20)), "");
}

TEST_F(ExactPages, ALargePageThatIsCutOffGoesOnInSmallerOnes) {
    host.import(operations(1, 3000));
    std::size_t pages = 0;
    const std::string sort = sortBy("pager.op_log.status");
    EXPECT_EQ(walked("pager.op_log.id like 'o%'", sort, 2500, pages, std::chrono::milliseconds(1)),
              idsOf("pager.op_log.id like 'o%'", sort));
    EXPECT_GT(pages, 3U);
}

TEST_F(ExactPages, CountsAsFarAsItIsAskedTo) {
    host.import(operations(1, 90));
    struct Case {
        std::string more;
        std::optional<std::string> written;
        std::optional<std::string> total;
        std::optional<std::string> exactness;
    };
    const std::vector<Case> cases{
        {pageOf(4), {}, {}, {}},
        {pageOf(4) + counts, "4", "30", {}},
        {pageOf(4) + count("none"), "4", {}, {}},
        {pageOf(4) + counts + count("none"), "4", {}, {}},
        {pageOf(4) + count("exact"), "4", "30", "exact"},
        {pageOf(4) + count("capped"), "4", "30", "exact"},
        {pageOf(4) + count("60000ms"), "4", "30", "exact"},
        {sortBy("pager.op_log.status") + pageOf(4) + count("exact"), "4", "30", "exact"},
        {limit(4, 28) + count("exact"), "2", "30", "exact"},
        {count("exact"), "30", "30", "exact"},
    };
    for (const Case& one : cases) {
        const std::string answer = ask(failed, one.more);
        EXPECT_EQ(told(answer, tag::statistics), one.written) << one.more;
        EXPECT_EQ(told(answer, tag::total), one.total) << one.more;
        EXPECT_EQ(told(answer, tag::exactness), one.exactness) << one.more;
        EXPECT_EQ(told(answer, tag::spent).has_value(), one.more.find("60000ms") != std::string::npos) << one.more;
        EXPECT_EQ(told(answer, tag::next).has_value(), one.more.find("1377") != std::string::npos) << one.more;
    }
    EXPECT_EQ(told(ask("", pageOf(4) + count("exact")), tag::total), "90");
    EXPECT_EQ(told(ask("pager.op_log.time >= '2023-11-14T22:13:22Z'", pageOf(4) + count("exact")), tag::total), "71");
}

TEST_F(ExactPages, TheTotalIsTheSameOnEveryPage) {
    host.import(operations(1, 90));
    for (const std::string& sort : {std::string(), sortBy("pager.op_log.status")}) {
        PageWalk walk(client, Ask{{"pager.op_log.id"}, failed, exact + sort + count("exact")}, 7);
        while (walk.next())
            EXPECT_EQ(told(walk.text(), tag::total), "30");
        EXPECT_EQ(walk.pages(), 5U);
    }
}

TEST_F(ExactPages, ATotalThatIsNotAllCountedSaysSo) {
    host.import(operations(1, 10'500));
    const std::string where = "pager.op_log.id like 'o%'";
    const std::string capped = ask(where, pageOf(1) + count("capped"));
    EXPECT_EQ(told(capped, tag::total), "10000");
    EXPECT_EQ(told(capped, tag::exactness), "at_least");
    EXPECT_EQ(told(ask("", pageOf(1) + count("capped")), tag::total), "10500") << "known without looking";

    const std::string timed = ask(where, pageOf(1) + count("1ms"));
    EXPECT_EQ(told(timed, tag::exactness), "between");
    const std::int64_t least = std::stoll(told(timed, tag::total).value());
    EXPECT_LT(least, 10'500);
    EXPECT_EQ(told(timed, tag::most), "10500") << "all that were not looked at may be among them";
    EXPECT_TRUE(told(timed, tag::spent));

    const auto control = std::make_shared<QORRequestControl>(std::chrono::milliseconds(1));
    waitFor(*control);
    const QORRequestScope scope(control);
    const std::string due = ask(where, pageOf(1) + counts);
    EXPECT_EQ(told(due, tag::exactness), "at_least") << "a total that is a bound never passes for one";
    EXPECT_EQ(readAnswer(due).error, "");
}

TEST_F(ExactPages, ARestrictedClientHasItsRowsAndTheirCounts) {
    host.import(operations(1, 90));
    const auto asA = restricted({QORLocalSID(0, 1, eid(eidA))});
    const auto asAB = restricted({QORLocalSID(0, 1, eid(eidA)), QORLocalSID(0, 1, eid(eidB))});
    EXPECT_EQ(idsOf(failed, pageOf(3), asA), "o90 o87 o84") << "eidA has those whose numbers divide by three";
    EXPECT_EQ(idsOf("pager.op_log.status = 0", {}, asA), "");
    EXPECT_EQ(idsOf("", pageOf(4), asAB), "o90 o88 o87 o85");
    EXPECT_EQ(idsOf("", sortBy("pager.op_log.time") + pageOf(3), asAB), "o1 o3 o4");
    EXPECT_EQ(told(ask(failed, pageOf(1) + count("exact"), asAB), tag::total), "30");
    EXPECT_EQ(told(ask("", pageOf(1) + count("exact"), asAB), tag::total), "60");
    EXPECT_EQ(idsOf("", {}, restricted({})), "");
}

TEST_F(ExactPages, RightsAreTheAskersAndNotTheTokens) {
    host.import(operations(1, 90));
    const auto asA = restricted({QORLocalSID(0, 1, eid(eidA))});
    const auto token = told(ask("", pageOf(3)), tag::next);
    ASSERT_TRUE(token);
    EXPECT_EQ(idsOf("", pageOf(3) + ",[2402,\"" + *token + "\"]", asA), "o87 o84 o81");
    EXPECT_EQ(idsOf("", pageOf(3) + ",[2402,\"" + *token + "\"]", restricted({})), "");
}

TEST_F(ExactPages, WhatAPageThatWasCutOffHadFoundIsShownToNobodyElse) {
    host.import(operations(1, 600));
    // What is found first stays first.
    const std::string page = sortBy("pager.op_log.status", true) + pageOf(6);
    std::optional<std::string> token;
    {
        const auto control = std::make_shared<QORRequestControl>(std::chrono::milliseconds(1));
        waitFor(*control);
        const QORRequestScope scope(control);
        const std::string cut = ask("pager.op_log.status = 0", page);
        EXPECT_EQ(firstCells(readAnswer(cut)), "");
        token = told(cut, tag::next);
    }
    ASSERT_TRUE(token);
    const std::string rest = page + ",[2402,\"" + *token + "\"]";
    EXPECT_EQ(idsOf("pager.op_log.status = 0", rest), idsOf("pager.op_log.status = 0", page));
    const auto asB = restricted({QORLocalSID(0, 1, eid(eidB))});
    for (const auto& row : readAnswer(ask("pager.op_log.status = 0", rest, asB)).rows)
        EXPECT_EQ(std::stoi(row.front().substr(1)) % 3, 1) << row.front() << " is not eidB's";
}

TEST_F(ExactPages, AFilterIsNotAskedOfRowsThatTheClientMayNotSee) {
    const std::string number = R"(,"message":{"n":"12"})";
    const std::string text = R"(,"message":{"n":"twelve"})";
    host.import(operations(3, 1, 1700000000, number) + operations(4, 1, 1700000000, text));
    const std::string where = "pager.op_log.parameter.n > 5";
    EXPECT_EQ(readAnswer(ask(where, {})).error, "3152 Pager evaluating error: Invalid type (operation \"o4\")");
    EXPECT_EQ(idsOf(where, {}, restricted({QORLocalSID(0, 1, eid(eidA))})), "o3");
    EXPECT_EQ(idsOf(where, pageOf(1) + count("exact"), restricted({QORLocalSID(0, 1, eid(eidA))})), "o3");
}

TEST_F(ExactPages, WhatOthersDoIsNoChangeToAClientThatDoesNotSeeIt) {
    host.import(operations(1, 90));
    PageWalk walk(client, Ask{{"pager.op_log.id"}, {}, exact}, 5, restricted({QORLocalSID(0, 1, eid(eidA))}));
    ASSERT_TRUE(walk.next());
    host.import(operations(301, 1));  // eidB's
    ASSERT_TRUE(walk.next());
    EXPECT_EQ(told(walk.text(), tag::changed), "false");
    host.import(operations(300, 1));  // eidA's
    ASSERT_TRUE(walk.next());
    EXPECT_EQ(told(walk.text(), tag::changed), "true");
}

TEST_F(ExactPages, ATokenIsOfOneQuestion) {
    host.import(operations(1, 90));
    const std::string token = told(ask(failed, pageOf(3)), tag::next).value_or("");
    const std::string after = ",[2402,\"" + token + "\"]";
    EXPECT_EQ(readAnswer(ask(failed, pageOf(3) + after)).error, "");
    EXPECT_EQ(readAnswer(ask(failed, pageOf(9) + counts + count("capped") + after)).error, "");
    EXPECT_EQ(readAnswer(ask("pager.op_log.status = 0", pageOf(3) + after)).error,
              "400 after: the page token belongs to another question");
    EXPECT_EQ(readAnswer(ask(failed, sortBy("pager.op_log.op") + pageOf(3) + after)).error,
              "400 after: the page token belongs to another question");
    EXPECT_EQ(readAnswer(ask(failed, pageOf(3) + ",[2402,\"AAAA\"]")).error,
              "400 the page token is not one of this database's");
    EXPECT_THAT(readAnswer(ask(failed, limit(3, 0) + after)).error, StartsWith("400 after: "));
}

TEST_F(ExactPages, WhatCannotBeMeantIsRefused) {
    EXPECT_EQ(readAnswer(ask("", count("many"))).error,
              "400 count: \"many\" is none of none, capped, exact and a time such as 200ms");
    EXPECT_THAT(readAnswer(ask("", count("0ms"))).error, StartsWith("400 count: "));
    EXPECT_EQ(client.errorOf(Ask{{"pager.op_log.id"}, {}, count("exact")}.body()),
              "400 after and count are for exact requests");
    EXPECT_EQ(readAnswer(ask("", sortBy("pager.event_log.time"))).error,
              "3151 Pager parsing error: Can't sort by a field of another table: pager.event_log.time");
    EXPECT_EQ(readAnswer(ask("", sortBy("pager.op_log.nothing"))).error,
              "3111 Pager error: unknown field \"pager.op_log.nothing\"");
}

TEST_F(ExactPages, WhatIsHeldDoesNotGrowWithTheLog) {
    const std::string text(4000, 'x');
    for (int batch = 0; batch < 8; ++batch)
        host.import(operations(1 + batch * 1000, 1000, 1700000000, R"(,"message":{"text":")" + text + "\"}"));
    QORMemoryBudget budget;
    const auto asked = [&](const std::string& more) {
        const QORMemoryScope scope(std::make_shared<QORMemoryAccount>(budget, std::size_t{1} << 20));
        return readAnswer(ask("pager.op_log.parameter.text like '%x'", more));
    };
    const std::size_t before = residentBytes();
    for (const std::string& sort : {std::string(), sortBy("pager.op_log.time"), sortBy("pager.op_log.id")}) {
        const Answer answer = asked(sort + pageOf(20) + counts);
        EXPECT_EQ(answer.error, "");
        EXPECT_EQ(answer.counts, (std::pair<std::int64_t, std::int64_t>(20, 8000)));
    }
    if (residentMemoryTells) {
        EXPECT_LT(residentBytes(), before + (std::size_t{16} << 20));
    }
    EXPECT_THAT(asked(sortBy("pager.op_log.id")).error, HasSubstr("the rows to be sorted")) << "32 MB of texts";
}

TEST_F(ExactPages, EventsOfEveryCategoryAreFound) {
    host.import(R"({"kind":"event","time":1700000000,"source":"a","category":"resource_alert"}
{"kind":"event","time":1700000001,"source":"b","category":"other"}
{"kind":"event","time":1700000002,"source":"c"}
{"kind":"event","time":1700000003,"source":"d","category":"other"})");
    const auto sources = [&](const std::string& where, const std::string& more) {
        Ask ask{{"pager.event_log.source"}, {}, exact + more};
        if (!where.empty()) ask.where = where;
        return firstCells(readAnswer(client.ask(ask.body())));
    };
    EXPECT_EQ(sources("", {}), "d c b a");
    EXPECT_EQ(sources("", sortBy("pager.event_log.category")), "c b d a");
    EXPECT_EQ(sources("pager.event_log.category = 'other'", {}), "d b");
    EXPECT_EQ(sources("pager.event_log.category <> 'other'", sortBy("pager.event_log.time")), "a c");
}

TEST_F(ExactPages, BackupsShowWhatTheyAreFoundBy) {
    host.useShippedVocabulary();
    PagerClient backups;
    host.import(R"({"kind":"backup","id":"b1","time":1700000000,"name":"Web","hostname":"h","info":{"a":{"b":"c"}}})");
    const Ask ask{{"pager.backup.id", "pager.backup.info.name", "pager.backup.info.hostname", "pager.backup.info.a.b"},
                  "pager.backup.info.name like 'W%' and pager.backup.info.a.b = 'c'",
                  exact};
    EXPECT_THAT(readAnswer(backups.ask(ask.body())).rows, ElementsAre(ElementsAre("b1", "Web", "h", "c")));
}

}  // namespace
}  // namespace QOR::test
