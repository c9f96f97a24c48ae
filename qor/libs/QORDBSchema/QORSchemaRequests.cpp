// Requests that brought records under a key of their own, so that one that is sent again is not stored again; and what
// tells this database from every other.
#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

constexpr const char* requestSchemaStatements[] = {
    // key: as its client chose it. digest: of what was sent. last_line: up to where it is stored. result: what became
    // of
    // it so far. time: seconds since the epoch.
    R"sql(CREATE TABLE qor_request (
    key nvarchar(255) NOT NULL PRIMARY KEY,
    digest char(64) NOT NULL,
    last_line bigint NOT NULL,
    result longtext NOT NULL,
    time bigint NOT NULL
))sql",
    "CREATE INDEX qor_request_time ON qor_request (time)",
    "CREATE TABLE qor_database (id char(32) NOT NULL)",
    "INSERT INTO qor_database (id) VALUES (lower(hex(randomblob(16))))",
};

}  // namespace

const QORSchemaStep requestSchema{requestSchemaStatements};

}  // namespace QOR
