#include "QORDBSchema/PostgresSchema.h"

namespace QOR {
namespace {

// As the step for SQLite describes it. A view that is replaced keeps who may read it.
#define QOR_TEXT "text COLLATE \"C\""

constexpr const char* postgresForwardingStatements[] = {
    "ALTER TABLE qor_event ADD COLUMN uid uuid",
    "CREATE UNIQUE INDEX qor_event_uid ON qor_event (uid) WHERE uid IS NOT NULL",
    "ALTER TABLE qor_environment ADD COLUMN reporter " QOR_TEXT,
    "ALTER TABLE qor_operation ADD COLUMN reporter " QOR_TEXT,
    "ALTER TABLE qor_event ADD COLUMN reporter " QOR_TEXT,
    "ALTER TABLE qor_backup ADD COLUMN reporter " QOR_TEXT,
    "CREATE OR REPLACE VIEW \"vEnvironment\" AS SELECT "
    "eid, parent_eid, title, state, transition, name, description, domain, hostname, architecture, type, os_name, "
    "os_platform, os_version, os_kernel, ip, memory, boot_time, config, virtual_config, updated, "
    "1::int AS \"securityOperation_1\", eid AS \"securableObjId\", reporter FROM qor_environment",
    "CREATE OR REPLACE VIEW \"vBackupInfo\" AS SELECT id, eid, storage_eid, time, size, type, description, name, "
    "hostname, info, 4::int AS \"securityOperation_4\", eid AS \"securableObjId\", reporter FROM qor_backup",
    "CREATE OR REPLACE VIEW \"vOpLog\" AS SELECT id, parent_id, op, status, time, eid, package, version, message, "
    "2::int AS \"securityOperation_2\", eid AS \"securableObjId\", reporter FROM qor_operation",
    "CREATE OR REPLACE VIEW \"vEventLog\" AS SELECT seq AS id, time, eid, source, category, info, "
    "3::int AS \"securityOperation_3\", eid AS \"securableObjId\", reporter FROM qor_event",
    "CREATE TABLE qor_forward_stream (id uuid NOT NULL PRIMARY KEY)",
    "CREATE TABLE qor_forward_position (target " QOR_TEXT " NOT NULL, server " QOR_TEXT
    " NOT NULL, n bigint NOT NULL, "
    "PRIMARY KEY (target, server))",
    "CREATE TABLE qor_forward_refused (target " QOR_TEXT " NOT NULL, server " QOR_TEXT
    " NOT NULL, kind int NOT NULL, "
    "id " QOR_TEXT " NOT NULL, reason " QOR_TEXT
    " NOT NULL, time bigint NOT NULL, "
    "PRIMARY KEY (target, server, kind, id))",
};

}  // namespace

const QORSchemaStep postgresForwarding{postgresForwardingStatements};

}  // namespace QOR
