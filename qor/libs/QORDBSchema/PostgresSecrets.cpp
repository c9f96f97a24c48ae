#include "QORDBSchema/PostgresSchema.h"

namespace QOR {
namespace {

// As the step for SQLite describes it. Identifiers of this kind are random bits from where the engine takes those of
// its secrets, 122 each.
constexpr const char* postgresSecretsStatements[] = {
    "CREATE TABLE qor_secret (purpose text COLLATE \"C\" NOT NULL PRIMARY KEY, secret text COLLATE \"C\" NOT NULL)",
    "INSERT INTO qor_secret (purpose, secret) SELECT 'pages', encode(sha256(uuid_send(gen_random_uuid()) || "
    "uuid_send(gen_random_uuid()) || uuid_send(gen_random_uuid())), 'hex')",
};

}  // namespace

const QORSchemaStep postgresSecrets{postgresSecretsStatements};

}  // namespace QOR
