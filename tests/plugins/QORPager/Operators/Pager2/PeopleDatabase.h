/// \file
/// The database that the tests of "pager2" read: every column type, odd stored values, securable views of every kind.
#pragma once

#include "QORCommon/QORLogger.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "support/Pager2Harness.h"

namespace QOR::test {

inline constexpr const char* guidA = "aaaaaaaa-0000-0000-0000-000000000001";
inline constexpr const char* guidB = "bbbbbbbb-0000-0000-0000-000000000002";
inline constexpr const char* guidC = "cccccccc-0000-0000-0000-000000000003";

inline constexpr const char* peopleSql = R"sql(
create table people(id int, name nvarchar(20), code char(4), score float, ratio decimal, big bigint, small smallint,
    tiny tinyint, flag bit, guid uniqueidentifier, born datetime, note text, picture image, price money, free nvarchar);
insert into people values
 (1,'Ann','aa',1.5,0.1,5000000000,1,1,1,'aaaaaaaa-0000-0000-0000-000000000001','2024-01-01 00:00:00','first',x'0000ff01',
  'cheap','x'),
 (2,'bob','bb',2,1e300,-5000000000,2,2,0,'bbbbbbbb-0000-0000-0000-000000000002','2024-06-30 12:00:00','second',x'',
  '10','y'),
 (3,'Cid','cc',null,null,null,null,null,null,'cccccccc-0000-0000-0000-000000000003',null,null,null,null,''),
 (10,'50%_of\it''s','dd',-0.25,2.5,7,-7,0,1,null,'1969-12-31 23:59:58','x',x'41',null,null);
create view vPeople as select * from people;
create view vNames as select id, name, guid from people;

create table odd(id int, n int, b bigint, d float, g uniqueidentifier, t datetime, s nvarchar(3));
insert into odd values (1,'word','word','word','not a guid','some day','longer than declared'),
 (2,10.5,99999999999999999999,'1,5','AAAAAAAA-0000-0000-0000-000000000001','2024-01-01T10:00:00+02:00',12),
 (3,5000000000,1,1e400,'{bbbbbbbb-0000-0000-0000-000000000002}','2024-01-01','äöüß'),
 (4,'','','','','','');
create view vOdd as select * from odd;

create table things(eid uniqueidentifier, other uniqueidentifier, title nvarchar(20), op int);
insert into things values
 ('aaaaaaaa-0000-0000-0000-000000000001','bbbbbbbb-0000-0000-0000-000000000002','one',1),
 ('bbbbbbbb-0000-0000-0000-000000000002','cccccccc-0000-0000-0000-000000000003','two',2),
 ('cccccccc-0000-0000-0000-000000000003',null,'three',3), (null,null,'nobody',4);
create view vSecure as select title, eid as "securableObjId", op as "securityOperation_7" from things;
create view vSecurePair as select title, eid as "securableObjId0", other as "securableObjId1",
    op as "securityOperation_0", op as "securityOperation_9" from things;
create view vGap as select title, eid as "securableObjId0", other as "securableObjId2", op as "securityOperation_1"
    from things;
create view vNoFirst as select title, eid as "securableObjId1", op as "securityOperation_1" from things;
create view vTooLarge as select title, eid as "securableObjId", op as "securityOperation_2000009" from things;
create view vLargest as select title, eid as "securableObjId", op as "securityOperation_2000008" from things;
create view vNoGuid as select title, op as "securableObjId", op as "securityOperation_1" from things;
create view vSecondNoGuid as select title, eid as "securableObjId0", op as "securableObjId1",
    op as "securityOperation_1" from things;
create view vNoNumber as select title, eid as "securableObjId", op as "securityOperation_x" from things;

-- Rows of object A that every condition can be asked of, and rows of object B on which the engine fails: patterns that
-- are too long, numbers that add up beyond 64 bits, dates that are none, documents that cannot be read.
create table vault(eid uniqueidentifier, title nvarchar(20), body nvarchar, n bigint, m int, born datetime,
    doc nvarchar, op int);
insert into vault values
 ('aaaaaaaa-0000-0000-0000-000000000001','mine','m%',5,1,'2024-01-01 00:00:00','{"a":"x","n":1}',1),
 ('aaaaaaaa-0000-0000-0000-000000000001','more','%o%',7,2,'2024-03-01 00:00:00','{"a":"y","n":2}',1),
 ('bbbbbbbb-0000-0000-0000-000000000002','hidden',replace(hex(zeroblob(60000)),'0','%'),9223372036854775807,2147483647,
  'some day','{broken',1),
 ('bbbbbbbb-0000-0000-0000-000000000002','secret',replace(hex(zeroblob(60000)),'0','%'),9223372036854775807,2147483647,
  'some day','{broken',1);
alter table vault add column part int generated always as (json_extract(doc, '$.n')) virtual;
create view vVault as select title, body, n, m, born, part, json_extract(doc, '$.a') as word,
    eid as "securableObjId", op as "securityOperation_3" from vault;
create view vNumbers as select id, big, small, name, guid, born, picture from people;
)sql";

/// One database for all tests of a program.
class PeopleDatabase {
public:
    PeopleDatabase() : direct(m_folder.path() / "people.db") {
        direct.run(peopleSql);
        reopen();
    }
    std::filesystem::path file() const { return m_folder.path() / "people.db"; }
    void reopen() const { openDatabase(file(), true); }

    static PeopleDatabase& instance() {
        static PeopleDatabase database;
        return database;
    }

private:
    test::TemporaryDirectory m_folder;

public:
    SqliteFile direct;
};

/// A fixture whose metadata was loaded by a client without full access, as an agent does before it listens.
class Pager2Test : public ::testing::Test {
protected:
    Pager2Test() : database(PeopleDatabase::instance()) {
        setLogLevel(0);  // the views have columns of unknown types on purpose
        test::forgetMetadata();
        const QORClientContextScope scope(restricted({}));
        SelectStmnt::getMetaTablesMap();
    }

    PeopleDatabase& database;
    Pager2Client client;
};

}  // namespace QOR::test
