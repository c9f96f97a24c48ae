/// \file
/// Databases: the host's, of which a process has one, and others; pools of connections, transactions on them, and plain
/// statements for the host's own SQL.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/engine/ASEngine.h"
#include "rdbmspp/engine/ASTriggers.h"

namespace QOR {

/// How to reach the database.
struct ASDatabaseOptions {
    std::string connectionString;  ///< ODBC's, e.g. "Driver=SQLite3;Database=./agent.db"
    std::string name{};            ///< for people, where several are in use; empty: what the string calls it
    bool mayBeAway = false;        ///< a server that cannot be reached when it is configured: whoever uses it finds out
    bool readOnly = false;         ///< nothing is ever written, not even a missing database created. On a file system
                                   ///< that is mounted read-only, a file without a log beside it is taken for
                                   ///< unchanging; it is refused as soon as it turns out to change
    unsigned idleConnections = 8;  ///< kept open when unused
    unsigned maxConnections = 64;  ///< in use at once; a request beyond waits. One that reads a long result of
                                   ///< SQLite without a transaction opens a second one beside its own
    unsigned busyTimeoutMs = 5000;  ///< how long a database that another program has locked is waited for
    std::string schema{};           ///< PostgreSQL's that bare names are found in; empty: those of the role's path
};

class ASFaults;
class ASStatement;
enum class ASAccess;
struct ASDialect;

/// A connection in use by one thread. Obtained from a transaction; owned by the pool.
class QOR_API ASSession {
public:
    ASEngine engine() const noexcept;
    /// Runs one statement of the host's own without results (or whose results do not matter).
    void execute(std::string_view sql);
    /// Whether a statement can be run without triggers here.
    bool skipsTriggers() const noexcept;
    /// Who skipped triggers has still to write what they would have written. Until he has, a statement that may fire
    /// triggers, which would find the half of it, is an AException, and so is a commit. Forgotten with the transaction.
    void setOwing(bool owing) noexcept;
    /// A prepared statement, kept by the connection under its text and reused; reset to no parameters, not running.
    /// The reference is valid until the same text is prepared again on this session or the transaction ends.
    ASStatement& prepare(std::string_view sql);
    /// Rows changed by the last execute or statement.
    std::int64_t changes() const;
    /// `"name"` with quotes inside doubled. \throws AException for a name with a NUL byte
    static std::string quoteIdentifier(std::string_view name);
    /// `'text'` with quotes inside doubled. \throws AException for a text with a NUL byte
    static std::string quoteLiteral(std::string_view text);

    struct Impl;
    explicit ASSession(std::unique_ptr<Impl> impl);
    ~ASSession();
    Impl& impl() noexcept { return *m_impl; }

private:
    void ready();
    std::unique_ptr<Impl> m_impl;
};

/// A prepared statement with `?` parameters, numbered from 1; result columns are numbered from 1 too.
class QOR_API ASStatement {
public:
    /// \throws AException for a text with a NUL byte: it would be stored, but read only up to there
    ASStatement& bind(unsigned index, std::string_view text);
    ASStatement& bind(unsigned index, std::int64_t value);
    ASStatement& bind(unsigned index, double value);
    ASStatement& bindBinary(unsigned index, std::string_view bytes);
    ASStatement& bindNull(unsigned index);
    /// Statements that fire triggers and statements that skip them should not take turns: at each change the
    /// connection's statements are prepared anew.
    void execute(ASTriggers triggers = ASTriggers::Fire);
    bool fetch();
    /// Executes the statement and tells whether it has any row; its result has ended then.
    bool hasRow();
    bool isNull(unsigned column) const;
    /// The column as text; valid until the next fetch or execute.
    std::string_view text(unsigned column) const;
    std::int64_t integer(unsigned column) const;
    /// A column of bytes (text() gives it in the driver's own spelling); valid as text() is.
    std::string_view bytes(unsigned column) const;
    /// Ends the result; the statement may be executed again.
    void close();
    /// Ends the result, sets all parameters to null and gives back the memory of long values.
    void reset();

