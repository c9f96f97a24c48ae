#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// Whoever keeps the environments in memory finds out what others have changed, and asks for no more than that.
//
// qor_change is one row: a number that grows with each change, in the order in which changes are committed. Here that
// is the order in which they are made, since one transaction writes at a time.
//
// qor_environment_change tells of the latest changes, by their number, the identifiers of the environments with blanks
// between them; null where it is not known which they are. There is always one from before all others that are kept:
// who knows its number, or a later one, has not missed any that went.
//
// The host's own statements skip triggers; it notes its changes by itself (QORLibAgent/QOREnvTable).
#define QOR_NOTE(eid)                                                                                              \
    "UPDATE qor_change SET n = n + 1; INSERT INTO qor_environment_change (n, environments) SELECT n, CASE WHEN "   \
    "length(" eid ") = 36 THEN " eid                                                                               \
    " END FROM qor_change; DELETE FROM qor_environment_change WHERE (SELECT n FROM qor_change) % 256 = 0 AND n < " \
    "(SELECT n FROM qor_environment_change ORDER BY n DESC LIMIT 1 OFFSET 1000); "

constexpr const char* changeSchemaStatements[] = {
    "CREATE TABLE qor_change (n bigint NOT NULL)",
    "INSERT INTO qor_change (n) VALUES (0)",
    "CREATE TABLE qor_environment_change (n integer NOT NULL PRIMARY KEY, environments longtext)",
    "INSERT INTO qor_environment_change (n, environments) VALUES (0, '')",
    "CREATE TRIGGER qor_environment_came AFTER INSERT ON qor_environment BEGIN " QOR_NOTE("NEW.eid") "END",
    "CREATE TRIGGER qor_environment_gone AFTER DELETE ON qor_environment BEGIN " QOR_NOTE("OLD.eid") "END",
    "CREATE TRIGGER qor_environment_changed AFTER UPDATE ON qor_environment BEGIN " QOR_NOTE("NEW.eid") "END",
    "CREATE TRIGGER qor_environment_renamed AFTER UPDATE OF eid ON qor_environment WHEN NEW.eid IS NOT OLD.eid "
    "BEGIN " QOR_NOTE("OLD.eid") "END",
};

}  // namespace

const QORSchemaStep changeSchema{changeSchemaStatements};
const QORSchemaStep serverSchema{};
const QORSchemaStep handoverSchema{};
const QORSchemaStep countingSchema{};
const QORSchemaStep commitSchema{};
const QORSchemaStep lengthSchema{};

}  // namespace QOR
