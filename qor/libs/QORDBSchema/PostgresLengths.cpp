// How long texts mostly are, which SQLite's columns say by their types: clients are told the same whatever keeps the
// records. A type that says it here would refuse longer ones, which SQLite takes.
#include <string>

#include "QORDBSchema/PostgresSchema.h"
#include "QORDBSchema/SchemaTable.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

constexpr const char* postgresLengthsStatements[] = {
    "COMMENT ON COLUMN \"vEnvironment\".title IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vEnvironment\".name IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vEnvironment\".domain IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vEnvironment\".hostname IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vEnvironment\".architecture IS 'nvarchar(64)'",
    "COMMENT ON COLUMN \"vEnvironment\".type IS 'nvarchar(64)'",
    "COMMENT ON COLUMN \"vEnvironment\".os_name IS 'nvarchar(128)'",
    "COMMENT ON COLUMN \"vEnvironment\".os_platform IS 'nvarchar(64)'",
    "COMMENT ON COLUMN \"vEnvironment\".os_version IS 'nvarchar(64)'",
    "COMMENT ON COLUMN \"vEnvironment\".os_kernel IS 'nvarchar(128)'",
    "COMMENT ON COLUMN \"vEnvironment\".ip IS 'nvarchar(64)'",
    "COMMENT ON COLUMN \"vEnvironment\".reporter IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vBackupInfo\".id IS 'nvarchar(128)'",
    "COMMENT ON COLUMN \"vBackupInfo\".name IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vBackupInfo\".hostname IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vBackupInfo\".reporter IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vOpLog\".id IS 'nvarchar(128)'",
    "COMMENT ON COLUMN \"vOpLog\".parent_id IS 'nvarchar(128)'",
    "COMMENT ON COLUMN \"vOpLog\".op IS 'nvarchar(128)'",
    "COMMENT ON COLUMN \"vOpLog\".package IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vOpLog\".version IS 'nvarchar(128)'",
    "COMMENT ON COLUMN \"vOpLog\".reporter IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vEventLog\".source IS 'nvarchar(255)'",
    "COMMENT ON COLUMN \"vEventLog\".category IS 'nvarchar(128)'",
    "COMMENT ON COLUMN \"vEventLog\".reporter IS 'nvarchar(255)'",
};

/// The view of views reads the comments.
void remakeSchemaTable(ASSession& session) {
    session.execute("CREATE OR REPLACE VIEW \"SchemaTable\" AS " + schemaTableSql(ASEngine::PostgreSQL, {}));
}

}  // namespace

const QORSchemaStep postgresLengths{postgresLengthsStatements, &remakeSchemaTable};

}  // namespace QOR
