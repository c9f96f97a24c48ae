#include "QORCommon/QORDigest.h"
#include "QORDBSchema/QORSchemaSteps.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

// What all agents on the database sign with, so that each takes what another one has handed out, also after a restart.
// purpose: what for. secret: 256 random bits, as hexadecimal digits.
constexpr const char* secretSchemaStatements[] = {
    "CREATE TABLE qor_secret (purpose nvarchar(64) NOT NULL PRIMARY KEY, secret char(64) NOT NULL)",
};

// The engine's own random bytes are not meant for secrets.
void makeSecrets(ASSession& session) {
    constexpr std::size_t bytes = 32;
    const std::string secret = hexOf(randomBytes(bytes));
    session.prepare("INSERT INTO qor_secret (purpose, secret) VALUES ('pages', ?)")
        .bind(1, std::string_view(secret))
        .execute();
}

}  // namespace

const QORSchemaStep secretSchema{secretSchemaStatements, makeSecrets};

}  // namespace QOR
