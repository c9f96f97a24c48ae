#include "QORDBSchema/PostgresSchema.h"

namespace QOR {
namespace {

// As the step for SQLite describes it. A transaction that changes what somebody may holds the number's row until its
// commit, so numbers are in the order of commits.
#define QOR_TEXT "text COLLATE \"C\" NOT NULL"

constexpr const char* postgresIdentitiesStatements[] = {
    "CREATE TABLE qor_identity (name " QOR_TEXT " PRIMARY KEY, kind int NOT NULL, subject " QOR_TEXT
    ", full_access int NOT NULL, UNIQUE (kind, subject))",
    "CREATE TABLE qor_identity_environment (name " QOR_TEXT
    ", position int NOT NULL, eid uuid NOT NULL, below int NOT NULL, PRIMARY KEY (name, position))",
    "CREATE TABLE qor_token (digest " QOR_TEXT " PRIMARY KEY, name " QOR_TEXT
    ", created bigint NOT NULL, expires bigint, last_use bigint)",
    "CREATE INDEX qor_token_name ON qor_token (name)",
    "CREATE TABLE qor_identity_change (n bigint NOT NULL)",
    "INSERT INTO qor_identity_change (n) VALUES (0)",
    "CREATE FUNCTION qor_identity_note() RETURNS trigger LANGUAGE plpgsql SET search_path FROM CURRENT AS $$ "
    "BEGIN UPDATE qor_identity_change SET n = n + 1; RETURN NULL; END $$",
    "CREATE TRIGGER qor_identity_changed AFTER INSERT OR DELETE OR UPDATE OR TRUNCATE ON qor_identity "
    "FOR EACH STATEMENT EXECUTE FUNCTION qor_identity_note()",
    "CREATE TRIGGER qor_identity_environment_changed AFTER INSERT OR DELETE OR UPDATE OR TRUNCATE ON "
    "qor_identity_environment FOR EACH STATEMENT EXECUTE FUNCTION qor_identity_note()",
    "CREATE TRIGGER qor_token_changed AFTER INSERT OR DELETE OR UPDATE OF digest, name, created, expires OR TRUNCATE "
    "ON qor_token FOR EACH STATEMENT EXECUTE FUNCTION qor_identity_note()",
};

}  // namespace

const QORSchemaStep postgresIdentities{postgresIdentitiesStatements};

}  // namespace QOR
