// What a result holds: values of every type and form, aggregates, the SQL behind a statement, and failures half-way.

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "QORCommon/QORException.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORPager/Operators/QORPagerOperator2.h"
#include "plugins/QORPager/Operators/Pager2/PeopleDatabase.h"

namespace QOR::test {
namespace {

using Rows = std::vector<std::vector<std::string>>;

class Values : public Pager2Test {
protected:
    Rows column(const std::string& view, const std::string& name) {
        return valuesOf(client.ask(R"(["select",[["view",")" + view + R"("],["field",")" + name +
                                   R"("],["sort",[["field","id"]]]]])"));
    }
    Rows aggregate(const std::string& function, const std::string& name, const std::string& view = "vPeople") {
        return valuesOf(client.ask(aggregateRequest(function, name, view)));
    }
    static std::string aggregateRequest(const std::string& function, const std::string& name,
                                        const std::string& view = "vPeople") {
        return R"(["select",[["view",")" + view + R"("],["field",[["function",[["name",")" + function +
               R"("],["field",")" + name + R"("]]]]]]])";
    }
    static Rows one(const std::string& value) { return {{value}}; }
};

TEST_F(Values, OfEveryTypeAreWrittenInTheirOwnForm) {
    EXPECT_EQ(column("vPeople", "name"), (Rows{{"Ann"}, {"bob"}, {"Cid"}, {"50%_of\\it's"}}));
    EXPECT_EQ(column("vPeople", "code"), (Rows{{"aa"}, {"bb"}, {"cc"}, {"dd"}}));
    EXPECT_EQ(column("vPeople", "score"), (Rows{{"1.5"}, {"2"}, {"<null>"}, {"-0.25"}}));
    EXPECT_EQ(column("vPeople", "ratio"), (Rows{{"0.1"}, {"1e+300"}, {"<null>"}, {"2.5"}}));
    EXPECT_EQ(column("vPeople", "big"), (Rows{{"5000000000"}, {"-5000000000"}, {"<null>"}, {"7"}}));
    EXPECT_EQ(column("vPeople", "small"), (Rows{{"1"}, {"2"}, {"<null>"}, {"-7"}}));
    EXPECT_EQ(column("vPeople", "guid"), (Rows{{guidA}, {guidB}, {guidC}, {"<null>"}}));
    EXPECT_EQ(
        column("vPeople", "born"),
        (Rows{{"2024-01-01T00:00:00+0000"}, {"2024-06-30T12:00:00+0000"}, {"<null>"}, {"1969-12-31T23:59:58+0000"}}));
    EXPECT_EQ(column("vPeople", "price"), (Rows{{"cheap"}, {"10"}, {"<null>"}, {"<null>"}}));
    EXPECT_EQ(column("vPeople", "free"), (Rows{{"x"}, {"y"}, {""}, {"<null>"}}));
}

TEST_F(Values, BlobsAreBinaryContent) {
    EXPECT_EQ(normalized(client.ask(
                  R"(["select",[["view","vPeople"],["field","picture"],["field","note"],["sort",[["field","id"]]]]])")),
              normalized(
                  R"({"response":[["row_set",[["name","note"],["name","picture"],
                  ["row",[["value",{"base64":"Zmlyc3Q="}],["value",{"base64":"AAD/AQ=="}]]],
                  ["row",[["value",{"base64":"c2Vjb25k"}],["value",{"base64":""}]]],
                  ["row",[["value"],["value"]]],
                  ["row",[["value",{"base64":"eA=="}],["value",{"base64":"QQ=="}]]]]]]})"));
}

