// Whoever moves a database from SQLite to PostgreSQL gets the same answers to the same requests.
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "plugins/QORPager/Operators/Pager2/MadeSelects.h"
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

// Rows at the bounds of every type. Numbers of floating point add up to the same in any order.
constexpr const char* madeRows = R"sql(
insert into thing values
 (1,'Ann','aa',1.5,0.1,5000000000,1,'1','aaaaaaaa-0000-0000-0000-000000000001','2024-01-01 00:00:00','x'),
 (2,'ann','b',2,0.2,-5000000000,2,'0','bbbbbbbb-0000-0000-0000-000000000002','2024-06-30 12:00:00','10'),
 (3,'Änn','',-0.25,12.25,9007199254740993,-32768,null,'cccccccc-0000-0000-0000-000000000003',null,''),
 (4,'änn','ä',1024,0.3,9223372036854775807,32767,'1',null,'9999-12-31 23:59:59','010'),
 (5,'😀','zz',0.5,-0.5,-9223372036854775807,0,'0','00000000-0000-0000-0000-000000000000','0001-01-01 00:00:00','1.5'),
 (6,'�','Z',9007199254740992,9007199254740993,9007199254740992,7,'1','ffffffff-ffff-ffff-ffff-ffffffffffff',
  '1969-12-31 23:59:58','2024-01-01 00:00:00'),
 (7,null,null,null,null,null,null,null,null,null,null),
 (2147483647,'','a b',0,0,0,12,'0','aaaaaaaa-0000-0000-0000-000000000001','2024-02-29 00:00:00',
  'aaaaaaaa-0000-0000-0000-000000000001'),
 (-2147483648,'it''s \ %','A_',-1024,100,100,100,'1','11111111-1111-1111-1111-111111111111','1000-01-01 00:00:00','A_'),
 (12,'z','b',0.125,0.1,12,12,'1',null,'2024-01-01 00:00:00','%'),
 (13,'a','a',-7,12.25,-1,-1,null,'bbbbbbbb-0000-0000-0000-000000000002','2024-01-01 00:00:00',' 7 '),
 (14,'~','~',3,0.7,7,7,'0','cccccccc-0000-0000-0000-000000000003','2024-12-31 23:59:59','7'),
 (15,'Ann','AA',1.5,0.1,1,1,'1','aaaaaaaa-0000-0000-0000-000000000001','2024-01-01 00:00:00','x');
insert into record values
 (1,'one','aaaaaaaa-0000-0000-0000-000000000001','bbbbbbbb-0000-0000-0000-000000000002',1,0.1,'2024-01-01 00:00:00'),
 (2,'Two','bbbbbbbb-0000-0000-0000-000000000002','cccccccc-0000-0000-0000-000000000003',2,0.2,'2024-06-30 12:00:00'),
 (3,'Ä','cccccccc-0000-0000-0000-000000000003',null,3,12.5,null),
 (4,'😀',null,null,4,null,'1969-12-31 23:59:58'),
 (5,'ä','aaaaaaaa-0000-0000-0000-000000000001',null,null,-0.5,'9999-12-31 23:59:59'),
 (6,null,'bbbbbbbb-0000-0000-0000-000000000002','aaaaaaaa-0000-0000-0000-000000000001',1,100,'2024-01-01 00:00:00');
create view "vThings" as select * from thing;
create view "vSecure" as select id, title, eid as "securableObjId", op as "securityOperation_7", amount, time from record;
create view "vPair" as select id, title, eid as "securableObjId0", other as "securableObjId1",
    op as "securityOperation_9" from record;
)sql";

constexpr const char* sqliteMade = R"sql(
create table thing(id int, name nvarchar(20), code char(4), score float, ratio decimal, big bigint, small smallint,
    flag bit, guid uniqueidentifier, born datetime, free nvarchar);
create table record(id int, title nvarchar(20), eid uniqueidentifier, other uniqueidentifier, op int, amount decimal,
    time datetime);
)sql";

constexpr const char* postgresMade = R"sql(
create table thing(id int, name varchar(20), code char(4), score float8, ratio numeric, big bigint, small smallint,
    flag boolean, guid uuid, born timestamp, free text);
create table record(id int, title varchar(20), eid uuid, other uuid, op int, amount numeric, time timestamp);
)sql";

class Pager2Engines : public ::testing::Test {
protected:
    static void open(const std::string& connectionString) {
        ASDatabaseOptions options;
        options.connectionString = connectionString;
        QORRdbms::instance().configure(options);
    }
    /// As the host does before anybody asks.
    static void learnViews() {
        test::forgetMetadata();
        setLogLevel(0);
        const QORClientContextScope scope(restricted({}));
        SelectStmnt::getMetaTablesMap();
    }
    /// An answer that does not say by which engine it was given.
    static std::string withoutEngine(std::string answer) {
        for (const std::string_view name : {"SQLite", "PostgreSQL"})
            for (std::size_t at = 0; (at = answer.find(name)) != std::string::npos;)
                answer.replace(at, name.size(), "engine");
        return answer;
    }
    static std::map<std::string, std::string> answers() {
        learnViews();
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

/// Each of some requests, as each of some clients.
struct Asked {
    std::string request;
    int client;
};

std::vector<Asked> madeRequests() {
#ifdef QOR_SANITIZED
    constexpr int wanted = 500;
#else
    constexpr int wanted = 6000;
#endif
    const char* const seed = std::getenv("QOR_TEST_SEED");
    MadeSelects selects(seed != nullptr ? std::strtoull(seed, nullptr, 10) : 1);
    std::vector<Asked> all;
    for (int i = 0; i < wanted; ++i)
        all.push_back({selects.next(), i % 3});
    return all;
}

TEST_F(Pager2Engines, AnswerMadeRequestsAlike) {
    QORRdbms::prepareProcess();
    const TemporaryDirectory folder;
    SqliteFile(folder / "made.db").run(std::string(sqliteMade) + madeRows);
    const PostgresDatabase database;
    database.connect().run(std::string(postgresMade) + madeRows);
    const std::vector<Asked> asked = madeRequests();
    const QORClientContextPtr clients[] = {
        fullAccess(), restricted({{0, 1, QOREID(*QORGUIDBase::parse(guidA))}}),
        restricted({{0, 1, QOREID(*QORGUIDBase::parse(guidB))}, {0, 1, QOREID(*QORGUIDBase::parse(guidC))}})};
    std::vector<std::string> answers[2];
    for (const bool postgres : {false, true}) {
        open(postgres ? database.connectionString() : "Driver=SQLite3;Database=" + folder.file("made.db"));
        learnViews();
        Pager2Client client;
        for (const auto& [request, as] : asked)
            answers[postgres].push_back(withoutEngine(normalized(client.ask(request, clients[as]))));
    }
    std::size_t withRows = 0;
    std::size_t different = 0;
    for (std::size_t i = 0; i < asked.size(); ++i) {
        if (answers[0][i].find("1739") != std::string::npos) ++withRows;
        if (answers[0][i] == answers[1][i]) continue;
        if (++different > 20) continue;
        EXPECT_EQ(answers[1][i], answers[0][i]) << asked[i].client << " " << asked[i].request;
    }
    EXPECT_EQ(different, 0U);
    EXPECT_GT(withRows, asked.size() / 4);
}

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
