#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// Who stood for an environment could only look; so he goes on.
constexpr const char* writerSchemaStatements[] = {
    "ALTER TABLE qor_identity_environment ADD COLUMN writes int NOT NULL DEFAULT 0"};

}  // namespace

const QORSchemaStep writerSchema{writerSchemaStatements};

}  // namespace QOR
