#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// Counters that follow their tables whoever changes them: the database itself keeps them, by triggers.
//
// Buckets and levels are what they were (see the step that made the counters). Scopes are disjoint now, so that counts
// of several environments add up, for a record belongs to one environment at most:
//   operations   ''               all
//                OWN              those that belong to an environment
//                '>' TOUCHED      those that touch an environment and do not belong to it
//                OWN '>' TOUCHED  of these, those that belong to a certain other one
//   events       '/' CATEGORY, EID '/' CATEGORY
// OWN, TOUCHED and EID are GUIDs of 36 characters; another text is no environment. A record whose time is not of the
// stored form, which only another program could have written before this step, is in no counter.
//
// Below the level of the widest buckets there is a counter only where the bucket around it is split, and a counter
// that has come to 0 is removed, so that logs which are kept short leave none behind.
//
// The host itself changes the logs by statements that skip triggers, and counts by itself, for many records at once:
// QORLogCounters, with which what is here must agree.
//
// Triggers run with the conflict handling of the statement that fired them: an INSERT OR IGNORE makes every insert
// within them ignore conflicts. So they rely on ON CONFLICT clauses, which win. And REPLACE removes records without
// firing a trigger: what may be replaced is noted before, and looked at again after.

#define QOR_LEVELS                                                                                              \
    "(SELECT 24 AS level UNION ALL SELECT 20 UNION ALL SELECT 16 UNION ALL SELECT 12 UNION ALL SELECT 8 UNION " \
    "ALL SELECT 4 UNION ALL SELECT 0)"
#define QOR_SECOND(time) "CAST(strftime('%s', " time ") AS INTEGER)"

// The counters of what is in temp.qor_migrated, level by level.
#define QOR_COUNT_FINER(log, wider, finer)                                                                            \
    "UPDATE " log "_count SET split = 1 WHERE level = " wider " AND n > 256",                                         \
        "INSERT INTO " log "_count SELECT m.scope, " finer ", m.second >> " finer                                     \
        ", count(*), 0 FROM temp.qor_migrated m CROSS JOIN " log "_count c ON c.scope = m.scope AND c.level = " wider \
        " AND c.bucket = m.second >> " wider " AND c.split = 1 GROUP BY 1, 3"
#define QOR_COUNT(log)                                                                                            \
    "INSERT INTO " log "_count SELECT scope, 24, second >> 24, count(*), 0 FROM temp.qor_migrated GROUP BY 1, 3", \
        QOR_COUNT_FINER(log, "24", "20"), QOR_COUNT_FINER(log, "20", "16"), QOR_COUNT_FINER(log, "16", "12"),     \
        QOR_COUNT_FINER(log, "12", "8"), QOR_COUNT_FINER(log, "8", "4"), QOR_COUNT_FINER(log, "4", "0"),          \
        "DELETE FROM temp.qor_migrated"

// What is inserted into the table of changes happens to the counters: one row for one scope, one second, 1 or -1.
#define QOR_CHANGES(log)                                                                                           \
    "CREATE TABLE " log "_change (scope nvarchar NOT NULL, second bigint NOT NULL, change int NOT NULL)",          \
        "CREATE TRIGGER " log "_change_made AFTER INSERT ON " log "_change BEGIN INSERT INTO " log                 \
        "_count (scope, level, bucket, n) SELECT NEW.scope, l.level, NEW.second >> l.level, 1 FROM " QOR_LEVELS    \
        " l WHERE NEW.change > 0 AND (l.level = 24 OR EXISTS (SELECT 1 FROM " log                                  \
        "_count p WHERE p.scope = NEW.scope AND p.level = l.level + 4 AND p.bucket = NEW.second >> (l.level + 4) " \
        "AND p.split = 1)) ON CONFLICT (scope, level, bucket) DO UPDATE SET n = n + 1; UPDATE " log                \
        "_count SET n = n - 1 WHERE NEW.change < 0 AND scope = NEW.scope AND (level, bucket) IN (SELECT l.level, " \
        "NEW.second >> l.level FROM " QOR_LEVELS " l); DELETE FROM " log "_change WHERE rowid = NEW.rowid; END",   \
        "CREATE TRIGGER " log "_count_empty AFTER UPDATE OF n ON " log                                             \
        "_count WHEN NEW.n = 0 "                                                                                   \
        "BEGIN DELETE FROM " log "_count WHERE scope = NEW.scope AND level = NEW.level AND bucket = NEW.bucket; END"

