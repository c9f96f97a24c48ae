// The parts of the driver on their own: pages, constants, names in filters, environments let through.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QORPager/Operators/Pager/QOREIDFilter.h"
#include "QORPager/Operators/Pager/QOREnvPreFilter.h"
#include "QORPager/Operators/Pager/QORFilterConstants.h"
#include "QORPager/Operators/Pager/QORPage.h"
#include "QORPager/QORFieldSet.h"
#include "QORPager/QORFilterNames.h"
#include "plugins/QORPager/Operators/Pager/Rows.h"
#include "support/Pager2Harness.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;

struct PageRow {
    int size;
    int offset;
    std::int64_t records;
    std::int64_t begin;
    std::int64_t end;
};

TEST(Page, IsCutFromTheRecords) {
    constexpr int most = 2147483647;
    const std::vector<PageRow> rows{
        {20, 0, 100, 0, 20},
        {20, 40, 100, 40, 60},
        {20, 90, 100, 90, 100},
        {20, 100, 100, 100, 100},
        {20, 150, 100, 150, 100},
        {0, 10, 100, 10, 100},
        {-1, -1, 100, 0, 100},
        {-5, -5, 0, 0, 0},
        {1, -1, 5, 0, 1},
        {most, most, 5, most, 5},
        {most, 1, 3000000000, 1, 2147483648},
        {0, 0, 3000000000, 0, most},
    };
    for (const PageRow& row : rows) {
        const QORPage page = QORPage::of(row.size, row.offset, row.records);
        EXPECT_EQ(page.begin, row.begin) << row.size << " " << row.offset << " " << row.records;
        EXPECT_EQ(page.end, row.end) << row.size << " " << row.offset << " " << row.records;
        EXPECT_EQ(page.count(), row.end - row.begin);
    }
}

TEST(FilterConstants, ReadsNumbersLikeAtoiButSaturates) {
    const std::vector<std::pair<std::string, std::int32_t>> rows{
        {"", 0},
        {"abc", 0},
        {"12abc", 12},
        {" \t12", 12},
        {"-12", -12},
        {"+12", 12},
        {"--1", 0},
        {"2147483647", 2147483647},
        {"2147483648", 2147483647},
        {"-2147483648", -2147483647 - 1},
        {"-2147483649", -2147483647 - 1},
        {"99999999999999999999999", 2147483647},
        {"-99999999999999999999999", -2147483647 - 1},
    };
    for (const auto& [text, number] : rows)
        EXPECT_EQ(readSaturated(text), number) << text;
}

TEST(FilterConstants, ReadsSecondsOrTimesAndNothingElse) {
    const std::vector<std::pair<std::string, std::optional<std::int32_t>>> rows{
        {"1700000000", 1700000000},
        {"-1", -1},
        {"99999999999", 2147483647},
        {"2023-11-14T22:13:20Z", 1700000000},
        {"2023-11-14 22:13:20", 1700000000},
        {"2100-01-01", 2147483647},
        {"", std::nullopt},
        {"-", std::nullopt},
        {"yesterday", std::nullopt},
        {"1700000000s", std::nullopt},
        {" 1700000000", std::nullopt},
    };
    for (const auto& [text, seconds] : rows)
        EXPECT_EQ(readSeconds(text), seconds) << text;
}

TEST(FilterConstants, AreNoneWithoutAFilter) {
    const QORFilterConstants none(nullptr);
    EXPECT_EQ(none.find("a", ttEqual), std::nullopt);
    EXPECT_TRUE(none.environments("a").isAll());
    EXPECT_EQ(none.timeBound("a", ttLowerOrEqual, 5), 5);
}

TEST(FilterConstants, SelectEnvironments) {
    TExpressionEvaluation filter;
    filter.setIdentifier("e", "", false);
    const QORFilterConstants constants(&filter);
    const auto selection = [&](const std::string& text) {
        filter.setExpression(text);
        EXPECT_FALSE(filter.prepare());
        return constants.environments("e");
    };
    EXPECT_TRUE(selection("e <> 'x'").isAll());
    EXPECT_EQ(selection(std::string("e = '") + eidA + "'").eid(), eid(eidA));
    EXPECT_EQ(selection(std::string("'{") + eidA + "}' = e").eid(), eid(eidA));
    EXPECT_TRUE(selection("e = 'x'").isNone());
    EXPECT_TRUE(selection("e = ''").isNone());
    EXPECT_TRUE(selection("e = 5").isNone());
    for (const char* nil : {"00000000-0000-0000-0000-000000000000", "{00000000-0000-0000-0000-000000000000}"})
        EXPECT_TRUE(selection(std::string("e = '") + nil + "'").isAll()) << nil;
    for (const char* other : {"", "0", "nil", "00000000-0000-0000-0000-00000000000"})
        EXPECT_TRUE(selection(std::string("e = '") + other + "'").isNone()) << other;
}

TEST(FilterNames, AreFoundOutsideOfQuotedTexts) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> rows{
        {"", {}},
        {"a.b=c_1 and 2d", {"a.b", "c_1", "and", "d"}},
        {"'a' b \"c ' d\" e", {"b", "e"}},
        {"a 'it''s b' c", {"a", "c"}},
        {"a 'open b", {"a"}},
        {"'", {}},
        {"upper(x)", {"upper", "x"}},
        {"_a \xc3\xa9z", {"a", "z"}},
    };
    for (const auto& [text, names] : rows) {
        std::vector<std::string> found;
        forEachName(text, [&](std::string_view name) { found.emplace_back(name); });
        EXPECT_EQ(found, names) << text;
    }
}

