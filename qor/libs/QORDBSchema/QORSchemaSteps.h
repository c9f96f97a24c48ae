/// \file
/// The schema as a sequence of steps, each with what leads from the version before to its own. A step that was released
/// is never changed; what changes later is a further step.
#pragma once

#include <span>

namespace QOR {

class ASSession;

/// What leads to one version, within the caller's transaction.
struct QORSchemaStep {
    std::span<const char* const> statements;     ///< in the engine's dialect, run first
    void (*work)(ASSession& session) = nullptr;  ///< what statements cannot do; null for nothing. Throws to give up
};

/// Environments, their addresses and their backups.
extern const QORSchemaStep inventorySchema;
/// Operations, the environments that they touch, and events.
extern const QORSchemaStep logSchema;
/// Counters of the logs' records.
extern const QORSchemaStep counterSchema;
/// Which documents cannot be read; documents that were stored with something behind them are mended.
extern const QORSchemaStep documentSchema;
/// Counters that the database keeps itself, and whose are an operation's.
extern const QORSchemaStep upkeepSchema;
/// Requests that may be sent again, and the database's own identity.
extern const QORSchemaStep requestSchema;
/// The number of the latest change, and the latest changes of environments.
extern const QORSchemaStep changeSchema;
/// Nothing: a file's records are not spread over servers.
extern const QORSchemaStep serverSchema;
/// Nothing: who writes to a file is alone.
extern const QORSchemaStep countingSchema;
/// Who may ask, and what each may see.
extern const QORSchemaStep identitySchema;
/// Nothing: a file's commits do not get lost.
extern const QORSchemaStep commitSchema;
/// What all agents on the database know, and nobody else.
extern const QORSchemaStep secretSchema;
/// Tells the sequence of changed records of all that there are, where it tells of none. No step, but a part of the
/// next.
extern const QORSchemaStep sequenceFilling;
/// Which records changed, in the order of the commits.
extern const QORSchemaStep sequenceSchema;
/// About which environments somebody may store records. The same for each engine.
extern const QORSchemaStep writerSchema;
/// Nothing: a file's records are not spread over servers.
extern const QORSchemaStep handoverSchema;
/// Events' identifiers, who brought a record, and how far records have been sent on to others.
extern const QORSchemaStep forwardSchema;
/// Nothing: columns of a file say by their types how long their texts mostly are.
extern const QORSchemaStep lengthSchema;
/// Sessions that were ended before their time.
extern const QORSchemaStep sessionSchema;
/// How far collectors have read.
extern const QORSchemaStep readingSchema;
/// Where records are sent on to.
extern const QORSchemaStep targetSchema;

}  // namespace QOR