TEST_F(Values, ThatCannotBeReadAsTheirTypeAreTheTextTheyAre) {
    QOR_ONLY_ON(ASEngine::SQLite);
    EXPECT_EQ(column("vOdd", "n"), (Rows{{"word"}, {"10.5"}, {"5000000000"}, {""}}));
    EXPECT_EQ(column("vOdd", "d").at(0), (std::vector<std::string>{"word"}));
    EXPECT_EQ(column("vOdd", "d").at(1), (std::vector<std::string>{"1,5"}));
    EXPECT_EQ(column("vOdd", "g"), (Rows{{"not a guid"}, {guidA}, {guidB}, {""}}));
    EXPECT_EQ(column("vOdd", "t"),
              (Rows{{"some day"}, {"2024-01-01T08:00:00+0000"}, {"2024-01-01T00:00:00+0000"}, {""}}));
}

TEST_F(Values, OfTypesThatHoldMoreThanOursAreWholeOrTheTextTheyAre) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    EXPECT_EQ(column("vOdd", "d"), (Rows{{"NaN"}, {"Infinity"}, {"1e-320"}, {"0.1"}, {"<null>"}}));
    EXPECT_EQ(column("vOdd", "r"), (Rows{{"NaN"}, {"-Infinity"}, {"0.1"}, {"3.4e+38"}, {"<null>"}}));
    EXPECT_EQ(column("vOdd", "x"),
              (Rows{{"NaN"}, {"Infinity"}, {"123456789012345678901234567890.5"}, {"0.1"}, {"<null>"}}));
    EXPECT_EQ(column("vOdd", "t"), (Rows{{"infinity"},
                                         {"-infinity"},
                                         {"0044-03-15 01:02:03 BC"},
                                         {"12024-01-01 00:00:00"},
                                         {"2024-01-01T00:00:00+0000"}}));
    EXPECT_EQ(column("vOdd", "z"),
              (Rows{{"infinity"}, {"-infinity"}, {"2024-01-01T08:00:00+0000"}, {"12024-01-01 00:00:00"}, {"<null>"}}));
    EXPECT_EQ(
        column("vOdd", "day"),
        (Rows{{"infinity"}, {"-infinity"}, {"2024-02-29T00:00:00+0000"}, {"0001-01-01T00:00:00+0000"}, {"<null>"}}));
    EXPECT_EQ(column("vOdd", "c"), (Rows{{"ab"}, {""}, {" a b"}, {"abcdef"}, {"<null>"}}));
    EXPECT_EQ(column("vOdd", "s"), (Rows{{"word"}, {""}, {"x"}, {"<null>"}, {"<null>"}}));
    EXPECT_EQ(column("vOdd", "k"), (Rows{{"k"}, {""}, {"y"}, {"<null>"}, {"<null>"}}));
}

TEST_F(Values, AreNotCutAtTheDeclaredLength) {
    QOR_ONLY_ON(ASEngine::SQLite);
    EXPECT_EQ(column("vOdd", "s"), (Rows{{"longer than declared"}, {"12"}, {"äöüß"}, {""}}));
}

TEST_F(Values, LongTextsAndBlobsComeWhole) {
    database.direct.run("insert into people(id,free,note,picture) values (77,'" + std::string(200000, 'f') + "','" +
                        std::string(70000, 't') + "'," +
                        oneOf("zeroblob(100000)", "decode(repeat('00', 100000), 'hex')") + ")");
    const auto row = valuesOf(client.ask(
        R"(["select",[["view","vPeople"],["field","free"],["field","note"],["field","picture"],["field","id"],["where",[["eq",[["field","id"],["value","77"]]]]]]])"));
    database.direct.run("delete from people where id = 77");
    ASSERT_EQ(row.size(), 1U);
    EXPECT_EQ(row[0], (std::vector<std::string>{std::string(200000, 'f'), "77", std::string(70000, 't'),
                                                std::string(100000, '\0')}));
}

TEST_F(Values, AggregatesOfNumbers) {
    EXPECT_EQ(aggregate("sum", "id"), one("16"));
    EXPECT_EQ(aggregate("Average", "id"), one("4"));
    EXPECT_EQ(aggregate("min", "small"), one("-7"));
    EXPECT_EQ(aggregate("max", "big"), one("5000000000"));
    EXPECT_EQ(aggregate("sum", "big"), one("7"));
    EXPECT_EQ(aggregate("min", "score"), one("-0.25"));
    EXPECT_EQ(aggregate("average", "score"), one("1.0833333333333333"));
    EXPECT_EQ(aggregate("count", "score"), one("3"));
    EXPECT_EQ(aggregate("count", "note"), one("3"));
}

