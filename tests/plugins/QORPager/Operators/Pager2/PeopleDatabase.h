/// \file
/// The database that the tests of "pager2" read: every column type, odd stored values, securable views of every kind.
#pragma once

#include "QORCommon/QORLogger.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "rdbmspp/engine/ASDialect.h"
#include "support/DirectDatabase.h"
#include "support/Pager2Harness.h"

namespace QOR::test {

inline constexpr const char* guidA = "aaaaaaaa-0000-0000-0000-000000000001";
inline constexpr const char* guidB = "bbbbbbbb-0000-0000-0000-000000000002";
inline constexpr const char* guidC = "cccccccc-0000-0000-0000-000000000003";

// What differs between the engines are the names of types, the text of bytes, and what it takes to make a row on which
// a condition fails. A text of PostgreSQL's is what SQLite's schemas call nvarchar; their text is bytes.
inline constexpr const char* sqlitePeople = R"sql(
create table people(id int, name nvarchar(20), code char(4), score float, ratio decimal, big bigint, small smallint,
    tiny tinyint, flag bit, guid uniqueidentifier, born datetime, note text, picture image, price money, free nvarchar);
create table things(eid uniqueidentifier, other uniqueidentifier, title nvarchar(20), op int);
)sql";

inline constexpr const char* postgresPeople = R"sql(
create type public.money as enum ('10', 'cheap');
create table people(id int, name varchar(20), code char(4), score float8, ratio numeric, big bigint, small smallint,
    tiny smallint, flag boolean, guid uuid, born timestamp, note bytea, picture bytea, price public.money, free text);
create table things(eid uuid, other uuid, title varchar(20), op int);
)sql";

inline constexpr const char* peopleRows = R"sql(
insert into people values
 (1,'Ann','aa',1.5,0.1,5000000000,1,1,'1','aaaaaaaa-0000-0000-0000-000000000001','2024-01-01 00:00:00','first',null,
  'cheap','x'),
 (2,'bob','bb',2,1e300,-5000000000,2,2,'0','bbbbbbbb-0000-0000-0000-000000000002','2024-06-30 12:00:00','second','',
  '10','y'),
 (3,'Cid','cc',null,null,null,null,null,null,'cccccccc-0000-0000-0000-000000000003',null,null,null,null,''),
 (10,'50%_of\it''s','dd',-0.25,2.5,7,-7,0,'1',null,'1969-12-31 23:59:58','x','A',null,null);
insert into things values
 ('aaaaaaaa-0000-0000-0000-000000000001','bbbbbbbb-0000-0000-0000-000000000002','one',1),
 ('bbbbbbbb-0000-0000-0000-000000000002','cccccccc-0000-0000-0000-000000000003','two',2),
 ('cccccccc-0000-0000-0000-000000000003',null,'three',3), (null,null,'nobody',4);
)sql";

inline constexpr const char* peopleViews = R"sql(
create view "vPeople" as select * from people;
create view "vNames" as select id, name, guid from people;
create view "vNumbers" as select id, big, small, name, guid, born, picture from people;
create view "vSecure" as select title, eid as "securableObjId", op as "securityOperation_7" from things;
create view "vSecurePair" as select title, eid as "securableObjId0", other as "securableObjId1",
    op as "securityOperation_0", op as "securityOperation_9" from things;
create view "vGap" as select title, eid as "securableObjId0", other as "securableObjId2", op as "securityOperation_1"
    from things;
create view "vNoFirst" as select title, eid as "securableObjId1", op as "securityOperation_1" from things;
create view "vTooLarge" as select title, eid as "securableObjId", op as "securityOperation_2000009" from things;
create view "vLargest" as select title, eid as "securableObjId", op as "securityOperation_2000008" from things;
create view "vNoGuid" as select title, op as "securableObjId", op as "securityOperation_1" from things;
create view "vSecondNoGuid" as select title, eid as "securableObjId0", op as "securableObjId1",
    op as "securityOperation_1" from things;
create view "vNoNumber" as select title, eid as "securableObjId", op as "securityOperation_x" from things;
)sql";

