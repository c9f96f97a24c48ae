#include "QORDBSchema/PostgresSchema.h"

namespace QOR {
namespace {

// Counters as the steps for SQLite describe them: scopes, levels, buckets that are split when they hold more than 256.
// Here they are kept by functions of the database, for statements as a whole.
//
// LOG_count_change(scopes, seconds, changes)  what happened to the counters; a scope and second may stand once only
// LOG_count_split(scopes, seconds)            splits the buckets around them that have come to hold too much
// LOG_recount(scope)                          counts a scope from its records
//
// A bucket is split when all changes to it have been told: what lies in it is then counted from the records, among them
// those whose changes were told. A transaction that has not told its changes yet is not seen by the others, and finds
// the bucket split when it does. That needs each statement to see what was committed before it: transactions that
// write run at READ COMMITTED.
//
// Counters are changed in the order of their keys, one level after the other, so that writers do not wait for each
// other in a circle. That of all records is one row, for which they wait until its holder commits.

#define QOR_FUNCTION(signature, result, body) \
    "CREATE FUNCTION " signature " RETURNS " result " LANGUAGE plpgsql SET search_path FROM CURRENT AS $$ " body " $$"

#define QOR_CHANGED "unnest(scopes, seconds, changes) AS t (scope, second, change)"
#define QOR_PLACES "unnest(scopes, seconds) AS t (scope, second)"
#define QOR_ADD " ON CONFLICT (scope, level, bucket) DO UPDATE SET n = c.n + excluded.n; "

#define QOR_COUNTERS(log) \
    "CREATE TABLE " log "_count (scope text COLLATE \"C\" NOT NULL, level int NOT NULL, bucket bigint NOT NULL, "      \
    "n bigint NOT NULL, split int NOT NULL DEFAULT 0, PRIMARY KEY (scope, level, bucket)) WITH (fillfactor = 70)",     \
        QOR_FUNCTION(                                                                                                  \
            log "_count_change(scopes text[], seconds bigint[], changes bigint[])", "void",                            \
            "DECLARE wide int := 24; BEGIN "                                                                           \
            "INSERT INTO " log "_count AS c (scope, level, bucket, n) SELECT t.scope, 24, t.second >> 24, "            \
            "sum(t.change)::bigint FROM " QOR_CHANGED " GROUP BY 1, 3 ORDER BY 1, 3" QOR_ADD                           \
            "WHILE wide > 0 LOOP "                                                                                     \
            "INSERT INTO " log "_count AS c (scope, level, bucket, n) SELECT t.scope, wide - 4, "                      \
            "t.second >> (wide - 4), sum(t.change)::bigint FROM " QOR_CHANGED " JOIN " log                             \
            "_count p ON p.scope = t.scope AND p.level = wide AND p.bucket = t.second >> wide AND p.split = 1 "        \
            "GROUP BY 1, 3 ORDER BY 1, 3" QOR_ADD                                                                      \
            "EXIT WHEN NOT FOUND; wide := wide - 4; END LOOP; "                                                        \
            "IF 0 > ANY (changes) THEN DELETE FROM " log "_count c USING " QOR_PLACES                                  \
            " CROSS JOIN generate_series(0, 24, 4) AS l (level) WHERE c.scope = t.scope AND c.level = l.level "        \
            "AND c.bucket = t.second >> l.level AND c.n = 0; END IF; END"),                                            \
        QOR_FUNCTION(                                                                                                  \
            log "_count_split(scopes text[], seconds bigint[])", "void",                                               \
            "DECLARE wide int := 24; f record; BEGIN "                                                                 \
            "WHILE wide > 0 LOOP "                                                                                     \
            "FOR f IN SELECT DISTINCT c.scope, c.bucket FROM " QOR_PLACES " JOIN " log                                 \
            "_count c ON c.scope = t.scope AND c.level = wide AND c.bucket = t.second >> wide "                        \
            "WHERE c.split = 0 AND c.n > 256 ORDER BY 1, 2 LOOP "                                                      \
            "UPDATE " log "_count SET split = 1 WHERE scope = f.scope AND level = wide AND bucket = f.bucket; "        \
            "INSERT INTO " log "_count (scope, level, bucket, n) SELECT f.scope, wide - 4, s >> (wide - 4), count(*) " \
            "FROM " log "_seconds(f.scope, f.bucket << wide, ((f.bucket + 1) << wide) - 1) AS s "                      \
            "GROUP BY 3 ORDER BY 3 ON CONFLICT (scope, level, bucket) DO UPDATE SET n = excluded.n; END LOOP; "        \
            "EXIT WHEN NOT EXISTS (SELECT FROM " QOR_PLACES " JOIN " log                                               \
            "_count c ON c.scope = t.scope AND c.level = wide AND c.bucket = t.second >> wide WHERE c.split = 1); "    \
            "wide := wide - 4; END LOOP; END"),                                                                        \
        QOR_FUNCTION(log "_recount(counted text)", "void",                                                             \
                     "DECLARE told record; BEGIN DELETE FROM " log "_count WHERE scope = counted; "                    \
                     "FOR told IN " QOR_BLOCKS("SELECT counted AS scope, s AS second, 1 AS change FROM " log           \
                     "_seconds(counted, NULL, NULL) AS s") " LOOP "                                                    \
                     "PERFORM " log "_count_change(told.scopes, told.seconds, told.changes); END LOOP; "               \
                     "FOR told IN " QOR_BLOCKS("SELECT counted AS scope, s AS second, 1 AS change FROM " log           \
                     "_seconds(counted, NULL, NULL) AS s") " LOOP "                                                    \
                     "PERFORM " log "_count_split(told.scopes, told.seconds); END LOOP; END")

// Changes added up, so many at a time that an array can hold them.
#define QOR_BLOCKS(rows)                                                                                   \
    "SELECT array_agg(g.scope) AS scopes, array_agg(g.second) AS seconds, array_agg(g.change) AS changes " \
    "FROM (SELECT u.scope, u.second, sum(u.change)::bigint AS change, "                                    \
    "(row_number() OVER (ORDER BY u.scope, u.second) - 1) / 100000 AS block FROM (" rows                   \
    ") u GROUP BY u.scope, u.second HAVING sum(u.change) <> 0) g GROUP BY g.block ORDER BY g.block"

// A statement's changes, told when it has ended. Most have one block, which need not be looked for again to be split.
#define QOR_TELL(log, rows) \
    "blocks := 0; FOR told IN " QOR_BLOCKS(rows) " LOOP blocks := blocks + 1; last := told; "                  \
    "PERFORM " log "_count_change(told.scopes, told.seconds, told.changes); END LOOP; "                        \
    "IF blocks = 1 THEN PERFORM " log "_count_split(last.scopes, last.seconds); "                              \
    "ELSIF blocks > 1 THEN FOR told IN " QOR_BLOCKS(rows) " LOOP "                                             \
    "PERFORM " log "_count_split(told.scopes, told.seconds); END LOOP; END IF; "

#define QOR_TELLING(name, log, rowsOf, afterwards) \
    QOR_FUNCTION(name "()", "trigger",                                                                             \
                 "DECLARE told record; last record; blocks int; BEGIN IF TG_OP = 'INSERT' THEN " QOR_TELL( \
                     log, rowsOf("came", "1")) "ELSIF TG_OP = 'DELETE' THEN " QOR_TELL(log, rowsOf("gone", "-1"))  \
                     "ELSE " QOR_TELL(log, rowsOf("came", "1") " UNION ALL " rowsOf("gone", "-1"))                 \
                         "END IF; " afterwards "RETURN NULL; END")

#define QOR_GUID "[0-9a-f]{8}-([0-9a-f]{4}-){3}[0-9a-f]{12}"
#define QOR_UNLESS_SCOPE(pattern) "IF scope !~ '^" pattern "' THEN RETURN; END IF; "

#define QOR_SECOND "extract(epoch FROM time)::bigint AS second"
#define QOR_OPERATIONS(rows, change)                                                                                 \
    "SELECT '' AS scope, " QOR_SECOND ", " change " AS change FROM " rows " UNION ALL SELECT eid::text, " QOR_SECOND \
    ", " change " FROM " rows " WHERE eid IS NOT NULL"
#define QOR_TOUCHED(rows, change)                                                                             \
    "SELECT '>' || eid::text AS scope, " QOR_SECOND ", " change " AS change FROM " rows                       \
    " WHERE eid IS DISTINCT FROM own UNION ALL SELECT own::text || '>' || eid::text, " QOR_SECOND ", " change \
    " FROM " rows " WHERE eid <> own"
#define QOR_EVENTS(rows, change)                                                                                 \
    "SELECT '/' || category AS scope, " QOR_SECOND ", " change " AS change FROM " rows                           \
    " WHERE category <> '' UNION ALL SELECT eid::text || '/' || category, " QOR_SECOND ", " change " FROM " rows \
    " WHERE category <> '' AND eid IS NOT NULL"

// Rows of the environments that operations touch have the time and the environment of their operation.
#define QOR_OTHER_THAN_OPERATION(rows) \
    rows " r JOIN qor_operation o ON o.seq = r.operation WHERE (r.time, r.own) IS DISTINCT FROM (o.time, o.eid)"
#define QOR_FOLLOW_OPERATION \
    "IF TG_OP <> 'DELETE' THEN IF EXISTS (SELECT FROM " QOR_OTHER_THAN_OPERATION("came") ") THEN "           \
    "UPDATE qor_operation_environment e SET time = o.time, own = o.eid FROM came r JOIN qor_operation o "    \
    "ON o.seq = r.operation WHERE e.operation = r.operation AND e.eid = r.eid "                              \
    "AND (e.time, e.own) IS DISTINCT FROM (o.time, o.eid); END IF; END IF; "
#define QOR_LEAD_TOUCHED                                                                       \
    "IF TG_OP = 'UPDATE' THEN IF EXISTS (SELECT FROM came o JOIN qor_operation_environment e " \
    "ON e.operation = o.seq WHERE (e.time, e.own) IS DISTINCT FROM (o.time, o.eid)) THEN "     \
    "UPDATE qor_operation_environment e SET time = o.time, own = o.eid FROM came o "           \
    "WHERE e.operation = o.seq AND (e.time, e.own) IS DISTINCT FROM (o.time, o.eid); END IF; END IF; "

#define QOR_TRIGGERS(table, name, function)                      \
    "CREATE TRIGGER " name "_came AFTER INSERT ON " table        \
    " REFERENCING NEW TABLE AS came FOR EACH STATEMENT "         \
    "EXECUTE FUNCTION " function "()",                           \
        "CREATE TRIGGER " name "_gone AFTER DELETE ON " table    \
        " REFERENCING OLD TABLE AS gone FOR EACH STATEMENT "     \
        "EXECUTE FUNCTION " function "()",                       \
        "CREATE TRIGGER " name "_changed AFTER UPDATE ON " table \
        " REFERENCING OLD TABLE AS gone NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION " function "()"

#define QOR_EMPTIED(table, name, work)                                     \
    QOR_FUNCTION(name "()", "trigger", "BEGIN " work " RETURN NULL; END"), \
        "CREATE TRIGGER " name " AFTER TRUNCATE ON " table " FOR EACH STATEMENT EXECUTE FUNCTION " name "()"

// A document that was replaced or removed is no unreadable one any more.
#define QOR_FORGET(table, key, part, condition)                                                           \
    "DELETE FROM qor_unreadable_document d USING gone g WHERE d.source = '" table "' AND d.part = '" part \
    "' AND d.record = g." key "::text" condition "; "
#define QOR_STAYS(table, key, part) \
    " AND NOT EXISTS (SELECT FROM came c WHERE c." key " = g." key " AND c." part " IS NOT DISTINCT FROM g." part ")"
#define QOR_FORGETTING(table, name, forgetRemoved, forgetReplaced)                                             \
    QOR_FUNCTION(name "()", "trigger",                                                                         \
                 "BEGIN IF NOT EXISTS (SELECT FROM qor_unreadable_document) THEN RETURN NULL; END IF; "        \
                 "IF TG_OP = 'DELETE' THEN " forgetRemoved "ELSE " forgetReplaced "END IF; RETURN NULL; END"), \
        "CREATE TRIGGER " name "_removed AFTER DELETE ON " table                                               \
        " REFERENCING OLD TABLE AS gone FOR EACH STATEMENT EXECUTE FUNCTION " name "()",                       \
        "CREATE TRIGGER " name "_replaced AFTER UPDATE ON " table                                              \
        " REFERENCING OLD TABLE AS gone NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION " name "()"
#define QOR_FORGETTING_ONE(table, part)                                           \
    QOR_FORGETTING(table, table "_documents", QOR_FORGET(table, "seq", part, ""), \
                   QOR_FORGET(table, "seq", part, QOR_STAYS(table, "seq", part)))

constexpr const char* postgresUpkeepStatements[] = {
    // The second's time, brought between the first and the last that there are.
    "CREATE FUNCTION qor_time(second bigint) RETURNS timestamp LANGUAGE sql IMMUTABLE AS $$ "
    "SELECT '1970-01-01 00:00:00'::timestamp + make_interval(secs => least(greatest(second, -62135596800), "
    "253402300799)) $$",

    // The seconds of a scope's records, of all of them where no span is given; none of a text that is no scope.
    QOR_FUNCTION(
        "qor_operation_seconds(scope text, first bigint, last bigint)", "SETOF bigint",
        "DECLARE f timestamp := qor_time(coalesce(first, -62135596800)); "
        "l timestamp := qor_time(coalesce(last, 253402300799)); BEGIN " QOR_UNLESS_SCOPE(
            "(" QOR_GUID ")?(>" QOR_GUID
            ")?$") "IF scope = '' THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint FROM qor_operation r "
                   "WHERE r.time BETWEEN f AND l; "
                   "ELSIF length(scope) = 36 THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint "
                   "FROM qor_operation r WHERE r.eid = scope::uuid AND r.time BETWEEN f AND l; "
                   "ELSIF length(scope) = 37 THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint "
                   "FROM qor_operation_environment r WHERE r.eid = substr(scope, 2)::uuid "
                   "AND r.eid IS DISTINCT FROM r.own AND r.time BETWEEN f AND l; "
                   "ELSIF length(scope) = 73 THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint "
                   "FROM qor_operation_environment r WHERE r.eid = substr(scope, 38)::uuid "
                   "AND r.own = substr(scope, 1, 36)::uuid AND r.eid <> r.own AND r.time BETWEEN f AND l; "
                   "END IF; END"),
    QOR_FUNCTION(
        "qor_event_seconds(scope text, first bigint, last bigint)", "SETOF bigint",
        "DECLARE f timestamp := qor_time(coalesce(first, -62135596800)); "
        "l timestamp := qor_time(coalesce(last, 253402300799)); BEGIN " QOR_UNLESS_SCOPE(
            "(" QOR_GUID
            ")?/") "IF substr(scope, 1, 1) = '/' THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint "
                   "FROM qor_event r WHERE r.category = substr(scope, 2) AND r.time BETWEEN f AND l; "
                   "ELSIF substr(scope, 37, 1) = '/' THEN RETURN QUERY SELECT extract(epoch FROM r.time)::bigint "
                   "FROM qor_event r WHERE r.category = substr(scope, 38) AND r.eid = substr(scope, 1, 36)::uuid "
                   "AND r.time BETWEEN f AND l; END IF; END"),
    QOR_COUNTERS("qor_operation"),
    QOR_COUNTERS("qor_event"),

    QOR_TELLING("qor_operation_tell", "qor_operation", QOR_OPERATIONS, QOR_LEAD_TOUCHED),
    QOR_TELLING("qor_touched_tell", "qor_operation", QOR_TOUCHED, QOR_FOLLOW_OPERATION),
    QOR_TELLING("qor_event_tell", "qor_event", QOR_EVENTS, ""),
    QOR_TRIGGERS("qor_operation", "qor_operation", "qor_operation_tell"),
    QOR_TRIGGERS("qor_operation_environment", "qor_touched", "qor_touched_tell"),
    QOR_TRIGGERS("qor_event", "qor_event", "qor_event_tell"),

    QOR_FORGETTING_ONE("qor_operation", "message"),
    QOR_FORGETTING_ONE("qor_event", "info"),
    QOR_FORGETTING_ONE("qor_backup", "info"),
    QOR_FORGETTING(
        "qor_environment", "qor_environment_documents",
        QOR_FORGET("qor_environment", "eid", "config", "") QOR_FORGET("qor_environment", "eid", "virtual_config", ""),
        QOR_FORGET("qor_environment", "eid", "config", QOR_STAYS("qor_environment", "eid", "config")) QOR_FORGET(
            "qor_environment", "eid", "virtual_config", QOR_STAYS("qor_environment", "eid", "virtual_config"))),

    QOR_EMPTIED("qor_operation", "qor_operation_emptied",
                "DELETE FROM qor_operation_count; DELETE FROM qor_unreadable_document WHERE source = 'qor_operation';"),
    QOR_EMPTIED("qor_operation_environment", "qor_touched_emptied",
                "DELETE FROM qor_operation_count WHERE length(scope) > 36;"),
    QOR_EMPTIED("qor_event", "qor_event_emptied",
                "DELETE FROM qor_event_count; DELETE FROM qor_unreadable_document WHERE source = 'qor_event';"),
    QOR_EMPTIED("qor_backup", "qor_backup_emptied", "DELETE FROM qor_unreadable_document WHERE source = 'qor_backup';"),
    QOR_EMPTIED("qor_environment", "qor_environment_emptied",
                "DELETE FROM qor_unreadable_document WHERE source = 'qor_environment';"),
};

// ---- counted when a transaction ends --------------------------------------------------------------------------------
//
// Counters are changed as the last thing in a transaction, those that all records share at the very end, so that
// writers wait for each other no longer than that takes. What statements changed is noted down until then in a table
// that only the transaction itself sees anything in; it survives nothing, and has not to. A trigger that is put off to
// the commit tells the counters all of it at once.
//
// LOG_count_change(scopes, seconds, changes)  as before, and finds the buckets that have come to hold too much
// LOG_count_split(scopes, levels, buckets)    splits those
// qor_count_due_tell()                        tells the counters what is noted

#define QOR_BUCKETS(wide) "array_fill(" wide ", ARRAY[cardinality("

#define QOR_COUNTERS_AT_END(log) \
    "DROP FUNCTION " log "_count_change(text[], bigint[], bigint[])",                                                  \
        "DROP FUNCTION " log "_count_split(text[], bigint[])", "DROP FUNCTION " log "_recount(text)",                  \
        QOR_FUNCTION(log "_count_change(scopes text[], seconds bigint[], changes bigint[], OUT full_scopes text[], "   \
                         "OUT full_levels int[], OUT full_buckets bigint[])",                                          \
                     "record",                                                                                         \
                     "DECLARE wide int := 24; done record; BEGIN LOOP "                                                \
                     "WITH told AS (INSERT INTO " log "_count AS c (scope, level, bucket, n) "                         \
                     "SELECT g.scope, wide, g.bucket, g.change FROM (SELECT t.scope COLLATE \"C\" AS scope, "          \
                     "t.second >> wide AS bucket, sum(t.change)::bigint AS change FROM " QOR_CHANGED                   \
                     " GROUP BY 1, 2) g WHERE wide = 24 OR EXISTS (SELECT FROM " log                                   \
                     "_count p WHERE p.scope = g.scope AND p.level = wide + 4 AND p.bucket = g.bucket >> 4 "           \
                     "AND p.split = 1) ORDER BY 1, 3 ON CONFLICT (scope, level, bucket) "                              \
                     "DO UPDATE SET n = c.n + excluded.n RETURNING c.scope, c.bucket, c.n, c.split) "                  \
                     "SELECT bool_or(split = 1) AS deeper, array_agg(scope) FILTER (WHERE split = 0 AND n > 256) "     \
                     "AS scopes, array_agg(bucket) FILTER (WHERE split = 0 AND n > 256) AS buckets INTO done "         \
                     "FROM told; "                                                                                     \
                     "IF wide > 0 AND done.scopes IS NOT NULL THEN full_scopes := full_scopes || done.scopes; "        \
                     "full_levels := full_levels || " QOR_BUCKETS("wide") "done.scopes)]); "                           \
                     "full_buckets := full_buckets || done.buckets; END IF; "                                          \
                     "EXIT WHEN wide = 0 OR done.deeper IS NOT TRUE; wide := wide - 4; END LOOP; "                     \
                     "IF 0 > ANY (changes) THEN DELETE FROM " log "_count c USING " QOR_PLACES                         \
                     " CROSS JOIN generate_series(0, 24, 4) AS l (level) WHERE c.scope = t.scope "                     \
                     "AND c.level = l.level AND c.bucket = t.second >> l.level AND c.n = 0; END IF; END"),             \
        QOR_FUNCTION(log "_count_split(scopes text[], levels int[], buckets bigint[])", "void",                        \
                     "DECLARE f record; finer bigint[]; s text[]; l int[]; b bigint[]; BEGIN "                         \
                     "WHILE cardinality(scopes) > 0 LOOP s := NULL; l := NULL; b := NULL; "                            \
                     "FOR f IN SELECT DISTINCT t.scope COLLATE \"C\" AS scope, t.level, t.bucket "                     \
                     "FROM unnest(scopes, levels, buckets) AS t (scope, level, bucket) ORDER BY 1, 2 DESC, 3 LOOP "    \
                     "UPDATE " log "_count SET split = 1 WHERE scope = f.scope AND level = f.level "                   \
                     "AND bucket = f.bucket AND split = 0 AND n > 256; CONTINUE WHEN NOT FOUND; "                      \
                     "WITH put AS (INSERT INTO " log "_count (scope, level, bucket, n) SELECT f.scope, f.level - 4, "  \
                     "x >> (f.level - 4), count(*) FROM " log                                                          \
                     "_seconds(f.scope, f.bucket << f.level, ((f.bucket + 1) << f.level) - 1) AS x GROUP BY 3 "        \
                     "ORDER BY 3 ON CONFLICT (scope, level, bucket) DO UPDATE SET n = excluded.n "                     \
                     "RETURNING bucket, n) SELECT array_agg(bucket) INTO finer FROM put WHERE n > 256; "               \
                     "IF f.level > 4 AND finer IS NOT NULL THEN "                                                      \
                     "s := s || " QOR_BUCKETS("f.scope") "finer)]); l := l || " QOR_BUCKETS("f.level - 4") "finer)]); "\
                     "b := b || finer; END IF; END LOOP; scopes := s; levels := l; buckets := b; END LOOP; END"),      \
        QOR_FUNCTION(log "_recount(counted text)", "void",                                                             \
                     "DECLARE told record; f record; s text[]; l int[]; b bigint[]; BEGIN "                            \
                     "PERFORM qor_count_due_tell(); DELETE FROM " log "_count WHERE scope = counted; "                 \
                     "FOR told IN " QOR_BLOCKS("SELECT counted AS scope, x AS second, 1 AS change FROM " log           \
                     "_seconds(counted, NULL, NULL) AS x") " LOOP " QOR_TELL_BLOCK(log) "END LOOP; PERFORM " log       \
                     "_count_split(s, l, b); END")

#define QOR_TELL_BLOCK(log)                                    \
    "SELECT * INTO f FROM " log                                \
    "_count_change(told.scopes, told.seconds, told.changes); " \
    "s := s || f.full_scopes; l := l || f.full_levels; b := b || f.full_buckets; "

// Of one log, what is noted of the scopes that all records share, or of the others.
#define QOR_TELL_DUE(log) \
    "s := NULL; l := NULL; b := NULL; FOR told IN " QOR_BLOCKS(                                                       \
        "SELECT t.scope COLLATE \"C\" AS scope, t.second, t.change FROM qor_count_due d "                             \
        "CROSS JOIN unnest(d.scopes, d.seconds, d.changes) AS t (scope, second, change) WHERE d.log = '" log          \
        "' AND (t.scope = '' OR left(t.scope, 1) = '/') = shared") " LOOP " QOR_TELL_BLOCK(log) "END LOOP; "          \
                                                                                                "PERFORM " log        \
                                                                                                "_count_split(s, l, " \
                                                                                                "b); "

#define QOR_NOTE(log, rows)                                                                                      \
    "INSERT INTO qor_count_due (log, scopes, seconds, changes) SELECT '" log                                     \
    "', array_agg(g.scope), array_agg(g.second), array_agg(g.change) FROM (SELECT u.scope, u.second, u.change, " \
    "(row_number() OVER () - 1) / 100000 AS block FROM (SELECT a.scope COLLATE \"C\" AS scope, a.second, "       \
    "sum(a.change)::bigint AS change FROM (" rows                                                                \
    ") a GROUP BY 1, 2 HAVING sum(a.change) <> 0) u) g GROUP BY g.block; "

#define QOR_NOTING(table, name, log, rowsOf, afterwards) \
    "DROP TRIGGER " name "_came ON " table, "DROP TRIGGER " name "_gone ON " table,                                    \
        "DROP TRIGGER " name "_changed ON " table, "DROP FUNCTION " name "_tell()",                                    \
        QOR_FUNCTION(name "_tell()", "trigger",                                                                        \
                     "BEGIN IF TG_OP = 'INSERT' THEN " QOR_NOTE(log, rowsOf("came", "1"))                              \
                     "ELSIF TG_OP = 'DELETE' THEN " QOR_NOTE(log, rowsOf("gone", "-1"))                                \
                     "ELSE " QOR_NOTE(log, rowsOf("came", "1") " UNION ALL " rowsOf("gone", "-1"))                     \
                     "END IF; " afterwards "RETURN NULL; END"),                                                        \
        QOR_TRIGGERS(table, name, name "_tell")

#define QOR_TELL_BEFORE_TRUNCATE(table)                           \
    "CREATE TRIGGER " table "_emptying BEFORE TRUNCATE ON " table \
    " FOR EACH STATEMENT EXECUTE FUNCTION qor_count_due_first()"

constexpr const char* countingStatements[] = {
    // Arrays as they are: compressing what is read once costs more than it saves.
    "CREATE UNLOGGED TABLE qor_count_due (id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY, "
    "log text COLLATE \"C\" NOT NULL, scopes text[] NOT NULL, seconds bigint[] NOT NULL, changes bigint[] NOT NULL)",
    "ALTER TABLE qor_count_due ALTER scopes SET STORAGE EXTERNAL, ALTER seconds SET STORAGE EXTERNAL, "
    "ALTER changes SET STORAGE EXTERNAL",
    QOR_COUNTERS_AT_END("qor_operation"),
    QOR_COUNTERS_AT_END("qor_event"),
    QOR_FUNCTION("qor_count_due_tell()", "void",
                 "DECLARE shared boolean; told record; f record; s text[]; l int[]; b bigint[]; BEGIN "
                 "IF NOT EXISTS (SELECT FROM qor_count_due) THEN RETURN; END IF; "
                 "FOREACH shared IN ARRAY '{f,t}'::boolean[] LOOP " QOR_TELL_DUE("qor_event")
                     QOR_TELL_DUE("qor_operation") "END LOOP; DELETE FROM qor_count_due; END"),
    QOR_FUNCTION("qor_count_due_last()", "trigger",
                 "BEGIN IF EXISTS (SELECT FROM qor_count_due WHERE id = NEW.id) THEN PERFORM qor_count_due_tell(); "
                 "END IF; RETURN NULL; END"),
    "CREATE CONSTRAINT TRIGGER qor_count_due_told AFTER INSERT ON qor_count_due DEFERRABLE INITIALLY DEFERRED "
    "FOR EACH ROW EXECUTE FUNCTION qor_count_due_last()",
    // Counters of a table that is emptied are removed; what its records did before has to be told first.
    QOR_FUNCTION("qor_count_due_first()", "trigger", "BEGIN PERFORM qor_count_due_tell(); RETURN NULL; END"),
    QOR_TELL_BEFORE_TRUNCATE("qor_operation"),
    QOR_TELL_BEFORE_TRUNCATE("qor_operation_environment"),
    QOR_TELL_BEFORE_TRUNCATE("qor_event"),
    QOR_NOTING("qor_operation", "qor_operation", "qor_operation", QOR_OPERATIONS, QOR_LEAD_TOUCHED),
    QOR_NOTING("qor_operation_environment", "qor_touched", "qor_operation", QOR_TOUCHED, QOR_FOLLOW_OPERATION),
    QOR_NOTING("qor_event", "qor_event", "qor_event", QOR_EVENTS, ""),
};

}  // namespace

const QORSchemaStep postgresUpkeep{postgresUpkeepStatements};
const QORSchemaStep postgresCounting{countingStatements};

}  // namespace QOR
