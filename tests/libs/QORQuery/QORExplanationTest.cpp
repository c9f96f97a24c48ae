// What becomes of a question travels as rows, whole, and is shown as one object.
#include "QORQuery/QORExplanation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QORCommon/QORException.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORTags.h"
#include "support/Json.h"

namespace QOR {
namespace {

using test::jsonAt;

QORExplanation ofView() {
    QORExplanation explanation;
    explanation.view = "vOpLog";
    explanation.engine = "SQLite";
    explanation.access = "eid = 'x'";
    explanation.statements = {{"SELECT ?", {"'a'", "2"}, {"SCAN x", "  SEARCH y"}, true, false, true},
                              {"SELECT 2", {}, {}, false, true, false}};
    explanation.indexes = {{"one", {"a", "b"}}, {"two", {"c"}}};
    explanation.estimate = 12;
    explanation.most = 0;
    explanation.warnings = {{"code", "where", "text \"x\"", 3, "found", "better"},
                            {"other", "", "no place", {}, "", ""}};
    return explanation;
}

QORExplanation travelled(const QORExplanation& explanation, bool asValues) {
    QORMessage message;
    EXPECT_EQ(explanation.write(message.root()), 0);
    QORExplanation read;
    QORExplanationReader reader(read);
    const QORMessageNode* const rowSet = message.rootNode()->firstChild;
    EXPECT_EQ(rowSet->tag, tag::rowSet);
    for (const QORMessageNode* child = rowSet->firstChild; child != nullptr; child = child->next) {
        if (!asValues || child->tag != tag::row) {
            reader.child(*child);
            continue;
        }
        std::vector<QORRowValue> values;
        for (const QORMessageNode* value = child->firstChild; value != nullptr; value = value->next)
            values.push_back({{value->data, value->size}, value->kind});
        reader.row(values);
    }
    reader.end(nullptr);
    return read;
}

TEST(Explanation, TravelsAsRowsWhole) {
    for (const bool asValues : {false, true}) {
        const QORExplanation view = ofView();
        EXPECT_EQ(travelled(view, asValues).json(""), view.json(""));
        QORExplanation source;
        source.source = "events";
        source.isRestricted = true;
        source.narrowing = {"a = 1", "b = 2"};
        source.ignored = {"c != 3"};
        source.tested = "a = 1 and c != 3";
        source.order = "second";
        EXPECT_EQ(travelled(source, asValues).json(""), source.json(""));
        EXPECT_EQ(travelled({}, asValues).json(""), QORExplanation().json(""));
    }
}

TEST(Explanation, IsOneObject) {
    const std::string json = ofView().json("äbcdef");
    EXPECT_EQ(jsonAt(json, "statements/0"),
              R"({"sql":"SELECT ?","parameters":["'a'","2"],"plan":["SCAN x","  SEARCH y"],)"
              R"("servesCondition":true,"servesOrder":false,"elsewhere":true})");
    EXPECT_EQ(jsonAt(json, "indexes/0"), R"({"name":"one","columns":["a","b"]})");
    EXPECT_EQ(jsonAt(json, "estimate"), R"({"rows":12,"most":0})");
    EXPECT_EQ(jsonAt(json, "warnings/0"),
              R"({"code":"code","message":"text \"x\"","parameter":"where","position":2,"found":"found",)"
              R"("suggestion":"better"})")
        << "in characters";
    EXPECT_EQ(jsonAt(json, "warnings/1"), R"({"code":"other","message":"no place"})");
    EXPECT_EQ(jsonAt(json, "access"), R"("eid = 'x'")");
}

TEST(Explanation, WhoSeesSomeRowsGetsNoStatementsAndNoEstimates) {
    QORExplanation explanation = ofView();
    explanation.isRestricted = true;
    const std::string json = explanation.json("");
    for (const char* const member : {"statements", "engine", "estimate"})
        EXPECT_EQ(jsonAt(json, member), "") << json;
    EXPECT_NE(jsonAt(json, "indexes"), "");
}

TEST(Explanation, RowsThatAreNotKnownArePassedOver) {
    QORExplanation explanation;
    for (const std::vector<std::string>& row : std::vector<std::vector<std::string>>{
             {}, {"view"}, {"something", "else"}, {"warning", "short"}, {"index column", "without index"}})
        explanation.take(row);
    EXPECT_EQ(explanation.json(""), QORExplanation().json(""));
    explanation.take({"plan", "without a statement"});
    EXPECT_EQ(explanation.statements.size(), 1U);
}

TEST(Explanation, AnErrorOfTheOperatorIsThrown) {
    QORExplanation explanation;
    QORExplanationReader reader(explanation);
    const QORAnswerError error{400, "no"};
    EXPECT_THROW(reader.end(&error), QORException);
}

TEST(Explanation, AMessageThatTakesNoMoreIsTold) {
    QORMessageLimits limits;
    limits.nodes = 12;
    QORMessage message(limits);
    EXPECT_NE(ofView().write(message.root()), 0);
}

TEST(Explanation, WarningsRestOnWhatItKnowsOfTheView) {
    QORExplanation explanation;
    explanation.view = "v";
    explanation.indexes = {{"one", {"t"}}};
    explanation.most = manyRows;
    const QORColumnTypes types = [](std::string_view, std::string_view) { return std::string("nvarchar"); };
    explanation.lint("s like '%x'", {.view = "v", .levels = 62, .types = types}, {"s"}, {});
    ASSERT_EQ(explanation.warnings.size(), 2U);
    EXPECT_EQ(explanation.warnings[0].code, "leading_wildcard");
    EXPECT_EQ(explanation.warnings[1].code, "sorts_all");
    QORExplanation nothing;
    nothing.view = "v";
    nothing.lint("s like '%x'", {.view = "v", .levels = 62, .types = types}, {"s"}, {});
    EXPECT_TRUE(nothing.warnings.empty()) << "of a view of somebody else's";
}

}  // namespace
}  // namespace QOR
