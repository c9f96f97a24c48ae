#include "QORDBSchema/PostgresSchema.h"

namespace QOR {
namespace {

// As the step for SQLite describes it.
constexpr const char* postgresReadingStatements[] = {
    "CREATE TABLE qor_collector_position (machine uuid NOT NULL, collector text COLLATE \"C\" NOT NULL, "
    "position text COLLATE \"C\" NOT NULL, PRIMARY KEY (machine, collector))",
};

}  // namespace

const QORSchemaStep postgresReading{postgresReadingStatements};

}  // namespace QOR
