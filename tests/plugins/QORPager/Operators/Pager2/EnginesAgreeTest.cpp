// Whoever moves a database from SQLite to PostgreSQL gets the same answers to the same requests.
#include <map>
#include <string>
#include <vector>

#include "plugins/QORPager/Operators/Pager2/PeopleDatabase.h"
#include "support/PostgresServer.h"

namespace QOR::test {
namespace {

constexpr const char* rows = R"sql(
insert into people values
 (1,'Ann','aa',1.5,0.1,5000000000,1,1,'1','aaaaaaaa-0000-0000-0000-000000000001','2024-01-01 00:00:00','x'),
 (2,'bob','b',2,1e30,-5000000000,2,2,'0','bbbbbbbb-0000-0000-0000-000000000002','2024-06-30 12:00:00','y'),
 (3,'Cid','cc',null,null,null,null,null,null,'cccccccc-0000-0000-0000-000000000003',null,''),
 (4,'Änn','',0.30000000000000004,12,9007199254740993,3,3,'1',null,'9999-12-31 23:59:59','10'),
 (10,'50%_of\it''s','dd',-0.25,2.5,7,-7,0,'1',null,'1969-12-31 23:59:58',null);
insert into things values
 ('aaaaaaaa-0000-0000-0000-000000000001','bbbbbbbb-0000-0000-0000-000000000002','one',1),
 ('bbbbbbbb-0000-0000-0000-000000000002','cccccccc-0000-0000-0000-000000000003','two',2),
 ('cccccccc-0000-0000-0000-000000000003',null,'three',3), (null,null,'nobody',4);
)sql";

constexpr const char* views = R"sql(
create view "vPeople" as select * from people;
create view "vNames" as select id, name, guid from people;
create view "vSecure" as select title, eid as "securableObjId", op as "securityOperation_7" from things;
create view "vSecurePair" as select title, eid as "securableObjId0", other as "securableObjId1",
    op as "securityOperation_9" from things;
)sql";

constexpr const char* sqliteTables = R"sql(
create table people(id int, name nvarchar(20), code char(4), score float, ratio decimal, big bigint, small smallint,
    tiny tinyint, flag bit, guid uniqueidentifier, born datetime, free nvarchar);
create table things(eid uniqueidentifier, other uniqueidentifier, title nvarchar(20), op int);
)sql";

constexpr const char* postgresTables = R"sql(
create table people(id int, name varchar(20), code char(4), score float8, ratio numeric, big bigint, small smallint,
    tiny smallint, flag boolean, guid uuid, born timestamp, free text);
create table things(eid uuid, other uuid, title varchar(20), op int);
)sql";

constexpr const char* requests[] = {
    R"(["select",[["view","vPeople"],["field","id"],["field","name"],["field","code"],["field","score"],["field","ratio"],["field","big"],["field","small"],["field","flag"],["field","guid"],["field","born"],["field","free"],["sort",[["field","id"]]],["statistics"]]])",
    R"(["select",[["view","VPEOPLE"],["field","name"],["sort",[["field","name"],["descending"]]],["limit",[["size","3"],["offset","1"]]],["statistics"]]])",
    R"(["select",[["view","vPeople"],["field","name"],["sort",[["field","born"]]]]])",
    R"(["select",[["view","vPeople"],["field","flag"],["distinct"],["sort",[["field","flag"]]],["statistics"]]])",
    R"(["select",[["view","vPeople"],["field","code"],["distinct"],["sort",[["field","code"],["descending"]]],["limit",[["size","2"],["offset","1"]]]]])",
    R"(["select",[["view","vPeople"],["field",[["function",[["name","max"],["field","big"]]]]],["field",[["function",[["name","sum"],["field","small"]]]]],["field",[["function",[["name","average"],["field","tiny"]]]]],["field",[["function",[["name","min"],["field","born"]]]]],["field",[["function",[["name","max"],["field","name"]]]]],["field",[["function",[["name","count"],["field","guid"]]]]]]])",
    R"(["select",[["view","vPeople"],["field","flag"],["field",[["function",[["name","count"],["field","id"]]]]],["sort",[["field","flag"]]]]])",
    R"(["select",[["view","vNothing"],["field","id"]]])",
    R"(["select",[["view","vPeople"],["field","nothing"]]])",
    R"(["select",[["view","vSecure"],["field","title"],["sort",[["field","title"]]],["statistics"]]])",
    R"(["select",[["view","vSecurePair"],["field","title"],["sort",[["field","title"]]],["statistics"]]])",
    R"(["select",[["view","vSecure"],["field","title"],["where",[["like",[["field","title"],["value","%O%"]]]]],["sort",[["field","title"]]]]])",
    R"(["select",[["view","vPeople"],["field","id"],["where",[["in",[["field","guid"],["select",[["view","vSecure"],["field","securableObjId"]]]]]]],["sort",[["field","id"]]]]])",
};

