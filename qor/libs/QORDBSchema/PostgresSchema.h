/// \file
/// The schema for PostgreSQL, where it begins with what the steps for SQLite lead to. Later versions are steps of their
/// own here as they are there.
#pragma once

#include "QORDBSchema/QORSchemaSteps.h"

namespace QOR {

/// Tables, indexes and views.
extern const QORSchemaStep postgresTables;
/// The counters of the logs, and the triggers that keep them and whatever else has to follow a table.
extern const QORSchemaStep postgresUpkeep;
/// The number of the latest change, and the latest changes of environments.
extern const QORSchemaStep postgresChanges;
/// Which servers the records are spread over, and what a server has to know of it.
extern const QORSchemaStep postgresServers;
/// The counters are changed at the end of a transaction.
extern const QORSchemaStep postgresCounting;
/// Who may ask, and what each may see.
extern const QORSchemaStep postgresIdentities;
/// Which transactions were committed.
extern const QORSchemaStep postgresCommits;
/// What all agents on the database know, and nobody else.
extern const QORSchemaStep postgresSecrets;
/// Tells the sequence of changed records of all that there are, where it tells of none. No step, but a part of the
/// next.
extern const QORSchemaStep postgresSequenceFilling;
/// Which records changed, in the order of the commits.
extern const QORSchemaStep postgresSequence;
/// Which server is about to have some of another one's environments.
extern const QORSchemaStep postgresHandover;
/// Events' identifiers, who brought a record, and how far records have been sent on to others.
extern const QORSchemaStep postgresForwarding;
/// How long the texts of the views mostly are.
extern const QORSchemaStep postgresLengths;
/// Sessions that were ended before their time.
extern const QORSchemaStep postgresSessions;
/// How far collectors have read.
extern const QORSchemaStep postgresReading;
/// Where records are sent on to.
extern const QORSchemaStep postgresTargets;

}  // namespace QOR