#define QOR_IN_BUCKET                                                                    \
    "time BETWEEN coalesce(datetime(NEW.bucket << NEW.level, 'unixepoch'), '0000') AND " \
    "coalesce(datetime(((NEW.bucket + 1) << NEW.level) - 1, 'unixepoch'), '9999-12-31 23:59:59')"

// Splits a bucket that has come to hold too much. times: selects of the times of the records in NEW's bucket.
#define QOR_SPLITTING(log, times)                                                                                  \
    "CREATE TRIGGER " log "_count_full AFTER UPDATE OF n ON " log                                                  \
    "_count WHEN NEW.n > 256 AND NEW.n > OLD.n AND NEW.split = 0 AND NEW.level > 0 "                               \
    "BEGIN UPDATE " log                                                                                            \
    "_count SET split = 1 WHERE scope = NEW.scope AND level = NEW.level AND bucket = NEW.bucket; INSERT INTO " log \
    "_count (scope, level, bucket, n) SELECT NEW.scope, NEW.level - 4, " QOR_SECOND(                               \
        "time") " >> (NEW.level - 4), count(*) FROM (" times                                                       \
                ") WHERE time = datetime(time) GROUP BY 3 ON CONFLICT (scope, level, bucket) DO UPDATE SET n = "   \
                "excluded.n; END"

#define QOR_CHANGE(log, scope, time, change, from) \
    "INSERT INTO " log "_change (scope, second, change) SELECT " scope ", " QOR_SECOND(time) ", " change " " from "; "

#define QOR_CHANGE_OPERATION(row, change)                                                              \
    QOR_CHANGE("qor_operation", "''", row "time", change, "WHERE " row "time = datetime(" row "time)") \
    QOR_CHANGE("qor_operation", row "eid", row "time", change,                                         \
               "WHERE " row "time = datetime(" row "time) AND length(" row "eid) = 36")
#define QOR_CHANGE_TOUCHED(row, change)                                                                     \
    QOR_CHANGE("qor_operation", "'>' || " row "eid", row "time", change,                                    \
               "WHERE " row "time = datetime(" row "time) AND " row "eid IS NOT " row "own AND length(" row \
               "eid) = 36")                                                                                 \
    QOR_CHANGE("qor_operation", row "own || '>' || " row "eid", row "time", change,                         \
               "WHERE " row "time = datetime(" row "time) AND " row "eid <> " row "own AND length(" row     \
               "eid) = 36 AND length(" row "own) = 36")
#define QOR_CHANGE_EVENT(row, change)                                                 \
    QOR_CHANGE("qor_event", "'/' || " row "category", row "time", change,             \
               "WHERE " row "time = datetime(" row "time) AND " row "category <> ''") \
    QOR_CHANGE("qor_event", row "eid || '/' || " row "category", row "time", change,  \
               "WHERE " row "time = datetime(" row "time) AND " row "category <> '' AND length(" row "eid) = 36")

#define QOR_REFUSE(reason, condition) "SELECT RAISE(ABORT, '" reason "') WHERE " condition "; "
#define QOR_TIME_FORM " has a time that is not of the form YYYY-MM-DD HH:MM:SS"

// Notes which records NEW may replace; what was noted for another row is forgotten.
#define QOR_NOTE(columns, from)                                                                                        \
    "DELETE FROM qor_log_replaced; INSERT INTO qor_log_replaced (kind, seq, time, eid, own, category) SELECT " columns \
    " FROM " from "; "
#define QOR_NOTE_OPERATIONS(condition) \
    QOR_NOTE("0, seq, time, eid, NULL, NULL", "qor_operation WHERE (seq = NEW.seq OR id = NEW.id)" condition)
#define QOR_NOTE_TOUCHED(condition)                \
    QOR_NOTE("1, operation, time, eid, own, NULL", \
             "qor_operation_environment WHERE operation = NEW.operation AND eid = NEW.eid" condition)
#define QOR_NOTE_EVENTS(condition) \
    QOR_NOTE("2, seq, time, eid, NULL, category", "qor_event WHERE seq = NEW.seq" condition)

