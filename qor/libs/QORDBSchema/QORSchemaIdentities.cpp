#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// Who may ask, and what each may see. kind: 1 a user of the system, 2 a group of it, 3 whoever holds a token, 4 whoever
// has a certificate. subject: what the system, or the certificate, calls him.
//
// Of a token its digest is kept, by which it is known again and from which nobody can make it. Times are seconds since
// the epoch; expires: null for never.
//
// qor_identity_change is one row: a number that grows with each change of what somebody may. When a token was used
// last is none.
#define QOR_IDENTITY_CHANGED "BEGIN UPDATE qor_identity_change SET n = n + 1; END"

constexpr const char* identitySchemaStatements[] = {
    R"sql(CREATE TABLE qor_identity (
    name nvarchar(255) NOT NULL PRIMARY KEY,
    kind int NOT NULL,
    subject nvarchar(255) NOT NULL,
    full_access int NOT NULL,
    UNIQUE (kind, subject)
))sql",
    R"sql(CREATE TABLE qor_identity_environment (
    name nvarchar(255) NOT NULL,
    position int NOT NULL,
    eid uniqueidentifier NOT NULL,
    below int NOT NULL,
    PRIMARY KEY (name, position)
))sql",
    R"sql(CREATE TABLE qor_token (
    digest char(64) NOT NULL PRIMARY KEY,
    name nvarchar(255) NOT NULL,
    created bigint NOT NULL,
    expires bigint,
    last_use bigint
))sql",
    "CREATE INDEX qor_token_name ON qor_token (name)",
    "CREATE TABLE qor_identity_change (n bigint NOT NULL)",
    "INSERT INTO qor_identity_change (n) VALUES (0)",
    "CREATE TRIGGER qor_identity_came AFTER INSERT ON qor_identity " QOR_IDENTITY_CHANGED,
    "CREATE TRIGGER qor_identity_gone AFTER DELETE ON qor_identity " QOR_IDENTITY_CHANGED,
    "CREATE TRIGGER qor_identity_changed AFTER UPDATE ON qor_identity " QOR_IDENTITY_CHANGED,
    "CREATE TRIGGER qor_identity_environment_came AFTER INSERT ON qor_identity_environment " QOR_IDENTITY_CHANGED,
    "CREATE TRIGGER qor_identity_environment_gone AFTER DELETE ON qor_identity_environment " QOR_IDENTITY_CHANGED,
    "CREATE TRIGGER qor_identity_environment_changed AFTER UPDATE ON qor_identity_environment " QOR_IDENTITY_CHANGED,
    "CREATE TRIGGER qor_token_came AFTER INSERT ON qor_token " QOR_IDENTITY_CHANGED,
    "CREATE TRIGGER qor_token_gone AFTER DELETE ON qor_token " QOR_IDENTITY_CHANGED,
    "CREATE TRIGGER qor_token_changed AFTER UPDATE OF digest, name, created, expires ON "
    "qor_token " QOR_IDENTITY_CHANGED,
};

}  // namespace

const QORSchemaStep identitySchema{identitySchemaStatements};

}  // namespace QOR
