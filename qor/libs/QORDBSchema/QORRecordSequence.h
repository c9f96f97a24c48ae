/// \file
/// Internal: what both engines' steps for the sequence of changed records have in common.
#pragma once

/// Kinds, as the column `kind` has them.
#define QOR_SEQUENCE_ENVIRONMENT "0"
#define QOR_SEQUENCE_OPERATION "1"
#define QOR_SEQUENCE_EVENT "2"
#define QOR_SEQUENCE_BACKUP "3"

/// The entries of what is there. ranges: of a kind and a table, a select of kind, first, last. guid: the type of them.
#define QOR_FILL_SEQUENCE(ranges, guid)                                                                             \
    "INSERT INTO qor_record_change (n, kind, first, last, eid) SELECT s.n + CAST(sum(r.last - r.first + 1) OVER "   \
    "(ORDER BY r.kind, r.first, r.eid ROWS UNBOUNDED PRECEDING) AS bigint) - (r.last - r.first), r.kind, r.first, " \
    "r.last, r.eid FROM qor_record_number s CROSS JOIN (SELECT " QOR_SEQUENCE_ENVIRONMENT                           \
    " AS kind, CAST(0 AS bigint) AS first, CAST(0 AS bigint) AS last, eid FROM qor_environment "                    \
    "UNION ALL SELECT kind, first, last, CAST(NULL AS " guid                                                        \
    ") FROM (" ranges(QOR_SEQUENCE_OPERATION, "qor_operation") " UNION ALL " ranges(                                \
        QOR_SEQUENCE_EVENT, "qor_event") " UNION ALL " ranges(QOR_SEQUENCE_BACKUP, "qor_backup") ") p) r",          \
        "UPDATE qor_record_number SET n = coalesce((SELECT max(c.n + c.last - c.first) FROM qor_record_change c), n)"
