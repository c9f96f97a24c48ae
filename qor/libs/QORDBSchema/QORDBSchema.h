/// \file
/// QORDBSchema: the host's tables and views, created and brought up to date; other people's databases told apart.
///
/// Tables are the host's own business and may change with every version; what clients ask for are the views
/// vEnvironment, vOpLog, vEventLog and vBackupInfo. Their columns are plain columns of tables with declared types:
/// an engine tells no type of an expression. Stored forms: GUIDs in lower case with hyphens, times
/// "YYYY-MM-DD HH:MM:SS" in UTC, info documents as XML text, of backups as bytes.
#pragma once

#include <string>
#include <vector>

#include "QORCommon/QORExport.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// What a program means to do with the database, which decides what an unsuitable one leads to.
enum class QORSchemaMode {
    Own,      ///< keep records in it: another program's database is refused
    Reading,  ///< answer questions from it: another program's database is read as it is, and nothing is written to it
    Filling,  ///< as Own, for a copy of another database: also one that such a copy has left unfinished
};

/// What a database was found to be.
struct QORSchemaState {
    enum class Kind {
        Empty,    ///< no tables, no views
        Ours,     ///< bears the host's mark
        Foreign,  ///< another program's
    };
    Kind kind = Kind::Empty;
    int version = 0;       ///< of the host's schema; 0 unless Ours
    bool filling = false;  ///< a copy of another database has begun to fill it, and not ended
};

/// What open() did.
struct QORSchemaReport {
    QORSchemaState found;   ///< before anything was done; Empty for a database that was missing
    int version = 0;        ///< the version now; 0 when the database is not ours
    bool readOnly = false;  ///< the connections are for reading only
};

struct QORServer;

class QOR_API QORDBSchema {
public:
    /// The version that this program writes.
    static int currentVersion() noexcept;

    /// Makes QORRdbms ready for use: finds out what the database is without writing to it, then, unless
    /// options.readOnly, migrates an older version and, in mode Own, creates what is missing, all in one transaction
    /// that takes the write lock first; programs that start together wait for each other. Stored documents that cannot
    /// be read are counted in the log. In mode Own servers that keep its records are brought up to date likewise, those
    /// that can be reached; of the others the log tells. With options.readOnly nothing is ever written. In mode Own the
    /// files are made, or become, readable to their user alone. \throws QORException 1 for a database that is newer
    /// than this program, another program's in mode Own, missing or empty in mode Reading, or whose files another user
    /// has put there; the text names the database. So it does for one that is being filled, unless in mode Filling.
    /// \throws AException when the database cannot be opened, read or written
    static QORSchemaReport open(const ASDatabaseOptions& options, QORSchemaMode mode);

    /// Looks without writing.
    static QORSchemaState inspect(ASSession& session);

    /// Brings an empty database or an older one of ours to a version, within the caller's transaction, which must be
    /// for writing. \returns the version found \throws as open() in mode Own
    static int migrate(ASSession& session, int version = currentVersion());

    /// Brings the database of a server that keeps records of the process's database to the version that this program
    /// writes. \throws QORException 1 when it is newer, or none of this host's; the text names the server. AException
    static void migrateServer(const QORServer& server);

    /// What migrate() runs on an empty database of PostgreSQL's, for who runs it by other means.
    static std::vector<std::string> postgresStatements();

    /// Fits the session's connection for transactions of many records: room for the pages that they touch, and a
    /// longer log before it is worked into the file. It stays so; durability is what it was.
    static void prepareManyWrites(ASSession& session);

    /// Names of the triggers and indexes that a database of ours should have and has not, or not as they should be.
    static std::vector<std::string> missingParts(ASSession& session);
    /// Makes them anew, within the caller's transaction, which must be for writing.
    static void restoreParts(ASSession& session);

    /// Makes a database of ours ready to be filled by a copy, within the caller's transaction: without triggers, which
    /// would do again what was done, and without indexes, which are made faster when all is there. Until endFilling()
    /// everybody else refuses it. Makes the table qor_copy (part, records, digest), for who fills to keep what it
    /// needs.
    static void beginFilling(ASSession& session);
    /// When all records are there: makes the parts, and lets those that come from now on arrive behind them.
    static void completeFilling(ASSession& session);
    /// Takes the refusal, and qor_copy, away again.
    static void endFilling(ASSession& session);

    /// Writes the file anew, without what is free in it, so that it can be made smaller from then on as records are
    /// removed. Not within a transaction; as long as the file is large, writers wait. \throws AException
    static void makeShrinkable(ASSession& session);

    /// The name of the database in a connection string, for messages: the value of Database (or of DSN), never a
    /// password.
    static std::string databaseName(const std::string& connectionString);

private:
    static void migrateServers(bool homeChanged);
    static QORSchemaReport openDatabase(const ASDatabaseOptions& options, QORSchemaMode mode);
};

}  // namespace QOR
