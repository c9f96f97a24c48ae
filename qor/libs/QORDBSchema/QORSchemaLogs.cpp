#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// Logs are read newest first, records of one second by arrival. seq is the arrival, and every index of SQLite ends in
// it, so that an index on the time alone gives that order.
constexpr const char* logSchemaStatements[] = {
    R"sql(CREATE TABLE qor_operation (
    seq INTEGER PRIMARY KEY,
    id nvarchar(128) NOT NULL UNIQUE,
    parent_id nvarchar(128),
    op nvarchar(128),
    status int NOT NULL,
    time datetime NOT NULL,
    eid uniqueidentifier,
    package nvarchar(255),
    version nvarchar(128),
    message nvarchar,
    security_operation int GENERATED ALWAYS AS (2) VIRTUAL
))sql",
    "CREATE INDEX qor_operation_time ON qor_operation (time)",
    "CREATE INDEX qor_operation_eid ON qor_operation (eid, time)",

    // Every environment that an operation belongs to or touches, so that one index finds them all. position: the
    // place in the operation's list, -1 for its own environment where the list does not name it.
    R"sql(CREATE TABLE qor_operation_environment (
    operation bigint NOT NULL REFERENCES qor_operation (seq) ON DELETE CASCADE,
    position int NOT NULL,
    eid uniqueidentifier NOT NULL,
    time datetime NOT NULL,
    PRIMARY KEY (operation, position)
) WITHOUT ROWID)sql",
    "CREATE INDEX qor_operation_environment_eid ON qor_operation_environment (eid, time, operation)",

    // id is seq under a type that conditions can compare.
    R"sql(CREATE TABLE qor_event (
    seq INTEGER PRIMARY KEY,
    id bigint GENERATED ALWAYS AS (seq) VIRTUAL,
    time datetime NOT NULL,
    eid uniqueidentifier,
    source nvarchar(255),
    category nvarchar(128),
    info nvarchar,
    security_operation int GENERATED ALWAYS AS (3) VIRTUAL
))sql",
    "CREATE INDEX qor_event_id ON qor_event (id)",
    "CREATE INDEX qor_event_time ON qor_event (time)",
    "CREATE INDEX qor_event_eid ON qor_event (eid, time)",
    "CREATE INDEX qor_event_category ON qor_event (category, time)",

    R"sql(CREATE VIEW "vOpLog" AS SELECT
    id, parent_id, op, status, time, eid, package, version, message,
    security_operation AS "securityOperation_2", eid AS "securableObjId"
FROM qor_operation)sql",

    R"sql(CREATE VIEW "vEventLog" AS SELECT
    id, time, eid, source, category, info,
    security_operation AS "securityOperation_3", eid AS "securableObjId"
FROM qor_event)sql",
};

}  // namespace

const QORSchemaStep logSchema{logSchemaStatements};

}  // namespace QOR
