#include "QORDBSchema/PostgresSchema.h"

namespace QOR {
namespace {

// Who writes leaves a token in its transaction, so that it can find out whether a commit was carried out whose answer
// was lost. The engine's own word on a transaction's number is not enough: after a crash that took the transaction,
// another one may get its number. Tokens of an hour ago go.
constexpr const char* postgresCommitsStatements[] = {
    "CREATE TABLE qor_commit (token text COLLATE \"C\" NOT NULL PRIMARY KEY, time timestamptz NOT NULL DEFAULT now())",
    "CREATE INDEX qor_commit_time ON qor_commit (time)",
};

}  // namespace

const QORSchemaStep postgresCommits{postgresCommitsStatements};

}  // namespace QOR
