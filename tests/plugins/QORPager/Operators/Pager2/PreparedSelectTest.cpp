// Selects that are kept for requests that ask the same again: nobody can tell an answer of theirs from a new one's,
// whoever asked before, and whatever the database holds by now.

#include "QORPager/Operators/Pager2/QORPreparedSelect.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "plugins/QORPager/Operators/Pager2/MadeSelects.h"
#include "plugins/QORPager/Operators/Pager2/PeopleDatabase.h"

namespace QOR::test {
namespace {

QORLocalSID standsFor(const char* guid) {
    return {0, 1, QOREID(QORGUIDBase::parse(guid).value_or(QORGUIDBase()))};
}

const std::vector<MadeSelects::View>& viewsOfPeople() {
    using Kind = MadeSelects::Kind;
    static const std::vector<MadeSelects::View> views{
        {"vSecure", {{"title", Kind::Text}, {"securableObjId", Kind::Guid}, {"securityOperation_7", Kind::Whole}}},
        {"vSecurePair", {{"title", Kind::Text}, {"securableObjId0", Kind::Guid}, {"securableObjId1", Kind::Guid}}},
        {"vNumbers", {{"id", Kind::Whole}, {"big", Kind::Whole}, {"name", Kind::Text}, {"guid", Kind::Guid}}},
    };
    return views;
}

/// The titles of vSecure in their order, a page with its total.
constexpr const char* titlesAndTotal =
    R"(["select",[["ordered"],["view","vSecure"],["field","title"],["sort",[["field","title"]]],["count","exact"]]])";

class PreparedSelects : public Pager2Test {
protected:
    PreparedSelects() { PreparedSelect::forgetAll(); }
    ~PreparedSelects() override { PreparedSelect::forgetAll(); }

    std::string askAnew(const std::string& request, const QORClientContextPtr& as) {
        PreparedSelect::forgetAll();
        return client.ask(request, as);
    }
    std::string total(const QORClientContextPtr& as) {
        QORResponse response = readResponse(client.ask(titlesAndTotal, as));
        QORBinaryIterator it = response.response.root();
        std::string text;
        if (it.firstChild(tag::rowSet) != 0 || it.getValue(text, tag::total) != 0) return "no total";
        return text;
    }
};

TEST_F(PreparedSelects, AnswerEachClientAsNewOnesDo) {
    const std::array<QORClientContextPtr, 4> clients{fullAccess(), restricted({standsFor(guidA)}),
                                                     restricted({standsFor(guidB), standsFor(guidC)}), restricted({})};
    constexpr int made = 150;
    std::size_t kept = 0;
    MadeSelects selects(7, viewsOfPeople());
    for (int number = 0; number < made; ++number) {
        const std::string request = selects.next();
        std::array<std::string, clients.size()> expected;
        for (std::size_t who = 0; who < clients.size(); ++who)
            expected[who] = askAnew(request, clients[who]);
        PreparedSelect::forgetAll();
        for (const std::size_t who : {0U, 1U, 2U, 1U, 3U, 0U, 2U, 3U, 1U})
            ASSERT_EQ(client.ask(request, clients[who]), expected[who]) << "client " << who << ": " << request;
        kept += PreparedSelect::kept();
    }
    EXPECT_GE(kept, std::size_t{made} / 2) << "hardly any of them was kept";
}

TEST_F(PreparedSelects, TellOfWhatTheDatabaseHoldsByNow) {
    const auto lesser = restricted({standsFor(guidA)});
    ASSERT_EQ(total(fullAccess()), "4");
    ASSERT_EQ(total(lesser), "1");
    database.direct.run("insert into things values ('" + std::string(guidA) + "', null, 'added', 1)");
    EXPECT_EQ(total(fullAccess()), "5");
    EXPECT_EQ(total(lesser), "2");
    EXPECT_EQ(valuesOf(client.ask(titlesAndTotal, lesser)).front().front(), "added");
    database.direct.run("delete from things where title = 'added'");
    EXPECT_EQ(total(fullAccess()), "4");
    EXPECT_EQ(total(lesser), "1");
}

TEST_F(PreparedSelects, AreKeptOnceAndServeOneRequestAtATime) {
    for (int times = 0; times < 3; ++times)
        client.ask(titlesAndTotal);
    EXPECT_EQ(PreparedSelect::kept(), 1U);
    QORMessage request;
    readElement(titlesAndTotal, request);
    QORBinaryIterator select = request.root();
    select.firstChild();
    const QORClientContextScope scope(fullAccess());
    PreparedSelect mine(select);
    EXPECT_EQ(PreparedSelect::kept(), 0U);
    PreparedSelect others(select);
    mine.keep();
    others.keep();
    EXPECT_EQ(PreparedSelect::kept(), 2U);
}

TEST_F(PreparedSelects, GoFromThreadToThread) {
    const std::array<QORClientContextPtr, 2> clients{restricted({standsFor(guidA)}),
                                                     restricted({standsFor(guidB), standsFor(guidC)})};
    const std::array<std::string, 2> expected{askAnew(titlesAndTotal, clients[0]), askAnew(titlesAndTotal, clients[1])};
    ASSERT_NE(expected[0], expected[1]);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (std::size_t index = 0; index < 4; ++index) {
        threads.emplace_back([&, index] {
            Pager2Client own;
            for (std::size_t round = 0; round < 50; ++round) {
                const std::size_t who = (index + round) % clients.size();
                if (own.ask(titlesAndTotal, clients[who]) != expected[who]) ++wrong;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_LE(PreparedSelect::kept(), threads.size());
}

TEST_F(PreparedSelects, AreForgottenInTheOrderOfTheirUse) {
    const auto limitedTo = [](std::size_t rows) {
        return R"(["select",[["view","vNames"],["field","name"],["limit",[["size",")" + std::to_string(rows) +
               R"("]]]]])";
    };
    for (std::size_t rows = 1; rows <= PreparedSelect::mostKept + 3; ++rows)
        client.ask(limitedTo(rows));
    EXPECT_EQ(PreparedSelect::kept(), PreparedSelect::mostKept);
    const auto isKept = [&](std::size_t rows) {
        QORMessage request;
        readElement(limitedTo(rows), request);
        QORBinaryIterator select = request.root();
        select.firstChild();
        const QORClientContextScope scope(fullAccess());
        const PreparedSelect taken(select);
        return PreparedSelect::kept() == PreparedSelect::mostKept - 1;
    };
    EXPECT_FALSE(isKept(3));
    EXPECT_TRUE(isKept(4));
}