// What was noted and is gone, or has lost its place to NEW, counts no more.
#define QOR_SETTLE_OPERATIONS \
    "DELETE FROM qor_log_replaced WHERE seq <> NEW.seq AND EXISTS (SELECT 1 FROM qor_operation o WHERE o.seq = "     \
    "qor_log_replaced.seq); "                                                                                        \
    QOR_CHANGE("qor_operation", "''", "time", "-1", "FROM qor_log_replaced WHERE time = datetime(time)")             \
    QOR_CHANGE("qor_operation", "eid", "time", "-1",                                                                 \
               "FROM qor_log_replaced WHERE time = datetime(time) AND length(eid) = 36")                             \
    "DELETE FROM qor_operation_environment WHERE operation IN (SELECT seq FROM qor_log_replaced); "                  \
    "DELETE FROM qor_log_replaced; "
#define QOR_SETTLE_TOUCHED                                                                                  \
    QOR_CHANGE("qor_operation", "'>' || eid", "time", "-1",                                                 \
               "FROM qor_log_replaced WHERE time = datetime(time) AND eid IS NOT own AND length(eid) = 36") \
    QOR_CHANGE("qor_operation", "own || '>' || eid", "time", "-1",                                          \
               "FROM qor_log_replaced WHERE time = datetime(time) AND eid <> own AND length(eid) = 36 "     \
               "AND length(own) = 36")                                                                      \
    "DELETE FROM qor_log_replaced; "
#define QOR_SETTLE_EVENTS                                                                                   \
    QOR_CHANGE("qor_event", "'/' || category", "time", "-1",                                                \
               "FROM qor_log_replaced WHERE time = datetime(time) AND category <> ''")                      \
    QOR_CHANGE("qor_event", "eid || '/' || category", "time", "-1",                                         \
               "FROM qor_log_replaced WHERE time = datetime(time) AND category <> '' AND length(eid) = 36") \
    "DELETE FROM qor_log_replaced; "

#define QOR_TRIGGER(name, event, body) "CREATE TRIGGER " name " " event " BEGIN " body "END"

