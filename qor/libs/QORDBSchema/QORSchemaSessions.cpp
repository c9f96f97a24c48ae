#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// Sessions that somebody ended before their time, each kept until then, when it would be over anyway. No agent keeps
// the others. That one came is a change of what somebody may, so that all agents hear of it; that one is forgotten is
// none.
constexpr const char* sessionSchemaStatements[] = {
    R"sql(CREATE TABLE qor_ended_session (
    id char(32) NOT NULL PRIMARY KEY,
    expires bigint NOT NULL
) WITHOUT ROWID)sql",
    "CREATE TRIGGER qor_ended_session_came AFTER INSERT ON qor_ended_session "
    "BEGIN UPDATE qor_identity_change SET n = n + 1; END",
};

}  // namespace

const QORSchemaStep sessionSchema{sessionSchemaStatements};

}  // namespace QOR
