// What agents need that send their records on to another one, and those that take them in.
#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// uid: an event's identifier where its sender gave one, so that it is stored once however often it comes. Most have
// none, and cost the index nothing.
// reporter: the identity that brought the record, which no record can say itself; null for who needs none.
//
// qor_forward_stream: one row, made when something is sent on for the first time, from which events get their
// identifiers. It goes along with a copy of the database, so that what is sent from there is known to be the same.
// qor_forward_position: up to which change of a server's sequence ("" for the database's own) everything has been taken
// by a target.
// qor_forward_refused: what a target does not want, the record's kind and identifier as the sequence tells them.
constexpr const char* forwardSchemaStatements[] = {
    "ALTER TABLE qor_event ADD COLUMN uid uniqueidentifier",
    "CREATE UNIQUE INDEX qor_event_uid ON qor_event (uid) WHERE uid IS NOT NULL",
    "ALTER TABLE qor_environment ADD COLUMN reporter nvarchar(255)",
    "ALTER TABLE qor_operation ADD COLUMN reporter nvarchar(255)",
    "ALTER TABLE qor_event ADD COLUMN reporter nvarchar(255)",
    "ALTER TABLE qor_backup ADD COLUMN reporter nvarchar(255)",
    "DROP VIEW \"vEnvironment\"",
    R"sql(CREATE VIEW "vEnvironment" AS SELECT
    eid, parent_eid, title, state, transition, name, description, domain, hostname, architecture, type,
    os_name, os_platform, os_version, os_kernel, ip, memory, boot_time, config, virtual_config, updated,
    security_operation AS "securityOperation_1", eid AS "securableObjId", reporter
FROM qor_environment)sql",
    "DROP VIEW \"vBackupInfo\"",
    R"sql(CREATE VIEW "vBackupInfo" AS SELECT
    id, eid, storage_eid, time, size, type, description, name, hostname, info,
    security_operation AS "securityOperation_4", eid AS "securableObjId", reporter
FROM qor_backup)sql",
    "DROP VIEW \"vOpLog\"",
    R"sql(CREATE VIEW "vOpLog" AS SELECT
    id, parent_id, op, status, time, eid, package, version, message,
    security_operation AS "securityOperation_2", eid AS "securableObjId", reporter
FROM qor_operation)sql",
    "DROP VIEW \"vEventLog\"",
    R"sql(CREATE VIEW "vEventLog" AS SELECT
    id, time, eid, source, category, info,
    security_operation AS "securityOperation_3", eid AS "securableObjId", reporter
FROM qor_event)sql",
    "CREATE TABLE qor_forward_stream (id uniqueidentifier NOT NULL PRIMARY KEY) WITHOUT ROWID",
    R"sql(CREATE TABLE qor_forward_position (
    target nvarchar(255) NOT NULL,
    server nvarchar(128) NOT NULL,
    n bigint NOT NULL,
    PRIMARY KEY (target, server)
))sql",
    R"sql(CREATE TABLE qor_forward_refused (
    target nvarchar(255) NOT NULL,
    server nvarchar(128) NOT NULL,
    kind int NOT NULL,
    id nvarchar(128) NOT NULL,
    reason nvarchar NOT NULL,
    time bigint NOT NULL,
    PRIMARY KEY (target, server, kind, id)
))sql",
};

}  // namespace

const QORSchemaStep forwardSchema{forwardSchemaStatements};

}  // namespace QOR
