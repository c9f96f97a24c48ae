#include "QORDBSchema/PostgresSchema.h"
#include "QORDBSchema/QORRecordSequence.h"

namespace QOR {
namespace {

// The sequence of changed records as the step for SQLite describes it.
//
// Here several transactions write at a time, and numbers shall be in the order of their commits: so they are given out
// as the last thing in a transaction, and the next one waits until that is done. What statements changed is noted down
// until then in a table that only the transaction itself sees anything in; it survives nothing, and has not to.
//
// Triggers that are put off to the commit run in the order in which they were asked for, some of which wait for other
// rows that all share (counters, the number of the latest change of environments). So the first that runs only asks for
// a last one, which finds all of them done: nobody who has the row of numbers waits for another one. For the same
// reason counters are told before the number of the latest change of environments is given out: whatever a transaction
// did first, it waits for the rows that all share in one order.
#define QOR_FUNCTION(signature, result, body) \
    "CREATE FUNCTION " signature " RETURNS " result " LANGUAGE plpgsql SET search_path FROM CURRENT AS $$ " body " $$"

#define QOR_RANGES(kind, table)                                              \
    "SELECT " kind                                                           \
    " AS kind, min(seq) AS first, max(seq) AS last FROM (SELECT seq, seq - " \
    "row_number() OVER (ORDER BY seq) AS run FROM " table ") q GROUP BY run"

#define QOR_NOTED(kind, table)                                                                      \
    "CREATE TRIGGER " table "_noted AFTER INSERT ON " table                                         \
    " REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION qor_record_note(" kind ")", \
        "CREATE TRIGGER " table "_noted_again AFTER UPDATE ON " table                               \
        " REFERENCING NEW TABLE AS came FOR EACH STATEMENT EXECUTE FUNCTION qor_record_note(" kind ")"

constexpr const char* postgresSequenceFillingStatements[] = {QOR_FILL_SEQUENCE(QOR_RANGES, "uuid")};

constexpr const char* postgresSequenceStatements[] = {
    "CREATE TABLE qor_record_number (n bigint NOT NULL)",
    "INSERT INTO qor_record_number (n) VALUES (0)",
    "CREATE TABLE qor_record_change (n bigint NOT NULL PRIMARY KEY, kind int NOT NULL, first bigint NOT NULL, "
    "last bigint NOT NULL, eid uuid) WITH (fillfactor = 90)",
    QOR_FILL_SEQUENCE(QOR_RANGES, "uuid"),

    // kind -1: not a change but the mark behind all others. Arrays as they are: compressing what is read once costs
    // more than it saves.
    "CREATE UNLOGGED TABLE qor_record_due (id bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY, kind int NOT NULL, "
    "seqs bigint[], eids uuid[])",
    "ALTER TABLE qor_record_due ALTER seqs SET STORAGE EXTERNAL, ALTER eids SET STORAGE EXTERNAL",

    // So many at a time that an array can hold them.
    QOR_FUNCTION("qor_record_note()", "trigger",
                 "BEGIN IF TG_ARGV[0] = '" QOR_SEQUENCE_ENVIRONMENT "' THEN "
                 "INSERT INTO qor_record_due (kind, eids) SELECT 0, array_agg(b.eid) FROM (SELECT eid, "
                 "(row_number() OVER () - 1) / 1000000 AS block FROM came) b GROUP BY b.block; ELSE "
                 "INSERT INTO qor_record_due (kind, seqs) SELECT TG_ARGV[0]::int, array_agg(b.seq) FROM (SELECT seq, "
                 "(row_number() OVER () - 1) / 1000000 AS block FROM came) b GROUP BY b.block; END IF; "
                 "RETURN NULL; END"),
    QOR_NOTED(QOR_SEQUENCE_ENVIRONMENT, "qor_environment"),
    QOR_NOTED(QOR_SEQUENCE_OPERATION, "qor_operation"),
    QOR_NOTED(QOR_SEQUENCE_EVENT, "qor_event"),
    QOR_NOTED(QOR_SEQUENCE_BACKUP, "qor_backup"),

    // The transaction's changes get their numbers: each record once, however often it was changed.
    QOR_FUNCTION(
        "qor_record_due_tell()", "void",
        "DECLARE past bigint; latest record; more bigint; BEGIN SELECT n INTO past FROM qor_record_number FOR UPDATE; "
        "SELECT c.n, c.kind, c.first, c.last INTO latest FROM qor_record_change c ORDER BY c.n DESC LIMIT 1; "
        "WITH due AS (DELETE FROM qor_record_due RETURNING kind, seqs, eids), "
        "records AS (SELECT DISTINCT d.kind, u.seq FROM due d CROSS JOIN unnest(d.seqs) AS u (seq)), "
        "runs AS (SELECT kind, seq, seq - row_number() OVER (PARTITION BY kind ORDER BY seq) AS run FROM records), "
        "ranges AS (SELECT kind, min(seq) AS first, max(seq) AS last, NULL::uuid AS eid FROM runs GROUP BY kind, run "
        "UNION ALL SELECT DISTINCT 0, 0::bigint, 0::bigint, u.eid FROM due d CROSS JOIN unnest(d.eids) AS u (eid)), "
        "placed AS (SELECT r.*, sum(r.last - r.first + 1) OVER w - (r.last - r.first + 1) AS before, "
        "row_number() OVER w AS place FROM ranges r WINDOW w AS (ORDER BY r.kind, r.first, r.eid "
        "ROWS UNBOUNDED PRECEDING)), "
        "joined AS (SELECT p.*, coalesce(p.place = 1 AND p.kind > 0 AND p.kind = latest.kind "
        "AND p.first = latest.last + 1, false) AS goes_on FROM placed p), "
        "stored AS (INSERT INTO qor_record_change AS c (n, kind, first, last, eid) SELECT CASE WHEN j.goes_on THEN "
        "latest.n ELSE past + 1 + j.before END, j.kind, CASE WHEN j.goes_on THEN latest.first ELSE j.first END, "
        "j.last, j.eid FROM joined j ORDER BY j.place ON CONFLICT (n) DO UPDATE SET last = excluded.last) "
        "SELECT sum(last - first + 1) INTO more FROM ranges; "
        "UPDATE qor_record_number SET n = past + coalesce(more, 0); END"),
    QOR_FUNCTION("qor_record_due_last()", "trigger",
                 "BEGIN IF NEW.kind < 0 THEN PERFORM qor_record_due_tell(); "
                 "ELSIF NOT EXISTS (SELECT FROM qor_record_due WHERE kind < 0) THEN "
                 "INSERT INTO qor_record_due (kind) VALUES (-1); END IF; RETURN NULL; END"),
    "CREATE CONSTRAINT TRIGGER qor_record_due_told AFTER INSERT ON qor_record_due DEFERRABLE INITIALLY DEFERRED "
    "FOR EACH ROW EXECUTE FUNCTION qor_record_due_last()",

    "DROP TRIGGER qor_environment_change_numbered ON qor_environment_change",
    "DROP FUNCTION qor_change_number()",
    QOR_FUNCTION("qor_change_number()", "trigger",
                 "DECLARE next bigint; BEGIN PERFORM qor_count_due_tell(); "
                 "UPDATE qor_change SET n = n + 1 RETURNING n INTO next; "
                 "UPDATE qor_environment_change SET n = next WHERE id = NEW.id; "
                 "IF next % 256 = 0 THEN DELETE FROM qor_environment_change WHERE n < (SELECT n FROM "
                 "qor_environment_change WHERE n IS NOT NULL ORDER BY n DESC NULLS LAST OFFSET 1000 LIMIT 1); END IF; "
                 "RETURN NULL; END"),
    "CREATE CONSTRAINT TRIGGER qor_environment_change_numbered AFTER INSERT ON qor_environment_change "
    "DEFERRABLE INITIALLY DEFERRED FOR EACH ROW EXECUTE FUNCTION qor_change_number()",
};

}  // namespace

const QORSchemaStep postgresSequence{postgresSequenceStatements};
const QORSchemaStep postgresSequenceFilling{postgresSequenceFillingStatements};

}  // namespace QOR