TEST_F(PreparedSelects, AreNotKeptWhereTheyFailedOrAreLarge) {
    EXPECT_NE(client.errorOf(R"(["select",[["view","vNames"],["field","nothing"]]])"), "");
    EXPECT_NE(client.errorOf(R"(["select",[["ordered"],["view","vNames"],["field","name"],["after","none"]]])"), "");
    const std::string large(PreparedSelect::largestRequest, 'x');
    client.ask(R"(["select",[["view","vNames"],["field","name"],["where",[["eq",[["field","name"],["value",")" + large +
               R"("]]]]]]])");
    EXPECT_EQ(PreparedSelect::kept(), 0U);
}

TEST_F(PreparedSelects, GoOnBehindTheTokenThatARequestHas) {
    const auto page = [&](const std::string& token) {
        const std::string notation = client.ask(
            R"(["select",[["ordered"],["view","vNumbers"],["field","id"],["sort",[["field","id"]]],["limit",[["size","2"]]])" +
            (token.empty() ? "" : R"(,["after",")" + token + "\"]") + "]]");
        QORResponse response = readResponse(notation);
        QORBinaryIterator it = response.response.root();
        std::string next;
        it.firstChild(tag::rowSet);
        it.getValue(next, tag::next);
        std::string ids;
        for (const auto& row : valuesOf(notation))
            ids += row.front() + " ";
        return std::pair(ids, next);
    };
    const auto [first, token] = page("");
    ASSERT_NE(token, "");
    EXPECT_EQ(first, "1 2 ");
    for (int times = 0; times < 2; ++times) {
        EXPECT_EQ(page(token).first, "3 10 ");
        EXPECT_EQ(page("").first, first);
    }
    EXPECT_EQ(PreparedSelect::kept(), 1U) << "each place has a statement of its own";
}

}  // namespace
}  // namespace QOR::test
