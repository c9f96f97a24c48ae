/// \file
/// The schema as a sequence of steps, each with the statements that lead from the version before to its own.
/// A step that was released is never changed; what changes later is a further step.
#pragma once

#include <span>

namespace QOR {

/// One version's statements, in SQLite's dialect.
struct QORSchemaStep {
    int version;
    std::span<const char* const> statements;
};

/// Environments, their addresses and their backups.
extern const std::span<const char* const> inventorySchema;
/// Operations, the environments that they touch, and events.
extern const std::span<const char* const> logSchema;
/// Counters of the logs' records.
extern const std::span<const char* const> counterSchema;

}  // namespace QOR
