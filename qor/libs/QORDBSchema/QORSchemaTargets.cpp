#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// Where records are sent on to, so that whoever removes some knows what waits. Of an address nobody has noted more than
// how far it is; it counts as one to which records have been sent until now.
// keep: bytes that the database may use before records go that were not sent.
// seen: seconds since the epoch, when an agent that sends there was last at work.
// behind: likewise, since when something waits; null while nothing does.
constexpr const char* targetSchemaStatements[] = {
    R"sql(CREATE TABLE qor_forward_target (
    target nvarchar(255) NOT NULL PRIMARY KEY,
    keep bigint NOT NULL,
    seen bigint NOT NULL,
    behind bigint
))sql",
    "INSERT INTO qor_forward_target (target, keep, seen) SELECT DISTINCT target, 1073741824, "
    "CAST(strftime('%s', 'now') AS bigint) FROM qor_forward_position",
};

}  // namespace

const QORSchemaStep targetSchema{targetSchemaStatements};

}  // namespace QOR