TEST(EIDFilter, LetsEveryEnvironmentThroughUntilItIsSet) {
    QOREIDFilter filter(0);
    EXPECT_TRUE(filter.check(eid(eidA)));
    EXPECT_TRUE(filter.check(bareEnv().get()));
    EXPECT_FALSE(filter.check(static_cast<const QOREnv*>(nullptr)));
    EXPECT_EQ(filter.set({}), QOREIDFilter::setEmpty);
    EXPECT_FALSE(filter.check(eid(eidA)));
    EXPECT_EQ(filter.set({eid(eidA)}), QOREIDFilter::setDone);
    EXPECT_TRUE(filter.check(eid(eidA)));
    EXPECT_TRUE(filter.check(bareEnv().get()));
    EXPECT_FALSE(filter.check(eid(eidB)));
    EXPECT_FALSE(filter.check(static_cast<const QOREnv*>(nullptr)));
}

TEST(EIDFilter, ChecksAnOperationWhenItHasOne) {
    QOREIDFilter filter(1);
    {
        const QORClientContextScope scope(restricted({QORLocalSID(0, 1, eid(eidA))}));
        EXPECT_EQ(filter.set({eid(eidA)}), QOREIDFilter::setDone);
        EXPECT_EQ(filter.set({eid(eidA), eid(eidB)}), QOREIDFilter::setRefused);
    }
    const QORClientContextScope scope(restricted({}));
    EXPECT_EQ(filter.set({eid(eidA)}), QOREIDFilter::setFailed);
    EXPECT_TRUE(filter.check(eid(eidA))) << "the set counts whatever the check says";
}

class PreFilter : public ::testing::Test {
protected:
    void SetUp() override {
        fields.init(nullptr);
        for (const QORField& field : fields)
            filter.setIdentifier(field.name, "", field.cursorType == TCursorType::Env);
    }
    std::vector<const QORField*> used(const std::string& text) {
        filter.setExpression(text);
        EXPECT_FALSE(filter.prepareSpecial()) << filter.getErrorMessage();
        std::vector<const QORField*> list;
        for (const std::string& name : filter.usedIdentifiers())
            list.push_back(&*fields.find(name));
        return list;
    }
    QORFieldSet fields;
    TExpressionEvaluation filter;
};

TEST_F(PreFilter, EvaluatesTheEnvironmentPart) {
    const QORPtr<const QOREnv> row = fullEnv();
    const std::vector<std::pair<std::string, bool>> rows{
        {"pager.env.state = 6", true},
        {"pager.env.state = 7", false},
        {"pager.env.config.hostname like 'c-%' and pager.op_log.id = 'x'", true},
        {"pager.env.config.os.name <> 'c-os' and pager.op_log.id = 'x'", false},
        {"upper(pager.env.title) = 'TITLE'", true},
        {"pager.env.eid in (unit 'x', recursive) and pager.env.state = 6", true},
    };
    for (const auto& [text, expected] : rows) {
        QOREnvPreFilter preFilter(filter, used(text));
        bool passed = !expected;
        EXPECT_EQ(preFilter.evaluate(row, passed), 0) << text;
        EXPECT_EQ(passed, expected) << text;
    }
}

TEST_F(PreFilter, SaysWhyItCannotEvaluate) {
    const std::vector<std::pair<std::string, std::string>> rows{
        {"pager.env.title", "Invalid type"},
        {"pager.env.title + 1 = 2 or pager.env.title / 2 = 1", "Invalid type"},
        {"pager.env.title like '%longer than the title'", "Evaluation error"},
    };
    for (const auto& [text, error] : rows) {
        QOREnvPreFilter preFilter(filter, used(text));
        bool passed = false;
        EXPECT_LT(preFilter.evaluate(fullEnv(), passed), 0) << text;
        EXPECT_EQ(preFilter.error(), error) << text;
    }
}

TEST_F(PreFilter, TriesEveryCombinationOfSeveralValues) {
    const QORArg row(fullEnv());
    const std::vector<const QORField*> lists{&*fields.find("pager.env.config.ip"),
                                             &*fields.find("pager.env.vconfig.ip"), &*fields.find("pager.env.title")};
    const std::vector<std::pair<std::string, bool>> rows{
        {"pager.env.config.ip = 'c-3' and pager.env.vconfig.ip = 'v-2'", true},
        {"pager.env.config.ip = 'c-1' and pager.env.vconfig.ip = 'v-3' and pager.env.title = 'title'", true},
        {"pager.env.config.ip = 'c-4' or pager.env.vconfig.ip = 'v-0'", false},
        {"pager.env.config.ip = ''", true},
        {"pager.env.config.ip + 1 = 2", false},
        {"pager.env.config.ip like '%too long for them'", false},
    };
    for (const auto& [text, expected] : rows) {
        for (const QORField* field : lists)
            filter.setIdentifier(field->name, "", true);
        used(text);
        EXPECT_EQ(checkMulty(filter, row, lists, 0), expected) << text;
    }
    filter.setIdentifier("pager.env.config.ip", "", true);
    used("pager.env.config.ip = 'c-1'");
    EXPECT_FALSE(checkMulty(filter, row, lists, 1)) << "fields before the index stay as they are bound";
    EXPECT_FALSE(checkMulty(filter, row, {}, 0));
}

}  // namespace
}  // namespace QOR::test
