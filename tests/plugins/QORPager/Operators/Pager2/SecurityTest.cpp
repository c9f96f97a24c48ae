// Row security: which rows of securable views a client sees, in pages, counts, aggregates and nested selects alike.

#include <gtest/gtest.h>

#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "plugins/QORPager/Operators/Pager2/PeopleDatabase.h"

namespace QOR::test {
namespace {

QORLocalSID sid(const char* guid, int type = 1, int id = 0) {
    return {id, type, QOREID(QORGUIDBase::parse(guid).value_or(QORGUIDBase()))};
}

std::string titles(const std::vector<std::vector<std::string>>& rows) {
    std::string text;
    for (const auto& row : rows)
        text += (text.empty() ? "" : " ") + row.at(0);
    return text;
}

class RowSecurity : public Pager2Test {
protected:
    std::string seen(const char* view, const QORClientContextPtr& as) {
        return titles(valuesOf(client.ask(
            std::string(R"(["select",[["view",")") + view + R"("],["field","title"],["sort",[["field","title"]]]]])",
            as)));
    }
};

TEST_F(RowSecurity, FullAccessSeesEveryRow) {
    EXPECT_EQ(seen("vSecure", fullAccess()), "nobody one three two");
}

TEST_F(RowSecurity, AClientSeesTheRowsOfItsIdentities) {
    EXPECT_EQ(seen("vSecure", restricted({sid(guidA)})), "one");
    EXPECT_EQ(seen("vSecure", restricted({sid(guidA), sid(guidC)})), "one three");
    EXPECT_EQ(seen("vSecure", restricted({sid(guidA), sid(guidA), sid(guidB, 2)})), "one two");
}

TEST_F(RowSecurity, OnlyPrincipalZeroOfTypeOneOrTwoCounts) {
    EXPECT_EQ(seen("vSecure", restricted({sid(guidA, 0)})), "");
    EXPECT_EQ(seen("vSecure", restricted({sid(guidA, 3)})), "");
    EXPECT_EQ(seen("vSecure", restricted({sid(guidA, 1, 5)})), "");
    EXPECT_EQ(seen("vSecure", restricted({sid(guidA, 3), sid(guidB, 2)})), "two");
    EXPECT_EQ(seen("vSecure", restricted({sid("00000000-0000-0000-0000-000000000000")})), "");
}

TEST_F(RowSecurity, AClientWithoutIdentitiesSeesNoRow) {
    EXPECT_EQ(seen("vSecure", restricted({})), "");
}

TEST_F(RowSecurity, AnyObjectColumnLetsARowThrough) {
    EXPECT_EQ(seen("vSecurePair", restricted({sid(guidB)})), "one two");
    EXPECT_EQ(seen("vSecurePair", restricted({sid(guidC)})), "three two");
}

TEST_F(RowSecurity, ColumnsBehindAGapAreNoObjectColumns) {
    EXPECT_EQ(seen("vGap", restricted({sid(guidB)})), "two");
}

TEST_F(RowSecurity, ViewsThatAreNotSecurableAreOpen) {
    for (const char* const view : {"vNoFirst", "vTooLarge", "vNoGuid", "vSecondNoGuid", "vNoNumber"}) {
        EXPECT_EQ(seen(view, restricted({})), "nobody one three two") << view;
    }
    EXPECT_EQ(seen("vLargest", restricted({})), "");
}

TEST_F(RowSecurity, TheRequestsOwnConditionIsKeptWhole) {
    const auto as = restricted({sid(guidA), sid(guidC)});
    const char* const either =
        R"(["select",[["view","vSecure"],["field","title"],["sort",[["field","title"]]],["where",[["or",[["eq",[["field","title"],["value","two"]]],["eq",[["field","title"],["value","three"]]]]]]]]])";
    EXPECT_EQ(titles(valuesOf(client.ask(either, as))), "three");
}

TEST_F(RowSecurity, CountsDistinctAndAggregatesAreRestrictedToo) {
    const auto as = restricted({sid(guidA), sid(guidC)});
    EXPECT_EQ(
        normalized(client.ask(
            R"(["select",[["statistics"],["view","vSecure"],["field","title"],["limit",[["size","1"]]],["sort",[["field","title"]]]]])",
            as)),
        normalized(
            R"({"response":[["row_set",[["name","title"],["row",[["value","one"]]],["statistics","1"],["total","2"]]]]})"));
    EXPECT_EQ(
        valuesOf(client.ask(
            R"(["select",[["view","vSecure"],["field",[["function",[["name","sum"],["field","securityOperation_7"]]]]]]])",
            as)),
        (std::vector<std::vector<std::string>>{{"4"}}));
    EXPECT_EQ(
        titles(valuesOf(client.ask(
            R"(["select",[["distinct"],["view","vSecure"],["field","title"],["sort",[["field","title"]]]]])", as))),
        "one three");
}

TEST_F(RowSecurity, NestedSelectsAreRestrictedOnTheirOwn) {
    const char* const nested =
        R"(["select",[["view","vTooLarge"],["field","title"],["sort",[["field","title"]]],["where",[["in",[["field","title"],["select",[["view","vSecure"],["field","title"]]]]]]]]])";
    EXPECT_EQ(titles(valuesOf(client.ask(nested, restricted({sid(guidB)})))), "two");
    EXPECT_EQ(titles(valuesOf(client.ask(nested, restricted({})))), "");
    EXPECT_EQ(titles(valuesOf(client.ask(nested, fullAccess()))), "nobody one three two");
}

TEST_F(RowSecurity, OperationsAreRegisteredOnTheOutermostStatement) {
    const QORClientContextScope scope(restricted({sid(guidA)}));
    QORMessage request;
    readElement(
        R"(["select",[["view","vSecure"],["field","title"],["where",[["in",[["field","title"],["select",[["view","vGap"],["field","title"]]]]]]]]])",
        request);
    QORBinaryIterator it = request.root();
    it.firstChild();
    const SelectStmnt statement(it, nullptr);
    EXPECT_EQ(statement.registeredOperationIds(), (std::set<int>{1, 7}));
}

TEST_F(RowSecurity, WithoutValidationEveryViewIsOpen) {
    test::forgetMetadata();
    EXPECT_EQ(seen("vSecure", fullAccess()), "nobody one three two");
    EXPECT_EQ(seen("vSecure", restricted({})), "nobody one three two");
}

}  // namespace
}  // namespace QOR::test
