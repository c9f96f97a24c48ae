#include "QORDBSchema/PostgresSchema.h"

namespace QOR {
namespace {

// As the step for SQLite describes it.
constexpr const char* postgresSessionsStatements[] = {
    "CREATE TABLE qor_ended_session (id text COLLATE \"C\" NOT NULL PRIMARY KEY, expires bigint NOT NULL)",
    "CREATE TRIGGER qor_ended_session_came AFTER INSERT ON qor_ended_session FOR EACH STATEMENT EXECUTE FUNCTION "
    "qor_identity_note()",
};

}  // namespace

const QORSchemaStep postgresSessions{postgresSessionsStatements};

}  // namespace QOR
