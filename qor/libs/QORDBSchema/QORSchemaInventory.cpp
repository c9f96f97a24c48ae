#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// security_operation: the number behind "securityOperation_" must be a column with a type, and a generated column has
// one while an expression of the view has none. It takes no room in the table.
constexpr const char* inventorySchemaStatements[] = {
    R"sql(CREATE TABLE qor_environment (
    eid uniqueidentifier NOT NULL PRIMARY KEY,
    parent_eid uniqueidentifier,
    title nvarchar(255),
    state int NOT NULL,
    transition int NOT NULL,
    name nvarchar(255),
    description nvarchar,
    domain nvarchar(255),
    hostname nvarchar(255),
    architecture nvarchar(64),
    type nvarchar(64),
    os_name nvarchar(128),
    os_platform nvarchar(64),
    os_version nvarchar(64),
    os_kernel nvarchar(128),
    ip nvarchar(64),
    memory bigint,
    boot_time datetime,
    config nvarchar,
    virtual_config nvarchar,
    updated datetime NOT NULL,
    security_operation int GENERATED ALWAYS AS (1) VIRTUAL
))sql",
    "CREATE INDEX qor_environment_parent ON qor_environment (parent_eid)",
    "CREATE INDEX qor_environment_hostname ON qor_environment (hostname)",

    // source: 0 the environment's configuration, 1 its virtual configuration.
    R"sql(CREATE TABLE qor_environment_address (
    eid uniqueidentifier NOT NULL REFERENCES qor_environment (eid) ON DELETE CASCADE,
    source int NOT NULL,
    position int NOT NULL,
    address nvarchar(64) NOT NULL,
    PRIMARY KEY (eid, source, position)
) WITHOUT ROWID)sql",
    "CREATE INDEX qor_environment_address_address ON qor_environment_address (address)",

    R"sql(CREATE TABLE qor_backup (
    seq INTEGER PRIMARY KEY,
    id nvarchar(128) NOT NULL UNIQUE,
    eid uniqueidentifier,
    storage_eid uniqueidentifier,
    time datetime NOT NULL,
    size bigint NOT NULL,
    type int NOT NULL,
    description nvarchar,
    name nvarchar(255),
    hostname nvarchar(255),
    info image,
    security_operation int GENERATED ALWAYS AS (4) VIRTUAL
))sql",
    "CREATE INDEX qor_backup_time ON qor_backup (time)",
    "CREATE INDEX qor_backup_eid ON qor_backup (eid, time)",
    "CREATE INDEX qor_backup_storage ON qor_backup (storage_eid, time)",

    R"sql(CREATE VIEW "vEnvironment" AS SELECT
    eid, parent_eid, title, state, transition, name, description, domain, hostname, architecture, type,
    os_name, os_platform, os_version, os_kernel, ip, memory, boot_time, config, virtual_config, updated,
    security_operation AS "securityOperation_1", eid AS "securableObjId"
FROM qor_environment)sql",

    R"sql(CREATE VIEW "vBackupInfo" AS SELECT
    id, eid, storage_eid, time, size, type, description, name, hostname, info,
    security_operation AS "securityOperation_4", eid AS "securableObjId"
FROM qor_backup)sql",
};

}  // namespace

const QORSchemaStep inventorySchema{inventorySchemaStatements};

}  // namespace QOR
