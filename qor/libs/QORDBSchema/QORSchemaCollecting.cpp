#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {
namespace {

// How far the collectors of a machine have read their sources, in words of their own. It goes along with the records:
// where a copy of the database is written on, nothing is read twice.
constexpr const char* readingSchemaStatements[] = {
    R"sql(CREATE TABLE qor_collector_position (
    machine uniqueidentifier NOT NULL,
    collector nvarchar(64) NOT NULL,
    position nvarchar NOT NULL,
    PRIMARY KEY (machine, collector)
) WITHOUT ROWID)sql",
};

}  // namespace

const QORSchemaStep readingSchema{readingSchemaStatements};

}  // namespace QOR
