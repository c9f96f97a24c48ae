#include "QORDBSchema/PostgresSchema.h"

namespace QOR {
namespace {

// As the step for SQLite describes it.
constexpr const char* postgresTargetStatements[] = {
    "CREATE TABLE qor_forward_target (target text COLLATE \"C\" NOT NULL PRIMARY KEY, keep bigint NOT NULL, "
    "seen bigint NOT NULL, behind bigint)",
    "INSERT INTO qor_forward_target (target, keep, seen) SELECT DISTINCT target, 1073741824, "
    "CAST(extract(epoch FROM now()) AS bigint) FROM qor_forward_position",
};

}  // namespace

const QORSchemaStep postgresTargets{postgresTargetStatements};

}  // namespace QOR