constexpr const char* conditions[] = {
    R"(["eq",[["field","id"],["value","3"]]])",
    R"(["eq",[["field","id"],["value","word"]]])",
    R"(["lt",[["value","5"],["field","id"]]])",
    R"(["eq",[["field","flag"],["value","1"]]])",
    R"(["eq",[["field","flag"],["value","7"]]])",
    R"(["in",[["field","flag"],["value","1"],["value","word"]]])",
    R"(["eq",[["field","small"],["value","70000"]]])",
    R"(["eq",[["field","big"],["value","9007199254740993"]]])",
    R"(["eq",[["field","score"],["value","0.30000000000000004"]]])",
    R"(["eq",[["field","ratio"],["value","0.1"]]])",
    R"(["in",[["field","ratio"],["value","0.10"],["value","1e30"],["value","x"]]])",
    R"(["gt",[["field","name"],["value","Z"]]])",
    R"(["like",[["field","name"],["value","B%"]]])",
    R"(["like",[["field","name"],["value","\u00e4nn"]]])",
    R"(["like",[["field","name"],["value","50!%!_of%"],["escape","!"]]])",
    R"(["like",[["field","name"],["value","%\\it's"]]])",
    R"(["like",[["field","code"],["value","b"]]])",
    R"(["like",[["field","guid"],["value","BBBB%"]]])",
    R"(["like",[["field","born"],["value","2024-0_-%"]]])",
    R"(["like",[["field","name"],["field","code"]]])",
    R"(["eq",[["field","code"],["value","b"]]])",
    R"(["eq",[["field","code"],["value","b   "]]])",
    R"(["eq",[["field","code"],["value",""]]])",
    R"(["eq",[["field","guid"],["value","AAAAAAAA-0000-0000-0000-000000000001"]]])",
    R"(["eq",[["field","guid"],["value","word"]]])",
    R"(["in",[["field","guid"],["value","aaaaaaaa-0000-0000-0000-000000000001"],["value","word"]]])",
    R"(["ge",[["field","born"],["value","2024-01-01"]]])",
    R"(["between",[["field","born"],["value","2024-01-01 00:00:00"],["value","2024-06-30 12:00:00"]]])",
    R"(["between",[["field","born"],["value","2024"],["value","2024-07"]]])",
    R"(["between",[["field","id"],["value","2"],["value","x"]]])",
    R"(["is_null",[["field","guid"]]])",
    R"(["not",[["is_null",[["field","flag"]]]]])",
    R"(["eq",[["function",[["name","lower"],["field","name"]]],["value","ann"]]])",
    R"(["eq",[["function",[["name","upper"],["field","name"]]],["value","\u00c4NN"]]])",
    R"(["eq",[["field","id"],["field","small"]]])",
    R"(["eq",[["field","free"],["field","id"]]])",
    R"(["lt",[["field","small"],["field","big"]]])",
    R"(["eq",[["value","a"],["value","a"]]])",
    R"(["in",[["field","id"],["select",[["view","vNames"],["field","id"],["where",[["eq",[["field","id"],["field","vPeople.small"]]]]]]],["value","10"]]])",
    R"(["in",[["field","id"],["select",[["view","vPeople"],["field",[["function",[["name","max"],["field","small"]]]]]]]]])",
    R"(["in",[["value","Ann"],["field","name"]]])",
    R"(["eq",[["field","name"],["value","'; drop table people; --"]]])",
};

class Pager2Engines : public ::testing::Test {
protected:
    static void open(const std::string& connectionString) {
        ASDatabaseOptions options;
        options.connectionString = connectionString;
        QORRdbms::instance().configure(options);
    }
    static std::map<std::string, std::string> answers() {
        test::forgetMetadata();
        setLogLevel(0);
        {
            const QORClientContextScope scope(restricted({}));
            SelectStmnt::getMetaTablesMap();
        }
        Pager2Client client;
        std::map<std::string, std::string> all;
        const auto one = restricted({{0, 1, QOREID(*QORGUIDBase::parse(guidA))}});
        const auto two =
            restricted({{0, 1, QOREID(*QORGUIDBase::parse(guidB))}, {0, 1, QOREID(*QORGUIDBase::parse(guidC))}});
        for (const char* request : requests) {
            all[request] = normalized(client.ask(request));
            all[std::string("one ") + request] = normalized(client.ask(request, one));
            all[std::string("two ") + request] = normalized(client.ask(request, two));
        }
        for (const char* condition : conditions) {
            for (const char* page : {"", R"(,["limit",[["size","20"]]])"}) {
                const std::string request =
                    R"(["select",[["view","vPeople"],["field","id"],["sort",[["field","id"]]],["where",[)" +
                    std::string(condition) + "]]" + page + "]]";
                all[request] = normalized(client.ask(request));
                const std::string opposite =
                    R"(["select",[["view","vPeople"],["field","id"],["sort",[["field","id"]]],["where",[["not",[)" +
                    std::string(condition) + "]]]]" + page + "]]";
                all[opposite] = normalized(client.ask(opposite));
            }
        }
        return all;
    }
    void TearDown() override {
        test::forgetMetadata();
        QORRdbms::instance().shutdown();
    }
};

TEST_F(Pager2Engines, AnswerEveryRequestAlike) {
    QORRdbms::prepareProcess();
    const TemporaryDirectory folder;
    SqliteFile(folder / "people.db").run(std::string(sqliteTables) + rows + views);
    open("Driver=SQLite3;Database=" + folder.file("people.db"));
    const auto expected = answers();
    const PostgresDatabase database;
    database.connect().run(std::string(postgresTables) + rows + views);
    open(database.connectionString());
    const auto found = answers();
    EXPECT_GT(expected.size(), 100U);
    for (const auto& [request, answer] : expected)
        EXPECT_EQ(found.at(request), answer) << request;
}

}  // namespace
}  // namespace QOR::test
