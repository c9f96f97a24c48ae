#include "QORDBSchema/QORRecordSequence.h"
#include "QORDBSchema/QORSchemaSteps.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

// Which records came or were changed, in the order of the commits, for whoever follows them. Neither numbers of arrival
// nor times tell that: of two writers the one that got the lower number may commit last, and a record that is replaced
// keeps its number.
//
// Each change of a record has a number of its own, one more than the one before. qor_record_number is one row: the last
// number that was given out. qor_record_change has an entry for a run of changes whose records' numbers of arrival
// follow each other: n, the first change's number; kind, 0 environment, 1 operation, 2 event, 3 backup; first and last,
// the records' numbers of arrival; for an environment, which has none, both are 0 and eid is its identifier. So change
// n + i is of record first + i, and whoever stands behind change p goes on in the entry with the greatest n that is not
// greater than p + 1. The last entry grows as long as records come that belong behind it, whichever transaction brings
// them; thousands of records take a row or two.
//
// Removals are no changes. What was removed is found missing by who gets there; entries that have gone, because there
// are too many or because nothing is left of what they tell of, show as a first entry beyond p + 1.
//
// Here one transaction writes at a time: the order in which changes are made is that of the commits. The host's own
// statements skip triggers; it notes its records by itself (QORLibAgent/QORRecordChanges).

#define QOR_RANGES(kind, table)                                               \
    "SELECT " kind " AS kind, f.seq AS first, (SELECT l.seq FROM " table      \
    " l WHERE l.seq >= f.seq AND NOT EXISTS (SELECT 1 FROM " table            \
    " m WHERE m.seq = l.seq + 1) ORDER BY l.seq LIMIT 1) AS last FROM " table \
    " f WHERE NOT EXISTS (SELECT 1 FROM " table " b WHERE b.seq = f.seq - 1)"

#define QOR_NOTED(kind, table, name, when)                                                                 \
    "CREATE TRIGGER " name " AFTER " when " ON " table                                                     \
    " BEGIN UPDATE qor_record_number SET n = n + 1; INSERT INTO qor_record_change (n, kind, first, last) " \
    "SELECT coalesce(l.n, s.n), " kind                                                                     \
    ", coalesce(l.first, NEW.seq), NEW.seq FROM qor_record_number s LEFT JOIN qor_record_change l "        \
    "ON l.n = (SELECT max(n) FROM qor_record_change) AND l.kind = " kind                                   \
    " AND l.last = NEW.seq - 1 WHERE true ON CONFLICT (n) DO UPDATE SET last = excluded.last; END"
#define QOR_NOTED_BOTH(kind, table) \
    QOR_NOTED(kind, table, table "_noted", "INSERT"), QOR_NOTED(kind, table, table "_noted_again", "UPDATE")
#define QOR_NOTED_ENVIRONMENT(name, when)                                                                  \
    "CREATE TRIGGER " name " AFTER " when                                                                  \
    " ON qor_environment BEGIN UPDATE qor_record_number SET n = n + 1; INSERT INTO qor_record_change (n, " \
    "kind, first, last, eid) SELECT n, " QOR_SEQUENCE_ENVIRONMENT ", 0, 0, NEW.eid FROM qor_record_number; END"

constexpr const char* sequenceFillingStatements[] = {QOR_FILL_SEQUENCE(QOR_RANGES, "uniqueidentifier")};

constexpr const char* sequenceSchemaStatements[] = {
    "CREATE TABLE qor_record_number (n bigint NOT NULL)",
    "INSERT INTO qor_record_number (n) VALUES (0)",
    "CREATE TABLE qor_record_change (n INTEGER NOT NULL PRIMARY KEY, kind int NOT NULL, first bigint NOT NULL, "
    "last bigint NOT NULL, eid uniqueidentifier)",
    QOR_FILL_SEQUENCE(QOR_RANGES, "uniqueidentifier"),
    QOR_NOTED_BOTH(QOR_SEQUENCE_OPERATION, "qor_operation"),
    QOR_NOTED_BOTH(QOR_SEQUENCE_EVENT, "qor_event"),
    QOR_NOTED_BOTH(QOR_SEQUENCE_BACKUP, "qor_backup"),
    QOR_NOTED_ENVIRONMENT("qor_environment_noted", "INSERT"),
    QOR_NOTED_ENVIRONMENT("qor_environment_noted_again", "UPDATE"),
};

}  // namespace

const QORSchemaStep sequenceSchema{sequenceSchemaStatements};
const QORSchemaStep sequenceFilling{sequenceFillingStatements};

}  // namespace QOR