// Values that are none of their column's type.
inline constexpr const char* sqliteOdd = R"sql(
update people set picture = x'0000ff01' where id = 1;
create table odd(id int, n int, b bigint, d float, g uniqueidentifier, t datetime, s nvarchar(3));
insert into odd values (1,'word','word','word','not a guid','some day','longer than declared'),
 (2,10.5,99999999999999999999,'1,5','AAAAAAAA-0000-0000-0000-000000000001','2024-01-01T10:00:00+02:00',12),
 (3,5000000000,1,1e400,'{bbbbbbbb-0000-0000-0000-000000000002}','2024-01-01','äöüß'),
 (4,'','','','','','');
create view "vOdd" as select * from odd;
)sql";

inline constexpr const char* postgresOdd = R"sql(
update people set picture = '\x0000ff01' where id = 1;
create domain note as varchar(30);
create table odd(id int, d float8, r real, x numeric, t timestamp, z timestamptz, day date, c char(6), s note, k name);
insert into odd values
 (1,'NaN','NaN','NaN','infinity','infinity','infinity','ab  ','word','k'),
 (2,'Infinity','-Infinity','Infinity','-infinity','-infinity','-infinity','','',''),
 (3,1e-320,0.1,123456789012345678901234567890.5,'0044-03-15 01:02:03 BC','2024-01-01 10:00:00+02','2024-02-29',' a b','x',
  'y'),
 (4,0.1,3.4e38,0.10,'12024-01-01 00:00:00','12024-01-01 00:00:00','0001-01-01','abcdef',null,null),
 (5,null,null,null,'2024-01-01 00:00:00.25',null,null,null,null,null);
create view "vOdd" as select * from odd;
)sql";

// Rows of object A that every condition can be asked of, and rows of object B on which the engine fails: patterns that
// are too long, numbers that add up beyond 64 bits, dates that are none, documents that cannot be read.
inline constexpr const char* sqliteVault = R"sql(
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
create view "vVault" as select title, body, n, m, born, part, json_extract(doc, '$.a') as word,
    eid as "securableObjId", op as "securityOperation_3" from vault;
)sql";

inline constexpr const char* postgresVault = R"sql(
create table vault(eid uuid, title varchar(20), body text, n bigint, m int, born timestamp, doc text, op int);
insert into vault values
 ('aaaaaaaa-0000-0000-0000-000000000001','mine','m%',5,1,'2024-01-01 00:00:00','{"a":"x","n":1}',1),
 ('aaaaaaaa-0000-0000-0000-000000000001','more','%o%',7,2,'2024-03-01 00:00:00','{"a":"y","n":2}',1),
 ('bbbbbbbb-0000-0000-0000-000000000002','hidden',repeat('%',120000),9223372036854775807,2147483647,
  'infinity','{broken',1),
 ('bbbbbbbb-0000-0000-0000-000000000002','secret',repeat('%',120000),9223372036854775807,2147483647,
  'infinity','{broken',1);
create view "vVault" as select title, body, n, m, born, cast(doc::json ->> 'n' as int) as part, doc::json ->> 'a' as word,
    eid as "securableObjId", op as "securityOperation_3" from vault;
)sql";

/// One database for all tests of a program.
class PeopleDatabase {
public:
    PeopleDatabase() : direct(m_database) {
        direct.run(oneOf(sqlitePeople, postgresPeople) + peopleRows + peopleViews + oneOf(sqliteOdd, postgresOdd) +
                   oneOf(sqliteVault, postgresVault));
        reopen();
    }
    void reopen() const { openDatabase(m_database, true); }
    /// What a request could have changed, in a word.
    std::vector<std::vector<std::string>> state() {
        return direct.rows("select count(*), (select count(*) from " + oneOf("sqlite_master", "pg_class") +
                           ") from people");
    }

    static PeopleDatabase& instance() {
        static PeopleDatabase database;
        return database;
    }

private:
    TestDatabase m_database;

public:
    DirectDatabase direct;
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
