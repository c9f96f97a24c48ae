/// \file
/// What differs between engines about the host's schema: its steps, and how an engine tells what there is. Everything
/// else about it is the same for all.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "QORDBSchema/QORSchemaSteps.h"
#include "rdbmspp/engine/ASEngine.h"

namespace QOR {

class ASSession;

/// A trigger, an index or a function of the schema. The texts live as long as the program.
struct QORSchemaPart {
    std::string_view name;
    std::string_view sql;  ///< makes it
};

/// A step and the version that it leads to. The first leads from nothing, each other one from the version of the one
/// before it.
struct QORVersionedStep {
    int version;
    const QORSchemaStep* step;
};

/// One engine. Immutable, of static storage. Statements run within the caller's transaction.
struct QORSchemaEngine {
    std::span<const QORVersionedStep> steps;
    std::span<const std::string_view> parts;  ///< how statements that make a part begin: "CREATE INDEX "
    const char* alone;                        ///< lets one transaction at a time change the schema; "" where each does
    const char* markTable;                    ///< makes the table that tells the host's databases from others
    const char* hasMark;                      ///< a row where that table is there, with its columns
    const char* hasIdentity;                  ///< a row where the database's identity is kept
    const char* isFilling;                    ///< a row where there is the table of an unfinished copy
    const char* hasAnything;                  ///< a row where there is any table or view
    const char* tableColumns;  ///< a select behind readTables(): table, column, type, place in the key from 1, or 0
    /// A select of the host's tables, their indexes over all rows, and the columns of these in their order.
    const char* indexes;
    const char* references;  ///< a select of tables and those that they refer to
    /// Tells the sequence of changed records, which tells of none, of all that there are.
    const QORSchemaStep* sequenceFilling;
    const char* afterFilling;  ///< a select of statements to run when tables have been filled; "" where there are none
    const char* viewColumns;   ///< the select behind SchemaTable, without its order
    const char* viewName;      ///< in it, a view's name
    const char* viewOrder;
    /// A select of view, column and the engine's own type, for columns that are stored otherwise than their type in
    /// SchemaTable tells; "" where there are none.
    const char* columnTypes;
    /// Whether a part is there and as its statement makes it, as far as the engine tells.
    bool (*isThere)(ASSession& session, const QORSchemaPart& part);
    /// A statement that removes a part, if it is there, so that it can be made; "" for a part that is replaced instead.
    std::string (*removal)(const QORSchemaPart& part);

    static const QORSchemaEngine& of(ASEngine engine) noexcept;
    int latestVersion() const noexcept { return steps.back().version; }
};

}  // namespace QOR