constexpr const char* upkeepSchemaStatements[] = {
    // What other programs may have written in a form of their own.
    "UPDATE qor_operation SET time = datetime(time) WHERE time <> datetime(time)",
    "UPDATE qor_event SET time = datetime(time) WHERE time <> datetime(time)",

    // Which environments an operation touches: those of its list. own and time are the operation's environment and
    // time, so that indexes can have them. position: the place in the list; -1, which older versions wrote for the
    // operation's own environment where the list does not name it, is no place.
    "DROP INDEX qor_operation_environment_eid",
    "ALTER TABLE qor_operation_environment RENAME TO qor_operation_environment_before",
    R"sql(CREATE TABLE qor_operation_environment (
    operation bigint NOT NULL REFERENCES qor_operation (seq) ON DELETE CASCADE,
    eid uniqueidentifier NOT NULL,
    position int NOT NULL DEFAULT 0,
    own uniqueidentifier,
    time datetime NOT NULL DEFAULT '',
    PRIMARY KEY (operation, eid)
) WITHOUT ROWID)sql",
    R"sql(INSERT INTO qor_operation_environment (operation, eid, position, own, time)
    SELECT e.operation, e.eid, min(e.position), o.eid, o.time
    FROM qor_operation_environment_before e CROSS JOIN qor_operation o ON o.seq = e.operation
    WHERE e.position >= 0 GROUP BY e.operation, e.eid)sql",
    "DROP TABLE qor_operation_environment_before",
    "CREATE INDEX qor_operation_environment_touched ON qor_operation_environment (eid, time, operation) "
    "WHERE eid IS NOT own",
    "CREATE INDEX qor_operation_environment_pair ON qor_operation_environment (eid, own, time, operation) "
    "WHERE eid <> own",

    "DROP TABLE qor_operation_scope",
    // kind: 0 an operation, 1 an environment that one touches, 2 an event.
    "CREATE TABLE qor_log_replaced (kind int NOT NULL, seq bigint NOT NULL, time datetime, eid uniqueidentifier, own uniqueidentifier, "
    "category nvarchar)",

    // What there is is counted anew.
    "DELETE FROM qor_operation_count",
    "DELETE FROM qor_event_count",
    "CREATE TEMP TABLE IF NOT EXISTS qor_migrated (scope, second)",
    "INSERT INTO temp.qor_migrated SELECT '', " QOR_SECOND("time") " FROM qor_operation WHERE time = datetime(time)",
    "INSERT INTO temp.qor_migrated SELECT eid, " QOR_SECOND("time") " FROM qor_operation "
    "WHERE time = datetime(time) AND length(eid) = 36",
    "INSERT INTO temp.qor_migrated SELECT '>' || eid, " QOR_SECOND("time") " FROM qor_operation_environment "
    "WHERE time = datetime(time) AND eid IS NOT own AND length(eid) = 36",
    "INSERT INTO temp.qor_migrated SELECT own || '>' || eid, " QOR_SECOND("time") " FROM qor_operation_environment "
    "WHERE time = datetime(time) AND eid <> own AND length(eid) = 36 AND length(own) = 36",
    QOR_COUNT("qor_operation"),
    "INSERT INTO temp.qor_migrated SELECT '/' || category, " QOR_SECOND("time") " FROM qor_event "
    "WHERE time = datetime(time) AND category <> ''",
    "INSERT INTO temp.qor_migrated SELECT eid || '/' || category, " QOR_SECOND("time") " FROM qor_event "
    "WHERE time = datetime(time) AND category <> '' AND length(eid) = 36",
    QOR_COUNT("qor_event"),

    QOR_CHANGES("qor_operation"),
    QOR_CHANGES("qor_event"),
    QOR_SPLITTING("qor_operation",
                  "SELECT time FROM qor_operation WHERE NEW.scope = '' AND " QOR_IN_BUCKET
                  " UNION ALL SELECT time FROM qor_operation WHERE length(NEW.scope) = 36 AND eid = NEW.scope "
                  "AND " QOR_IN_BUCKET
                  " UNION ALL SELECT time FROM qor_operation_environment WHERE length(NEW.scope) = 37 "
                  "AND eid = substr(NEW.scope, 2) AND eid IS NOT own AND " QOR_IN_BUCKET
                  " UNION ALL SELECT time FROM qor_operation_environment WHERE length(NEW.scope) = 73 "
                  "AND eid = substr(NEW.scope, 38) AND own = substr(NEW.scope, 1, 36) AND eid <> own "
                  "AND " QOR_IN_BUCKET),
    QOR_SPLITTING("qor_event",
                  "SELECT time FROM qor_event WHERE substr(NEW.scope, 1, 1) = '/' "
                  "AND category = substr(NEW.scope, 2) AND " QOR_IN_BUCKET
                  " UNION ALL SELECT time FROM qor_event WHERE substr(NEW.scope, 1, 1) <> '/' "
                  "AND category = substr(NEW.scope, 38) AND eid = substr(NEW.scope, 1, 36) AND " QOR_IN_BUCKET),

    QOR_TRIGGER("qor_operation_coming", "BEFORE INSERT ON qor_operation",
                QOR_REFUSE("an operation" QOR_TIME_FORM, "NEW.time IS NOT datetime(NEW.time)") QOR_NOTE_OPERATIONS("")),
    QOR_TRIGGER("qor_operation_came", "AFTER INSERT ON qor_operation",
                QOR_SETTLE_OPERATIONS QOR_CHANGE_OPERATION("NEW.", "1")),
    QOR_TRIGGER("qor_operation_changing", "BEFORE UPDATE OF seq, id, time, eid ON qor_operation",
                QOR_REFUSE("an operation" QOR_TIME_FORM,
                           "NEW.time IS NOT OLD.time AND NEW.time IS NOT datetime(NEW.time)")
                    QOR_NOTE_OPERATIONS(" AND seq <> OLD.seq")),
    QOR_TRIGGER("qor_operation_changed",
                "AFTER UPDATE OF seq, id, time, eid ON qor_operation WHEN NEW.seq <> OLD.seq OR NEW.id <> OLD.id "
                "OR NEW.time <> OLD.time OR NEW.eid IS NOT OLD.eid",
                QOR_SETTLE_OPERATIONS QOR_CHANGE_OPERATION("OLD.", "-1") QOR_CHANGE_OPERATION("NEW.", "1")
                "UPDATE qor_operation_environment SET operation = NEW.seq, time = NEW.time, own = NEW.eid "
                "WHERE operation = OLD.seq; "),
    // Where foreign keys are not enforced nothing else takes away what it touched.
    QOR_TRIGGER("qor_operation_gone", "AFTER DELETE ON qor_operation",
                "DELETE FROM qor_operation_environment WHERE operation = OLD.seq; "
                "DELETE FROM qor_log_replaced WHERE kind = 0 AND seq = OLD.seq; " QOR_CHANGE_OPERATION("OLD.", "-1")),

    QOR_TRIGGER("qor_touched_coming", "BEFORE INSERT ON qor_operation_environment",
                QOR_REFUSE("there is no such operation",
                           "NOT EXISTS (SELECT 1 FROM qor_operation WHERE seq = NEW.operation)") QOR_NOTE_TOUCHED("")),
    QOR_TRIGGER("qor_touched_came", "AFTER INSERT ON qor_operation_environment",
                QOR_SETTLE_TOUCHED QOR_CHANGE_TOUCHED("NEW.", "1")
                "UPDATE qor_operation_environment SET time = (SELECT time FROM qor_operation WHERE seq = NEW.operation), "
                "own = (SELECT eid FROM qor_operation WHERE seq = NEW.operation) "
                "WHERE operation = NEW.operation AND eid = NEW.eid AND NOT EXISTS (SELECT 1 FROM qor_operation "
                "WHERE seq = NEW.operation AND time = NEW.time AND eid IS NEW.own); "),
    QOR_TRIGGER("qor_touched_changing", "BEFORE UPDATE OF operation, eid, own, time ON qor_operation_environment",
                QOR_REFUSE("own and time of an environment that an operation touches are those of the operation",
                           "NOT EXISTS (SELECT 1 FROM qor_operation WHERE seq = NEW.operation AND time = NEW.time "
                           "AND eid IS NEW.own)")
                    QOR_NOTE_TOUCHED(" AND (NEW.operation <> OLD.operation OR NEW.eid <> OLD.eid)")),
    QOR_TRIGGER("qor_touched_changed", "AFTER UPDATE OF operation, eid, own, time ON qor_operation_environment",
                QOR_SETTLE_TOUCHED QOR_CHANGE_TOUCHED("OLD.", "-1") QOR_CHANGE_TOUCHED("NEW.", "1")),
    QOR_TRIGGER("qor_touched_gone", "AFTER DELETE ON qor_operation_environment",
                "DELETE FROM qor_log_replaced WHERE kind = 1 AND seq = OLD.operation AND eid = OLD.eid; "
                QOR_CHANGE_TOUCHED("OLD.", "-1")),

    QOR_TRIGGER("qor_event_coming", "BEFORE INSERT ON qor_event",
                QOR_REFUSE("an event" QOR_TIME_FORM, "NEW.time IS NOT datetime(NEW.time)") QOR_NOTE_EVENTS("")),
    QOR_TRIGGER("qor_event_came", "AFTER INSERT ON qor_event",
                QOR_SETTLE_EVENTS QOR_CHANGE_EVENT("NEW.", "1")),
    QOR_TRIGGER("qor_event_changing", "BEFORE UPDATE OF seq, time, eid, category ON qor_event",
                QOR_REFUSE("an event" QOR_TIME_FORM, "NEW.time IS NOT OLD.time AND NEW.time IS NOT datetime(NEW.time)")
                    QOR_NOTE_EVENTS(" AND seq <> OLD.seq")),
    QOR_TRIGGER("qor_event_changed", "AFTER UPDATE OF seq, time, eid, category ON qor_event",
                QOR_SETTLE_EVENTS QOR_CHANGE_EVENT("OLD.", "-1") QOR_CHANGE_EVENT("NEW.", "1")),
    QOR_TRIGGER("qor_event_gone", "AFTER DELETE ON qor_event",
                "DELETE FROM qor_log_replaced WHERE kind = 2 AND seq = OLD.seq; " QOR_CHANGE_EVENT("OLD.", "-1")),
};

}  // namespace

const QORSchemaStep upkeepSchema{upkeepSchemaStatements};

}  // namespace QOR