TEST_F(Values, AggregatesOfDatesAreSecondsSinceTheEpoch) {
    EXPECT_EQ(aggregate("min", "born"), one("-2"));
    EXPECT_EQ(aggregate("max", "born"), one("1719748800"));
}

TEST_F(Values, MinimaAndMaximaOfTextsAndGuidsAreNull) {
    for (const char* const name : {"name", "code", "guid", "price"}) {
        EXPECT_EQ(aggregate("min", name), one("<null>")) << name;
        EXPECT_EQ(aggregate("max", name), one("<null>")) << name;
    }
    EXPECT_EQ(aggregate("count", "guid"), one("3"));
}

TEST_F(Values, ASumBeyond32BitsOfAnIntColumnIsAnErrorNotAWrappedNumber) {
    database.direct.run("insert into people(id) values (2147483647)");
    const QORResponse answer = readResponse(client.ask(aggregateRequest("sum", "id")));
    database.direct.run("delete from people where id = 2147483647");
    ASSERT_TRUE(answer.error.has_value());
    EXPECT_THAT(answer.error->message, ::testing::HasSubstr("2147483663"));
    EXPECT_TRUE(answer.response.empty());
}

TEST_F(Values, AggregatesOfNoRowsAreNullAndCountIsZero) {
    const std::string none = R"(["where",[["eq",[["field","id"],["value","99"]]]]])";
    EXPECT_EQ(valuesOf(client.ask(R"(["select",[["view","vPeople"],)" + none +
                                  R"(,["field",[["function",[["name","sum"],["field","id"]]]]],)"
                                  R"(["field",[["function",[["name","count"],["field","name"]]]]]]])")),
              (Rows{{"<null>", "0"}}));
}

// ---- SQL ------------------------------------------------------------------------------------------------------------

struct Golden {
    const char* name;
    const char* body;
    bool restrictedClient;
};

class SqlText : public Pager2Test, public ::testing::WithParamInterface<Golden> {};