    struct Impl;
    explicit ASStatement(std::unique_ptr<Impl> impl);
    ~ASStatement();

private:
    std::unique_ptr<Impl> m_impl;
};

/// A database. Thread-safe. instance() is the one that the process serves; whoever needs another one besides makes an
/// object of his own, which outlives its transactions.
///
/// What a thread does for a request (QORRequestControl) ends with that request, be it waiting for a connection, for its
/// turn to write or for another program's lock, running a statement or fetching: then a QORException errDeadline is
/// thrown, whatever else the methods here and of sessions, statements and cursors are said to throw.
///
/// A file that is gone, empty or another one than at configure() is not opened: whoever replaces a database stops its
/// programs first. A commit whose synchronisation fails is undone, as the caller is told; until that has succeeded and
/// reached the disk nothing is written. What lasts of faults is in ASFaults.
class QOR_API QORRdbms {
public:
    static QORRdbms& instance();
    QORRdbms();
    ~QORRdbms();
    QORRdbms(const QORRdbms&) = delete;
    QORRdbms& operator=(const QORRdbms&) = delete;
    /// Sets where the database is and makes sure that it can be opened, unless options.mayBeAway; closes what was open
    /// before.
    /// \throws AException naming driver, database and reason
    void configure(const ASDatabaseOptions& options);
    const ASDatabaseOptions& options() const;
    ASEngine engine() const;
    /// How the configured database's SQL is written; SQLite's before there is one.
    const ASDialect& dialect() const;
    bool isConfigured() const;
    /// Grows with each configure(); 0 while nothing is configured.
    std::uint64_t generation() const;
    /// What is wrong with this database now. That of instance() is ASFaults::instance().
    ASFaults& faults() const;
    /// How many requests wait for a connection now.
    std::size_t waiting() const;
    struct Connections {
        std::size_t open = 0;  ///< or being opened
        std::size_t idle = 0;  ///< of these
    };
    Connections connections() const;
    /// How many wait for their turn to write, where one writes at a time.
    std::size_t waitingWriters() const;
    /// From now on a connection counts as one to this database only when `select` answers `value`: a file that was
    /// emptied or written over in place has the same name, and may well have the same tables.
    void expect(std::string select, std::string value);
    /// Runs `work` in a transaction that writes, and commits it. Where the engine undoes the transaction for another
    /// one's sake it is run again, some times; where the server cannot be reached, or no longer, and nothing was
    /// committed, until it has been away for busyTimeoutMs or the request ends. So what `work` does beside the database
    /// has to bear that, and nobody believes what it found before this returns. \throws what it throws, and what
    /// QORRdbmsTran does
    void write(const std::function<void(ASSession&)>& work);
    /// Runs `work` in a transaction that reads, and again, some times, where that was undone. \throws as write()
    void read(ASAccess access, const std::function<void(ASSession&)>& work);
    /// Closes idle connections; those in use close when they come back.
    void shutdown();

    /// Must run before any ODBC call of the process: settles options of the engine that can be set only once.
    static void prepareProcess();

private:
    friend class QORRdbmsTran;
    friend class ASSession;
    explicit QORRdbms(ASFaults& faults);
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

/// What a transaction is for, which decides what is opened on the connection.
enum class ASAccess {
    ReadOne,    ///< a single select: consistent in itself, no transaction on the wire, but where the database computes
                ///< something for it that only a transaction keeps from writing
    Read,       ///< several selects that see one state
    ReadKnown,  ///< the same for statements of the host's own that are run in the same way whatever values they get
    ReadLong,   ///< the same for cursors alone, of which one may have a result of any length: rows are read as they are
                ///< fetched, where the engine can. Plain statements of the session are outside of it
    Write,      ///< takes the write lock, if there is one, at once: then one writes at a time, the others wait in turn
};

/// A transaction on a pooled connection. Rolls back unless committed; ends with the object. A connection whose state
/// is in doubt after a failure is closed, not returned.
///
/// Where another program holds the write lock, a writer that serves a request waits as long as the request may go on,
/// another one for busyTimeoutMs. A writer that waits for its turn has no connection, and nobody who reads waits for
/// it.
class QOR_API QORRdbmsTran {
public:
    explicit QORRdbmsTran(ASAccess access = ASAccess::Read) : QORRdbmsTran(QORRdbms::instance(), access) {}
    QORRdbmsTran(QORRdbms& database, ASAccess access);
    ~QORRdbmsTran();
    QORRdbmsTran(const QORRdbmsTran&) = delete;
    QORRdbmsTran& operator=(const QORRdbmsTran&) = delete;

    ASSession& operator*() noexcept { return *m_session; }
    ASSession* operator->() noexcept { return m_session; }
    void commit();
    /// Undoes everything before the end of the object's life, as long as that may take; nothing more is done in it but
    /// to read. \throws AException
    void rollback();

private:
    ASSession* m_session = nullptr;
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
