// What is learned of the views: types, lengths, which are securable; and how literals become typed values.

#include <gtest/gtest.h>

#include <thread>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORPager/Operators/Pager2/QORColumnCell.h"
#include "plugins/QORPager/Operators/Pager2/PeopleDatabase.h"

namespace QOR::test {
namespace {

/// Collects log lines for as long as it lives.
class LogRecorder {
public:
    LogRecorder() {
        m_level = logLevel();
        setLogLevel(5);
        setLogSink([this](const QORLogRecord& record) {
            lines.push_back(std::to_string(record.level) + " " + std::string(record.module) + " " +
                            std::string(record.function) + ": " + std::string(record.text));
        });
    }
    ~LogRecorder() {
        setLogSink({});
        setLogLevel(m_level);
    }
    std::vector<std::string> lines;

private:
    int m_level;
};

TEST(TypeNames, AreTheWholeTable) {
    const std::pair<const char*, ColumnType> expected[] = {
        {"char", ColumnType::Char},
        {"varchar", ColumnType::VarChar},
        {"nvarchar", ColumnType::VarChar},
        {"datetime", ColumnType::DateTime},
        {"float", ColumnType::Double},
        {"decimal", ColumnType::Double},
        {"double", ColumnType::Double},
        {"bigint", ColumnType::BigInt},
        {"int", ColumnType::Int},
        {"smallint", ColumnType::Int},
        {"tinyint", ColumnType::Int},
        {"bit", ColumnType::Int},
        {"uniqueidentifier", ColumnType::Guid},
        {"text", ColumnType::Blob},
        {"image", ColumnType::Blob},
        {"longblob", ColumnType::Blob},
        {"binary", ColumnType::Blob},
    };
    for (const auto& [name, type] : expected)
        EXPECT_EQ(columnTypeFromName(name), type) << name;
    for (const char* const unknown : {"money", "", "Int", "integer", "varchar(20)", "timestamp"}) {
        EXPECT_FALSE(columnTypeFromName(unknown).has_value()) << unknown;
    }
}

TEST(TypeNumbers, AreContract) {
    EXPECT_EQ(static_cast<int>(ColumnType::VarChar), 1);
    EXPECT_EQ(static_cast<int>(ColumnType::Int), 3);
    EXPECT_EQ(static_cast<int>(ColumnType::Double), 4);
    EXPECT_EQ(static_cast<int>(ColumnType::Char), 5);
    EXPECT_EQ(static_cast<int>(ColumnType::BigInt), 16);
    EXPECT_EQ(static_cast<int>(ColumnType::Guid), 86);
    EXPECT_EQ(static_cast<int>(ColumnType::Blob), 95);
    EXPECT_EQ(static_cast<int>(ColumnType::DateTime), 100);
}

TEST(ClipNumericType, KeepsNumbersAndMakesTheRestDouble) {
    EXPECT_EQ(SelectStmnt::clipNumericType(ColumnType::Int), ColumnType::Int);
    EXPECT_EQ(SelectStmnt::clipNumericType(ColumnType::BigInt), ColumnType::BigInt);
    EXPECT_EQ(SelectStmnt::clipNumericType(ColumnType::Double), ColumnType::Double);
    for (const ColumnType type :
         {ColumnType::VarChar, ColumnType::Char, ColumnType::Guid, ColumnType::Blob, ColumnType::DateTime}) {
        EXPECT_EQ(SelectStmnt::clipNumericType(type), ColumnType::Double);
    }
}

TEST(Interpret, MakesTheTypesOwnDataObject) {
    const std::string guid = "AAAAAAAA-0000-0000-0000-000000000001";
    const std::string number = "-12";
    const std::string time = "2024-01-01";
    EXPECT_EQ(SelectStmnt::interpret(ColumnType::VarChar, &number, 3)->Str(), "-12");
    EXPECT_EQ(SelectStmnt::interpret(ColumnType::Char, &number, 3)->type(), ColumnType::Char);
    EXPECT_EQ(SelectStmnt::interpret(ColumnType::Int, &number, 3)->Str(), "-12");
    EXPECT_EQ(SelectStmnt::interpret(ColumnType::BigInt, &number, 3)->type(), ColumnType::BigInt);
    EXPECT_EQ(SelectStmnt::interpret(ColumnType::Double, &number, 3)->Str(), "-12");
    EXPECT_EQ(SelectStmnt::interpret(ColumnType::Guid, &guid, guid.size())->Str(),
              "aaaaaaaa-0000-0000-0000-000000000001");
    EXPECT_EQ(SelectStmnt::interpret(ColumnType::DateTime, &time, time.size())->Str(), "2024-01-01T00:00:00+0000");
    EXPECT_EQ(SelectStmnt::interpret(ColumnType::Blob, &number, 2)->Str(), "-1");
    EXPECT_TRUE(SelectStmnt::interpret(ColumnType::Int, nullptr, 0)->isNull());
}

TEST(Interpret, GivesTextsRoomForOneCharacterMoreThanDeclared) {
    EXPECT_EQ(std::dynamic_pointer_cast<ASVStr>(SelectStmnt::interpret(ColumnType::VarChar, nullptr, 50))->capacity(),
              51U);
    EXPECT_EQ(std::dynamic_pointer_cast<ASStr>(SelectStmnt::interpret(ColumnType::Char, nullptr, 4))->capacity(), 5U);
}

TEST(Interpret, RefusesATypeOutsideTheEnumeration) {
    for (const int type : {0, 2, 101}) {
        try {
            SelectStmnt::interpret(static_cast<ColumnType>(type), nullptr, 0);
            FAIL() << type;
        } catch (const QORException& exception) {
            EXPECT_EQ(exception.code(), 1);
            EXPECT_EQ(exception.message(), "unsupported data type");
            EXPECT_STREQ(exception.sourcePath(), "qor/plugins/QORPager/Operators/QORPagerOperator2");
            EXPECT_GT(exception.line(), 0);
        }
    }
}

TEST(ColumnCells, OfLiteralsAreTextsAndOfSqlAreExpressions) {
    const ColumnCell literal(std::string("O'Hara"), false);
    EXPECT_EQ(literal.asSQLString(), "'O''Hara'");
    EXPECT_FALSE(literal.getAttr());
    EXPECT_EQ(literal.colType(), ColumnType{});
    EXPECT_EQ(literal.asData()->type(), ColumnType::VarChar);
    EXPECT_EQ(literal.asData(ColumnType{})->type(), ColumnType::VarChar);
    const ColumnCell sql(std::string("1 + 1"), true);
    EXPECT_EQ(sql.asSQLString(), "1 + 1");
    ASSERT_TRUE(sql.getAttr());
    EXPECT_EQ(sql.colType(), ColumnType{});
}

TEST(ColumnCells, AnItemOfAListIsALiteralOrSql) {
    const ColumnCell name(SelectStmnt::getDomain("vPeople"), "name", "", ColumnType::VarChar, 20, "");
    EXPECT_EQ(name.inOne(ColumnCell(std::string("O'Hara"), false)).Query(), R"("vPeople"."name" IN ('O''Hara'))");
    EXPECT_EQ(name.inOne(ColumnCell(std::string("'a','b'"), true)).Query(), R"("vPeople"."name" IN ('a','b'))");
}

TEST(ColumnCells, AreFoldedAsSqlText) {
    const ColumnCell name(SelectStmnt::getDomain("vPeople"), "name", "", ColumnType::VarChar, 20, "");
    EXPECT_EQ(name.lower(), R"(lower("vPeople"."name"))");
    EXPECT_EQ(name.upper(), R"(upper("vPeople"."name"))");
    EXPECT_EQ(ColumnCell(std::string("O'Hara"), false).upper(), "upper('O''Hara')");
}

TEST(ColumnCells, BindTheirDataAggregatesToo) {
    const ASDomainPtr domain = SelectStmnt::getDomain("vPeople");
    const ColumnCell column(domain, "score", "", ColumnType::Double, 0, "");
    EXPECT_EQ(column.getAttr()->data(), column.getData());
    const ColumnCell sum(domain, "name", "all", ColumnType::VarChar, 20, "SUM");
    EXPECT_EQ(sum.getAttr()->data().get(), sum.getData().get());
    EXPECT_EQ(sum.getAggrAttr()->data(), sum.getData());
    EXPECT_EQ(sum.colType(), ColumnType::Double);
    EXPECT_EQ(sum.displayName(), "all");
}

struct Securable {
    const char* name;
    std::vector<std::pair<const char*, ColumnType>> columns;
    int operationId;
    const char* log;
};

class SecurableViews : public ::testing::TestWithParam<Securable> {};

TEST_P(SecurableViews, AreToldApartByTheirColumns) {
    MetaTablesMap views;
    for (const auto& [name, type] : GetParam().columns)
        views["vx"].columns.emplace(name, MetaColumn{type, 0});
    views["vx"].securityOperationId = 99;
    const LogRecorder log;
    SelectStmnt::validateSecurableViews(views);
    EXPECT_EQ(views["vx"].securityOperationId, GetParam().operationId);
    if (GetParam().log == nullptr) {
        EXPECT_TRUE(log.lines.empty());
    } else {
        ASSERT_FALSE(log.lines.empty());
        EXPECT_EQ(log.lines.front(), std::string("4 QORPager validateSecurableViews: ") + GetParam().log);
    }
}

constexpr ColumnType guidType = ColumnType::Guid;
constexpr ColumnType intType = ColumnType::Int;
constexpr const char* noOperation = "No field like 'securityOperation_<N>' is found - DB view 'vx' is not secure.";
constexpr const char* neither =
    "Neither 'securableObjId' nor 'securableObjId<N>' fields are found - DB view 'vx' is not secure.";

INSTANTIATE_TEST_SUITE_P(
    Views, SecurableViews,
    ::testing::Values(
        Securable{"OneObject", {{"securityOperation_7", intType}, {"securableObjId", guidType}}, 7, nullptr},
        Securable{"OperationZeroIsSkipped",
                  {{"securityOperation_0", intType}, {"securityOperation_7", intType}, {"securableObjId", guidType}},
                  7,
                  nullptr},
        Securable{"FirstInNameOrderWins",
                  {{"securityOperation_9", intType}, {"securityOperation_10", intType}, {"securableObjId", guidType}},
                  10,
                  nullptr},
        Securable{"LargestOperation",
                  {{"securityOperation_2000008", intType}, {"securableObjId", guidType}},
                  2000008,
                  nullptr},
        Securable{"OperationBeyondTheLargest",
                  {{"securityOperation_2000009", intType}, {"securableObjId", guidType}},
                  0,
                  noOperation},
        Securable{"OperationBeyond32Bits",
                  {{"securityOperation_4294967297", intType}, {"securableObjId", guidType}},
                  0,
                  noOperation},
        Securable{"OperationThatIsNoNumber",
                  {{"securityOperation_x", intType}, {"securableObjId", guidType}},
                  0,
                  noOperation},
        Securable{
            "NegativeOperation", {{"securityOperation_-3", intType}, {"securableObjId", guidType}}, 0, noOperation},
        Securable{"NumberWithATail", {{"securityOperation_12ab", intType}, {"securableObjId", guidType}}, 12, nullptr},
        Securable{"PrefixMindsCase", {{"SecurityOperation_1", intType}, {"securableObjId", guidType}}, 0, noOperation},
        Securable{"NoOperation", {{"securableObjId", guidType}}, 0, noOperation},
        Securable{"NoObject", {{"securityOperation_1", intType}}, 0, neither},
        Securable{"ObjectThatIsNoGuid",
                  {{"securityOperation_1", intType}, {"securableObjId", intType}},
                  0,
                  "'securableObjId' field type is not a GUID - DB view 'vx' is not secure."},
        Securable{"SingleObjectHidesTheNumbered",
                  {{"securityOperation_1", intType}, {"securableObjId", guidType}, {"securableObjId0", intType}},
                  1,
                  nullptr},
        Securable{"NumberedObjects",
                  {{"securityOperation_1", intType}, {"securableObjId0", guidType}, {"securableObjId1", guidType}},
                  1,
                  nullptr},
        Securable{"RunEndsAtTheFirstGap",
                  {{"securityOperation_1", intType}, {"securableObjId0", guidType}, {"securableObjId2", intType}},
                  1,
                  nullptr},
        Securable{"NumberedObjectThatIsNoGuid",
                  {{"securityOperation_1", intType}, {"securableObjId0", guidType}, {"securableObjId1", intType}},
                  0,
                  "'securableObjId1' field type is not a GUID - DB view 'vx' is not secure."},
        Securable{"RunStartsAtZero", {{"securityOperation_1", intType}, {"securableObjId1", guidType}}, 0, neither}),
    [](const auto& tested) { return std::string(tested.param.name); });

class Metadata : public ::testing::Test {
protected:
    void SetUp() override {
        PeopleDatabase::instance().reopen();
        test::forgetMetadata();
    }
};

TEST_F(Metadata, HasTypesAndTheLengthsOfTexts) {
    const QORClientContextScope scope(fullAccess());
    const auto views = SelectStmnt::getMetaTablesMap();
    const auto& people = views->at("vpeople");
    EXPECT_EQ(people.viewName, "vPeople");
    const auto check = [&](const char* column, ColumnType type, std::uint32_t length) {
        EXPECT_EQ(people.columns.at(column).type, type) << column;
        EXPECT_EQ(people.columns.at(column).length, length) << column;
    };
    check("id", ColumnType::Int, 0);
    check("name", ColumnType::VarChar, 20);
    check("code", ColumnType::Char, 4);
    check("score", ColumnType::Double, 0);
    check("ratio", ColumnType::Double, 0);
    check("big", ColumnType::BigInt, 0);
    check("small", ColumnType::Int, 0);
    check("flag", ColumnType::Int, 0);
    check("guid", ColumnType::Guid, 0);
    check("born", ColumnType::DateTime, 0);
    check("note", ColumnType::Blob, 0);
    check("picture", ColumnType::Blob, 0);
    check("price", ColumnType::VarChar, 0);
    check("free", ColumnType::VarChar, 0);
    EXPECT_EQ(views->count("people"), 0U);
}

TEST_F(Metadata, UnknownTypesAreLoggedOnceAndAreTexts) {
    const QORClientContextScope scope(fullAccess());
    const LogRecorder log;
    SelectStmnt::getMetaTablesMap();
    SelectStmnt::getMetaTablesMap();
    EXPECT_EQ(std::count(log.lines.begin(), log.lines.end(),
                         "1 QORPager getMetaTablesMap: vpeople.price unknown column type 'money' - treating as "
                         "string..."),
              1);
}

TEST_F(Metadata, SecurableViewsAreToldApartOnlyWhenTheFirstToAskLacksFullAccess) {
    {
        const QORClientContextScope scope(fullAccess());
        EXPECT_EQ(SelectStmnt::getMetaTablesMap()->at("vsecure").securityOperationId, 0);
    }
    {
        const QORClientContextScope scope(restricted({}));
        EXPECT_EQ(SelectStmnt::getMetaTablesMap()->at("vsecure").securityOperationId, 0);
    }
    test::forgetMetadata();
    const QORClientContextScope scope(restricted({}));
    EXPECT_EQ(SelectStmnt::getMetaTablesMap()->at("vsecure").securityOperationId, 7);
    EXPECT_EQ(SelectStmnt::getMetaTablesMap()->at("vtoolarge").securityOperationId, 0);
}

TEST_F(Metadata, ViewsMadeLaterAreUnknownUntilTheProcessRestarts) {
    const QORClientContextScope scope(fullAccess());
    SelectStmnt::getMetaTablesMap();
    PeopleDatabase::instance().direct.run("create view vLater as select id from people");
    EXPECT_EQ(SelectStmnt::getMetaTablesMap()->count("vlater"), 0U);
    test::forgetMetadata();
    EXPECT_EQ(SelectStmnt::getMetaTablesMap()->count("vlater"), 1U);
    PeopleDatabase::instance().direct.run("drop view vLater");
}

TEST_F(Metadata, SeveralThreadsThatLoadAtOnceShareOneMap) {
    std::vector<std::shared_ptr<const MetaTablesMap>> maps(4);
    std::vector<std::thread> threads;
    for (auto& map : maps) {
        threads.emplace_back([&map] {
            const QORClientContextScope scope(restricted({}));
            map = SelectStmnt::getMetaTablesMap();
        });
    }
    for (auto& thread : threads)
        thread.join();
    for (const auto& map : maps)
        EXPECT_EQ(map, maps.front());
}

TEST_F(Metadata, DomainsAreSharedByTheViewsOwnName) {
    EXPECT_EQ(SelectStmnt::getDomain("vPeople"), SelectStmnt::getDomain("vPeople"));
    EXPECT_EQ(SelectStmnt::getDomain("vPeople")->name(), "vPeople");
    EXPECT_EQ(SelectStmnt::getDomain("vPeople")->secondName(), "");
}

}  // namespace
}  // namespace QOR::test
