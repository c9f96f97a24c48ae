#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// How many records a log has in any span of time, without walking it. A counter stands for the records of one scope in
// the span [bucket << level, (bucket + 1) << level) of seconds. Every record counts in a bucket of level 24 (194
// days); a bucket that has come to hold more than 256 is split: those within it at the next level (20, 16, 12, 8, 4,
// 0) count too, and go on counting. So quiet scopes have few counters, and busy ones buckets small enough to walk.
//
// Scopes of operations: '' all, an environment's GUID those that belong to it or touch it, '+' and the GUIDs of
// several environments (in order, blanks between them) those that are of exactly these. With the last kind operations
// of several environments can be counted once. Scopes of events: '/category' and 'GUID/category'; those without a
// category are not counted.
//
// QORLogCounters keeps the counters up to date; what is here must agree with it.
//
// The buckets of one level that are too full, and what is in them at the next.
#define QOR_SPLIT(table, wider, finer)                                                                            \
    "UPDATE " table " SET split = 1 WHERE level = " wider " AND n > 256",                                         \
        "INSERT INTO " table " SELECT m.scope, " finer ", m.second >> " finer                                     \
        ", count(*), 0 FROM temp.qor_migrated m CROSS JOIN " table " c ON c.scope = m.scope AND c.level = " wider \
        " AND c.bucket = m.second >> " wider " AND c.split = 1 GROUP BY 1, 3"

constexpr const char* counterSchemaStatements[] = {
    "CREATE INDEX qor_event_category_eid ON qor_event (category, eid, time)",

    R"sql(CREATE TABLE qor_operation_count (
    scope nvarchar NOT NULL,
    level int NOT NULL,
    bucket bigint NOT NULL,
    n bigint NOT NULL,
    split int NOT NULL DEFAULT 0,
    PRIMARY KEY (scope, level, bucket)
) WITHOUT ROWID)sql",
    R"sql(CREATE TABLE qor_event_count (
    scope nvarchar NOT NULL,
    level int NOT NULL,
    bucket bigint NOT NULL,
    n bigint NOT NULL,
    split int NOT NULL DEFAULT 0,
    PRIMARY KEY (scope, level, bucket)
) WITHOUT ROWID)sql",
    // Which scopes of several environments there are.
    R"sql(CREATE TABLE qor_operation_scope (
    eid uniqueidentifier NOT NULL,
    scope nvarchar NOT NULL,
    PRIMARY KEY (eid, scope)
) WITHOUT ROWID)sql",

    // What an older version has recorded.
    "CREATE TEMP TABLE IF NOT EXISTS qor_migrated (scope, second)",
    R"sql(INSERT INTO temp.qor_migrated SELECT '', CAST(strftime('%s', time) AS INTEGER) FROM qor_operation)sql",
    R"sql(INSERT INTO temp.qor_migrated
    SELECT eid, CAST(strftime('%s', max(time)) AS INTEGER) FROM qor_operation_environment GROUP BY operation, eid)sql",
    R"sql(INSERT INTO temp.qor_migrated
    SELECT '+' || group_concat(eid, ' '), CAST(strftime('%s', max(time)) AS INTEGER)
    FROM (SELECT operation, eid, max(time) AS time FROM qor_operation_environment GROUP BY operation, eid)
    GROUP BY operation HAVING count(*) > 1)sql",
    R"sql(INSERT INTO qor_operation_count SELECT scope, 24, second >> 24, count(*), 0
    FROM temp.qor_migrated GROUP BY 1, 3)sql",
    QOR_SPLIT("qor_operation_count", "24", "20"),
    QOR_SPLIT("qor_operation_count", "20", "16"),
    QOR_SPLIT("qor_operation_count", "16", "12"),
    QOR_SPLIT("qor_operation_count", "12", "8"),
    QOR_SPLIT("qor_operation_count", "8", "4"),
    QOR_SPLIT("qor_operation_count", "4", "0"),
    "DELETE FROM temp.qor_migrated",
    R"sql(INSERT INTO qor_operation_scope
    WITH RECURSIVE member(scope, eid, rest) AS (
        SELECT scope, substr(scope, 2, 36), substr(scope, 39) FROM qor_operation_count
        WHERE level = 24 AND substr(scope, 1, 1) = '+' GROUP BY scope
        UNION ALL SELECT scope, substr(rest, 1, 36), substr(rest, 38) FROM member WHERE rest <> '')
    SELECT DISTINCT eid, scope FROM member)sql",

    R"sql(INSERT INTO temp.qor_migrated
    SELECT '/' || category, CAST(strftime('%s', time) AS INTEGER) FROM qor_event WHERE category IS NOT NULL)sql",
    R"sql(INSERT INTO temp.qor_migrated
    SELECT eid || '/' || category, CAST(strftime('%s', time) AS INTEGER) FROM qor_event
    WHERE eid IS NOT NULL AND category IS NOT NULL)sql",
    R"sql(INSERT INTO qor_event_count SELECT scope, 24, second >> 24, count(*), 0
    FROM temp.qor_migrated GROUP BY 1, 3)sql",
    QOR_SPLIT("qor_event_count", "24", "20"),
    QOR_SPLIT("qor_event_count", "20", "16"),
    QOR_SPLIT("qor_event_count", "16", "12"),
    QOR_SPLIT("qor_event_count", "12", "8"),
    QOR_SPLIT("qor_event_count", "8", "4"),
    QOR_SPLIT("qor_event_count", "4", "0"),
    // Tables cannot be dropped while a connection has statements at hand; this one goes with the connection.
    "DELETE FROM temp.qor_migrated",
};

#undef QOR_SPLIT

}  // namespace

const QORSchemaStep counterSchema{counterSchemaStatements};

}  // namespace QOR
