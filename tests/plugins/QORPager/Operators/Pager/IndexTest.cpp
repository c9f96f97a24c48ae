// Rows in order, and rows as elements of the response.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "QORFunctionality/QORAccess.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "QORPager/Operators/QORIndex.h"
#include "QORPager/QORFieldGetters.h"
#include "QORPager/QORFieldSet.h"
#include "plugins/QORPager/Operators/Pager/Rows.h"
#include "support/Pager2Harness.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;

QORField operationField(TValueType type) {
    return {"f",     TCursorType::OpLog,      type, getFieldValueImplActionsT<getActionId>,
            nullptr, FieldStructType::Single, "",   "",
            ""};
}

std::vector<std::string> sorted(const std::vector<std::string>& ids, const QORField* field, bool descending) {
    QORFieldIndex index;
    for (const std::string& id : ids) {
        auto row = std::make_shared<QORProgressArg>(nullptr);
        row->record.id = id;
        index.rows.push_back(row);
    }
    index.m_pField = field;
    index.build(descending);
    std::vector<std::string> result;
    for (const ArgCSP& row : index.rows)
        result.push_back(getActionId(dynamic_cast<const QORProgressArg&>(*row)));
    return result;
}

struct OrderRow {
    TValueType type;
    std::vector<std::string> ascending;
};

TEST(FieldIndex, OrdersByTheTypeOfTheField) {
    const std::vector<OrderRow> rows{
        {TValueType::Integer, {"-2", "", "9", "10abc", "11"}},
        {TValueType::String, {"", "10", "9", "A", "a", "\xc3\xa9"}},
        {TValueType::IPAddress, {"none", "2.0.0.1", "10.0.0.1", "200.0.0.1"}},
        {TValueType::Time, {"no time", "1999-12-31", "2000-01-01T00:00+01", "2000-01-01"}},
        {TValueType::Boolean, {"0", "false"}},
    };
    for (const OrderRow& row : rows) {
        const QORField field = operationField(row.type);
        std::vector<std::string> shuffled = row.ascending;
        std::mt19937 random(7);
        for (int round = 0; round < 10; ++round) {
            std::shuffle(shuffled.begin(), shuffled.end(), random);
            EXPECT_EQ(sorted(shuffled, &field, false), row.ascending);
            EXPECT_EQ(sorted(shuffled, &field, true),
                      std::vector<std::string>(row.ascending.rbegin(), row.ascending.rend()));
        }
    }
}

TEST(FieldIndex, LeavesRowsAsTheyWereCollectedWithoutAField) {
    EXPECT_THAT(sorted({"b", "c", "a"}, nullptr, false), ElementsAre("b", "c", "a"));
    EXPECT_THAT(sorted({"b", "c", "a"}, nullptr, true), ElementsAre("b", "c", "a"));
}

TEST(FieldIndex, SortsManyEqualRows) {
    const QORField field = operationField(TValueType::Integer);
    EXPECT_EQ(sorted(std::vector<std::string>(1000, "x"), &field, true).size(), 1000U);
}

TEST(FieldIndex, OrdersStatesAsTextsAndStatusesAsNumbers) {
    QORFieldSet fields;
    fields.init(nullptr);
    QORFieldIndex index;
    index.m_pField = &*fields.find("pager.env.state");
    for (const int state : {9, 10}) {
        index.rows.push_back(std::make_shared<QORArg>(
            makeQORPtr<const QOREnv>(eid(eidA), QOREID(), std::nullopt, QOREnv::Status{state, 0}, nullptr, nullptr)));
    }
    index.build(false);
    EXPECT_EQ(index.m_pField->getValue(*index.rows.front()), "10");

    index.rows.clear();
    index.m_pField = &*fields.find("pager.op_log.status");
    for (const int status : {10, 9}) {
        auto row = std::make_shared<QORProgressArg>(nullptr);
        row->record.status = status;
        index.rows.push_back(row);
    }
    index.build(false);
    EXPECT_EQ(index.m_pField->getValue(*index.rows.front()), "9");
}

#ifndef NDEBUG
TEST(FieldIndexDeathTest, RefusesAFieldWithoutAnOrder) {
    const QORField field = operationField(TValueType::Date);
    EXPECT_DEATH(sorted({"a", "b"}, &field, false), "m_pField->lessValueFunc");
}
#endif

class ResultRow : public ::testing::Test {
protected:
    void SetUp() override { fields.init(nullptr); }
    std::string written(const ArgCSP& row, const std::vector<std::string>& names) {
        std::vector<const QORField*> list;
        for (const std::string& name : names)
            list.push_back(&*fields.find(name));
        QORMessage message;
        QORBinaryIterator at = message.root();
        EXPECT_EQ(writeResultRow(row, list, at), 0);
        EXPECT_EQ(at.curID(), 0U);
        std::string text;
        writeResponse(message, text);
        return text;
    }
    ArgCSP withAddresses(std::vector<std::string> addresses) {
        QOREnvConfigData data;
        data.addresses = std::move(addresses);
        return std::make_shared<QORArg>(makeQORPtr<const QOREnv>(eid(eidA), QOREID(), "t", QOREnv::Status{},
                                                                 makeQORPtr<const QOREnvConfig>(data), nullptr));
    }
    QORFieldSet fields;
};

TEST_F(ResultRow, WritesAnElementAFieldInTheOrderGiven) {
    EXPECT_EQ(written(withAddresses({}), {"pager.env.title", "pager.env.eid", "pager.env.title"}),
              std::string(R"({"response":[[1739,[[1082,[[1018,"t"]]],[1082,[[1018,")") + eidA +
                  R"("]]],[1082,[[1018,"t"]]]]]]})");
    EXPECT_EQ(written(withAddresses({}), {}), R"({"response":[[1739]]})");
}

TEST_F(ResultRow, WritesOneValueOfAListLikeASingleValue) {
    EXPECT_EQ(written(withAddresses({"10.0.0.1"}), {"pager.env.config.ip"}),
              R"({"response":[[1739,[[1082,[[1018,"10.0.0.1"]]]]]]})");
    EXPECT_EQ(written(withAddresses({}), {"pager.env.config.ip"}), R"({"response":[[1739,[[1082,[[1018,""]]]]]]})");
}

TEST_F(ResultRow, WritesSeveralValuesAsNestedElements) {
    EXPECT_EQ(written(withAddresses({"a", "b", "c"}), {"pager.env.config.ip"}),
              R"({"response":[[1739,[[1082,[[1082,[[1018,"a"]]],[1082,[[1018,"b"]]],[1082,[[1018,"c"]]]]]]]]})");
}

TEST_F(ResultRow, FailsWhenTheResponseTakesNoMore) {
    const ArgCSP row = withAddresses({"a", "b"});
    const std::vector<const QORField*> list{&*fields.find("pager.env.title"), &*fields.find("pager.env.config.ip")};
    bool wholeRow = false;
    for (std::size_t nodes = 0; !wholeRow; ++nodes) {
        QORMessage message(QORMessageLimits{64, nodes, 1000});
        QORBinaryIterator at = message.root();
        wholeRow = writeResultRow(row, list, at) == 0;
        EXPECT_EQ(at.curID(), 0U);
        EXPECT_LE(message.nodeCount(), nodes);
        EXPECT_EQ(wholeRow, nodes == 8) << nodes;
        ASSERT_LT(nodes, 20U);
    }
}

}  // namespace
}  // namespace QOR::test
