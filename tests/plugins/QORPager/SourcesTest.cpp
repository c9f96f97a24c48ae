// The table of sources, beside what else knows of them: fields, the filter language, the shipped vocabulary, the
// manual.
#include "QORPager/QORSources.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "QORLibLocal/QORVocabulary.h"
#include "QORPager/QORBuiltInFields.h"
#include "QORPager/QORDateTimeRewrite.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORExpressionTables.h"
#include "QORPager/QORPagerVocabulary.h"

namespace QOR {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string readFile(const std::string& name) {
    std::ifstream file(QOR_PROJECT_DIR "/" + name);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool isBuiltIn(std::string_view name, TCursorType type) {
    for (const QORBuiltInField& field : builtInFields()) {
        if (field.name == name) return field.cursorType == type;
    }
    return false;
}

TEST(Sources, AreFoundByTheTypeOfTheirFields) {
    for (const TCursorType type : {TCursorType::Env, TCursorType::OpLog, TCursorType::EventLog, TCursorType::Info})
        EXPECT_EQ(sourceOf(type).cursorType, type);
    EXPECT_EQ(pagerSources().size(), 4U);
}

TEST(Sources, NameTheirOwnFieldsOnly) {
    for (const QORSource& source : pagerSources()) {
        for (const QORSourceConstant& constant : source.constants)
            EXPECT_TRUE(isBuiltIn(constant.name, source.cursorType) || source.isParameter(constant.name))
                << constant.name;
        for (const QORSourceColumn& column : source.columns)
            EXPECT_TRUE(isBuiltIn(column.field, source.cursorType) || source.isParameter(column.field)) << column.field;
        for (const QORBuiltInField& field : builtInFields())
            EXPECT_EQ(field.name.starts_with(source.namePrefix), field.cursorType == source.cursorType) << field.name;
    }
}

TEST(Sources, HaveParametersUnderTheirPrefixWhereTheyHaveOne) {
    EXPECT_TRUE(sourceOf(TCursorType::OpLog).isParameter("pager.op_log.parameter.env.eid"));
    EXPECT_FALSE(sourceOf(TCursorType::OpLog).isParameter("pager.op_log.time"));
    EXPECT_FALSE(sourceOf(TCursorType::Env).isParameter("pager.env.eid"));
}

TEST(Sources, CallColumnsByTheLastPartOfTheFieldsName) {
    for (const QORSource& source : pagerSources()) {
        for (const QORSourceColumn& column : source.columns)
            EXPECT_EQ(column.column, column.field.substr(column.field.rfind('.') + 1)) << column.field;
    }
}

TEST(Sources, TakeTheUnitUnderTheNameThatTheParserGivesIt) {
    const QORSourceConstant& unit = sourceOf(TCursorType::Env).constant(QORConstantUse::Unit);
    TExpressionEvaluation filter("pager.env.eid in (unit 'north', recursive)");
    filter.setIdentifier("pager.env.eid", "", true);
    bool found = false;
    EXPECT_EQ(filter.extractConstByIdentifierAndOperation(unit.name, unit.operation, found), "north");
    EXPECT_TRUE(found);
    EXPECT_THAT(filter.usedIdentifiers(), Contains(unit.name));
}

TEST(Sources, ThatAreLogsHaveTheirDatesRewritten) {
    for (const TCursorType log : {TCursorType::OpLog, TCursorType::EventLog}) {
        const std::string name(sourceOf(log).constant(QORConstantUse::Earliest).name);
        EXPECT_EQ(sourceOf(log).constant(QORConstantUse::Latest).name, name);
        std::string filter = name + " >= '1970-01-02'";
        EXPECT_TRUE(transformDateTime(filter));
        EXPECT_EQ(filter, name + " >= 86400");
    }
}

TEST(Sources, ThatComeWithTheConfigurationHaveThePrefixThatIsShipped) {
    QORVocReader reader({pagerVocabulary().begin(), pagerVocabulary().end()});
    ASSERT_TRUE(reader.readText(readFile("packaging/vocabulary.xml"), "vocabulary.xml"));
    reader.checkTogether();
    EXPECT_THAT(reader.mistakes(), IsEmpty());
    QORVocIterator cache;
    ASSERT_EQ(reader.vocabulary()->readCategory(cachesCategory, cache), 0);
    ASSERT_EQ(cache.firstParameter(), 0);
    std::string prefix;
    EXPECT_EQ(cache.getString("info_prefix", prefix), 0);
    for (const QORSource& source : pagerSources()) {
        if (source.prefixIsConfigured) {
            EXPECT_EQ(source.parameterPrefix, prefix);
        }
    }
}

std::string_view turnOf(const QORSourceConstant& constant) {
    switch (constant.turn) {
        case QORConstantTurn::Always:
            return "always";
        case QORConstantTurn::Alternative:
            return "the first of these that is there";
        case QORConstantTurn::Last:
            return "together, when none of those is there";
    }
    return {};
}

std::string manualTable() {
    std::string text = "| Source | Takes | As | Counts |\n|---|---|---|---|\n";
    for (const QORSource& source : pagerSources()) {
        if (!source.hasRows) continue;
        const auto row = [&](std::string_view what, std::string_view meaning, std::string_view turn) {
            text.append("| ").append(source.title).append(" | `").append(what).append("` | ");
            text.append(meaning).append(" | ").append(turn).append(" |\n");
        };
        for (const QORSourceConstant& constant : source.constants)
            row(std::string(constant.name).append(" ").append(spellingOf(constant.operation)), constant.meaning,
                turnOf(constant));
        for (const QORSourceCategory& category : source.categories)
            row(category.filterText, "category, written exactly so", "always");
    }
    return text;
}

TEST(Sources, TheManualShowsWhatEachTakesFromAFilter) {
    EXPECT_THAT(readFile("docs/rows.md"), HasSubstr(manualTable()));
}

}  // namespace
}  // namespace QOR