// QOR_UPDATE_GOLDEN=1 writes the files anew.
TEST_P(SqlText, IsAsInItsGoldenFile) {
    const auto as =
        GetParam().restrictedClient
            ? restricted({{0, 1, QOREID(*QORGUIDBase::parse(guidA))}, {0, 2, QOREID(*QORGUIDBase::parse(guidB))}})
            : fullAccess();
    const QORClientContextScope scope(as);
    QORMessage request;
    readElement(GetParam().body, request);
    QORBinaryIterator it = request.root();
    it.firstChild();
    const std::string sql = SelectStmnt(it, nullptr).asSQLString() + "\n";
    const std::string path = std::string(QOR_TEST_DATA_DIR) + "/golden/" + QORRdbms::instance().dialect().name + "/" +
                             GetParam().name + ".sql";
    if (std::getenv("QOR_UPDATE_GOLDEN") != nullptr) {
        std::ofstream(path) << sql;
        return;
    }
    std::ifstream file(path);
    const std::string expected((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_EQ(sql, expected);
    EXPECT_NO_THROW(database.direct.rows(sql));
}

INSTANTIATE_TEST_SUITE_P(
    Statements, SqlText,
    ::testing::Values(
        Golden{"Plain", R"(["select",[["view","vPeople"],["field","name"],["field","id"]]])", false},
        Golden{
            "Page",
            R"(["select",[["view","vPeople"],["field","name"],["sort",[["field","id"],["descending"]]],["sort",[["field","born"]]],["limit",[["size","20"],["offset","40"]]]]])",
            false},
        Golden{"Distinct", R"(["select",[["distinct"],["view","vPeople"],["field","flag"]]])", false},
        Golden{
            "Grouped",
            R"(["select",[["view","vPeople"],["field","flag"],["field",[["function",[["name","max"],["field","born"]]]]],["sort",[["field","born"],["descending"]]]]])",
            false},
        Golden{
            "Literals",
            R"(["select",[["view","vPeople"],["field","id"],["where",[["and",[["eq",[["field","name"],["value","O'Hara"]]],["lt",[["value","5"],["field","small"]]],["ge",[["field","born"],["value","2024-01-01"]]],["ne",[["field","guid"],["value","AAAAAAAA-0000-0000-0000-000000000001"]]],["gt",[["field","score"],["value","1.5"]]]]]]]]])",
            false},
        Golden{
            "Nested",
            R"(["select",[["view","vPeople"],["field","id"],["where",[["in",[["field","id"],["value","it's"],["select",[["view","vNames"],["field","id"],["where",[["like",[["field","name"],["value","a!%%"],["escape","!"]]]]]]]]]]]]])",
            false},
        Golden{
            "Correlated",
            R"(["select",[["view","vPeople"],["field","id"],["where",[["in",[["field","id"],["select",[["view","vNames"],["field","id"],["where",[["eq",[["field","guid"],["field","vPeople.guid"]]]]]]]]]]]]])",
            false},
        Golden{
            "RestrictedNested",
            R"(["select",[["view","vSecurePair"],["field","title"],["where",[["or",[["eq",[["field","title"],["value","a"]]],["in",[["field","title"],["select",[["view","vSecure"],["field","title"]]]]]]]]]]])",
            true}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(Values, AStatementIsReadAndWrittenWithoutAConnection) {
    const QORClientContextScope scope(restricted({{0, 1, QOREID(*QORGUIDBase::parse(guidA))}}));
    QORMessage request;
    readElement(
        R"(["select",[["view","vSecurePair"],["field","title"],["where",[["in",[["field","title"],)"
        R"(["select",[["view","vSecure"],["field","title"],["where",[["like",[["field","title"],["value","a%"]]]]]]]]]]]]])",
        request);
    QORBinaryIterator it = request.root();
    it.firstChild();
    const std::string sql = SelectStmnt(it, nullptr).asSQLString();
    QORRdbms::instance().shutdown();
    EXPECT_EQ(SelectStmnt(it, nullptr).asSQLString(), sql);
    database.reopen();
}

// ---- the handler ----------------------------------------------------------------------------------------------------

TEST_F(Values, HandlerRefusesMissingCursors) {
    const QORClientContextScope scope(fullAccess());
    QORPagerOperatorPrototype2 op;
    QORMessage response;
    QORBinaryIterator out = response.root();
    op.select(nullptr, &out);
    op.select(nullptr, nullptr);
    std::string text;
    writeResponse(response, text);
    EXPECT_EQ(text, R"({"response":[],"error":{"code":1,"message":"[select]: in/out function parameter is null."}})");
}

/// A cursor of another class than the one the operator takes.
class ForeignIterator : public QORMessageIterator {
public:
    explicit ForeignIterator(QORBinaryIterator it) : m_it(it) {}
    QORTag curID() const override { return m_it.curID(); }
    int seekPresence(QORTag id) const override { return m_it.seekPresence(id); }
    int firstChild(QORTag id) override { return m_it.firstChild(id); }
    int seek(QORTag id) override { return m_it.seek(id); }
    int nextSibling(QORTag id) override { return m_it.nextSibling(id); }
    int seekUp() override { return m_it.seekUp(); }
    int reset() override { return m_it.reset(); }
    int seekPath(std::string_view path) override { return m_it.seekPath(path); }
    std::unique_ptr<QORMessageIterator> clone() const override { return std::make_unique<ForeignIterator>(m_it); }
    int getValue(int& out, QORTag id) const override { return m_it.getValue(out, id); }
    int getValue(std::int64_t& out, QORTag id) const override { return m_it.getValue(out, id); }
    int getValue(std::string& out, QORTag id) const override { return m_it.getValue(out, id); }
    int getView(std::string_view& out, QORTag id) const override { return m_it.getView(out, id); }
    int addChild(QORTag id) override { return m_it.addChild(id); }
    int putValue(std::string_view text, QORTag id) override { return m_it.putValue(text, id); }
    int putInt(std::int32_t value, QORTag id) override { return m_it.putInt(value, id); }
    int putInt64(std::int64_t value, QORTag id) override { return m_it.putInt64(value, id); }
    int putBinary(const void* data, std::size_t size, QORTag id) override { return m_it.putBinary(data, size, id); }
    int removeChildren(QORTag id) override { return m_it.removeChildren(id); }

private:
    QORBinaryIterator m_it;
};

TEST_F(Values, HandlerRefusesCursorsOfAnotherClass) {
    const QORClientContextScope scope(fullAccess());
    QORPagerOperatorPrototype2 op;
    QORMessage message;
    ForeignIterator foreign(message.root());
    QORMessage response;
    QORBinaryIterator out = response.root();
    op.select(&foreign, &out);
    std::string text;
    writeResponse(response, text);
    EXPECT_EQ(text, R"({"response":[],"error":{"code":1,"message":"[select]: incorrect iterator type"}})");
}

TEST_F(Values, AResponseThatCannotGrowIsAnErrorAndHoldsNoHalfResult) {
    const QORClientContextScope scope(fullAccess());
    QORMessage request;
    readElement(R"(["select",[["view","vPeople"],["field","id"],["field","name"]]])", request);
    QORBinaryIterator in = request.root();
    in.firstChild();
    QORMessageLimits limits;
    limits.nodes = 9;
    QORMessage response(limits);
    QORBinaryIterator out = response.root();
    QORPagerOperatorPrototype2 op;
    op.select(&in, &out);
    std::string text;
    writeResponse(response, text);
    EXPECT_EQ(text, R"({"response":[],"error":{"code":1,"message":"cannot create new child in output message"}})");
}

// ---- databases that fail
// ----------------------------------------------------------------------------------------------

class FailingDatabase : public ::testing::Test {
protected:
    ~FailingDatabase() override {
        PeopleDatabase::instance().reopen();
        test::forgetMetadata();
    }
    void open(bool readOnly = false) {
        openDatabase(database, readOnly);
        test::forgetMetadata();
    }
    std::string ask(const std::string& extra = "") {
        return client.ask(R"(["select",[["view","vThings"],["field","id"],["field","text"])" + extra + "]]");
    }
    static bool isError(const std::string& answer) {
        const QORResponse response = readResponse(answer);
        EXPECT_TRUE(!response.error || response.response.empty()) << answer;
        EXPECT_TRUE(!response.error || !response.error->message.empty());
        return response.error.has_value();
    }
    void fill(int rows) {
        const std::string number = std::to_string(rows);
        DirectDatabase(database).run("create table things(id int, text " + oneOf("nvarchar", "varchar") +
                                     "(400)); create view \"vThings\" as select * from things; with recursive n(i) as "
                                     "(select 1 union all select i + 1 from n where i < " +
                                     number + ") insert into things select i, " +
                                     oneOf("printf('%0200d', i)", "lpad(cast(i as text), 200, '0')") + " from n");
    }
    /// Makes readers wait, until what it returns is told to roll back.
    std::unique_ptr<DirectDatabase> lock() {
        auto other = std::make_unique<DirectDatabase>(database);
        // What views there are PostgreSQL tells from its own tables.
        other->run(oneOf("begin exclusive", "begin; lock table things, pg_catalog.pg_class in access exclusive mode"));
        return other;
    }

    TestDatabase database;
    Pager2Client client;
};

TEST_F(FailingDatabase, LockedGivesAnErrorAndAWorkingNextRequest) {
    fill(3);
    open(true);  // SQLite without a write-ahead log, so that a writer locks readers out
    EXPECT_FALSE(isError(ask()));
    auto other = lock();
    EXPECT_TRUE(isError(ask()));
    other->run("rollback");
    EXPECT_FALSE(isError(ask()));
}

TEST_F(FailingDatabase, MetadataThatCannotBeReadIsReadByTheNextRequest) {
    fill(3);
    open(true);
    QORRdbmsTran(ASAccess::ReadOne)->execute("select 1");
    auto other = lock();
    EXPECT_TRUE(isError(ask()));
    other->run("rollback");
    EXPECT_FALSE(isError(ask()));
}

TEST_F(FailingDatabase, CorruptPagesInTheMiddleGiveAnErrorWithoutHalfARowSet) {
    QOR_ONLY_ON(ASEngine::SQLite);
    fill(20000);
    DirectDatabase(database).run("pragma wal_checkpoint(truncate)");
    const auto file = database.file();
    const auto size = std::filesystem::file_size(file);
    std::filesystem::copy_file(file, database.folder() / "sound.db");
    {
        std::fstream damaged(file, std::ios::in | std::ios::out | std::ios::binary);
        const std::string junk(8192, '\x5a');
        for (std::uintmax_t position = size / 2; position + junk.size() < size; position += size / 10) {
            damaged.seekp(static_cast<std::streamoff>(position / 4096 * 4096));
            damaged.write(junk.data(), static_cast<std::streamsize>(junk.size()));
        }
    }
    open();
    EXPECT_TRUE(isError(ask()));
    EXPECT_FALSE(isError(ask(R"(,["limit",[["size","5"]]])")));
    std::filesystem::copy_file(database.folder() / "sound.db", file, std::filesystem::copy_options::overwrite_existing);
    openDatabase(database);
    EXPECT_FALSE(isError(ask()));
}

TEST_F(FailingDatabase, ARowInTheMiddleThatCannotBeMadeGivesAnErrorWithoutHalfARowSet) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    fill(20000);
    DirectDatabase(database).run(
        "drop view \"vThings\"; create view \"vThings\" as select id, text, 1 / (id - 15000) as part from things");
    open();
    EXPECT_TRUE(isError(ask(R"(,["field","part"])")));
    EXPECT_FALSE(isError(ask(R"(,["field","part"],["limit",[["size","5"]]])")));
    EXPECT_FALSE(isError(ask()));
}

TEST_F(FailingDatabase, ATableThatWentAwayGivesAnErrorAndAWorkingNextRequest) {
    fill(3);
    open();
    EXPECT_FALSE(isError(ask()));
    DirectDatabase direct(database);
    direct.run("alter table things rename to others; drop view \"vThings\"");
    EXPECT_TRUE(isError(ask()));
    direct.run("alter table others rename to things; create view \"vThings\" as select * from things");
    EXPECT_FALSE(isError(ask()));
}

TEST_F(FailingDatabase, ReadOnlyFilesCanBeRead) {
    QOR_ONLY_ON(ASEngine::SQLite);
    fill(3);
    DirectDatabase(database).run("pragma journal_mode=delete");
    std::filesystem::permissions(database.file(), std::filesystem::perms::owner_read);
    open(true);
    EXPECT_FALSE(isError(ask()));
}

TEST_F(FailingDatabase, TwoClientsAtOnceEachGetTheirRows) {
    fill(500);
    open();
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([&wrong, index] {
            Pager2Client own;
            for (int round = 0; round < 50; ++round) {
                const std::string first = std::to_string(index * 100 + round);
                const auto rows = valuesOf(own.ask(
                    R"(["select",[["statistics"],["view","vThings"],["field","id"],["sort",[["field","id"]]],["limit",[["size","1"],["offset",")" +
                    first + R"("]]]]])"));
                if (rows != Rows{{std::to_string(index * 100 + round + 1)}}) ++wrong;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace QOR::test
