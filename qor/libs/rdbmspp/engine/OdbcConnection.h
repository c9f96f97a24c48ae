/// \file
/// Internal: connections and statements of ODBC. The only place that calls it is OdbcConnection.cpp.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/engine/SqliteEngine.h"

namespace QOR {

struct ASValue;
class ASFaults;
class OdbcConnection;

/// How a column of a result is read.
struct OdbcColumn {
    bool binary = false;
    std::size_t expected = 0;  ///< bytes that most values need; longer ones are read whole too

    friend bool operator==(const OdbcColumn&, const OdbcColumn&) = default;
};

/// A prepared statement, which the engine compiles once. Parameters and columns are bound to memory that it owns and
/// stay so for as long as it fits.
/// Used by one thread. Indexes begin at 0. Failures are AExceptions.
class OdbcStatement {
public:
    OdbcStatement(OdbcConnection& connection, std::string sql);
    ~OdbcStatement();
    OdbcStatement(const OdbcStatement&) = delete;
    OdbcStatement& operator=(const OdbcStatement&) = delete;

    const std::string& sql() const noexcept { return m_sql; }
    void setNull(std::size_t index);
    void setInteger(std::size_t index, std::int64_t value);
    void setReal(std::size_t index, double value);
    void setText(std::size_t index, std::string_view value) { setBytes(index, value, false); }
    void setBinary(std::size_t index, std::string_view value) { setBytes(index, value, true); }
    void set(std::size_t index, const ASValue& value);

    /// Columns as they are to be read; nothing is done when they are bound so already.
    void bindColumns(const std::vector<OdbcColumn>& columns);
    /// Binds all columns of the result as texts.
    void bindTextColumns();
    std::size_t columns() const noexcept { return m_columns.size(); }

    void execute(ASTriggers triggers = ASTriggers::Fire);
    bool fetch();
    bool isNull(std::size_t column) const noexcept;
    /// Valid until the next fetch or close. Null, and nothing else, has no address (data()).
    std::string_view value(std::size_t column) const noexcept;
    std::int64_t changes();
    void close() noexcept;
    bool isOpen() const noexcept { return m_open; }
    /// Ends the result, makes all parameters null and gives back the memory of long values. What is bound stays bound.
    void giveBack() noexcept;

private:
    /// As what the driver knows a parameter.
    enum class Bound : unsigned char { None, Integer, Real, Text, Binary, Null };
    struct Parameter;
    struct Column;

    Parameter& parameter(std::size_t index);
    void setBytes(std::size_t index, std::string_view value, bool binary);
    void bindParameter(std::size_t index, Bound kind);
    int tryBind(std::size_t index, Bound kind) noexcept;
    int bindColumn(std::size_t index) noexcept;
    int prepare(void* handle) const;
    void prepareAgain();
    void run();
    void readLong(std::size_t index);
    void lowerGuids();
    void widen(std::size_t index);
    void check(int result);

    OdbcConnection& m_connection;
    std::string m_sql;
    bool m_mayFire;  ///< triggers
    void* m_handle = nullptr;
    bool m_open = false;
    unsigned m_fetches = 0;
    bool m_unprepared = false;                             ///< preparing it anew has failed
    unsigned m_prepared = 0;                               ///< the connection's count of stale statements at that time
    bool m_rowsLeft = false;                               ///< the end of the running result has not been met
    std::vector<std::unique_ptr<Parameter>> m_parameters;  // the driver holds their addresses
    std::vector<std::unique_ptr<Column>> m_columns;
    std::vector<OdbcColumn> m_layout;
    bool m_described = false;          ///< the driver has told which columns are GUIDs
    std::vector<std::size_t> m_guids;  ///< where it has
};

/// One connection with an environment of its own. Used by one thread at a time. What it runs ends with the request that
/// the calling thread serves: that is a QORException errDeadline, which leaves the connection as good as before, unless
/// the server does not answer any more: then the connection is broken. Failures of the database are told to its
/// ASFaults.
class OdbcConnection {
public:
    /// \param database its name for people, told where the database and not the statement is at fault
    /// \param faults of that database, which outlive the connection
    /// \throws AException with the driver's text
    OdbcConnection(const std::string& connectionString, std::string database, ASFaults& faults);
    ~OdbcConnection();
    OdbcConnection(const OdbcConnection&) = delete;
    OdbcConnection& operator=(const OdbcConnection&) = delete;

    const ASDialect& dialect() const noexcept { return *m_dialect; }
    /// Runs a statement without parameters and drops its result; triggers fire. \returns rows changed
    std::int64_t execute(std::string_view sql);
    /// The only cell of a select, empty for null or no row.
    std::string selectText(const std::string& sql);
    /// Begins a transaction. \param sql how, in one text \param marked whether rows are handed out in it as they come,
    /// so that their end has to be told from the transaction's
    void beginTransaction(std::string sql, bool marked = false);
    /// Forgets what is known of the transaction, which somebody has ended.
    void endTransaction() noexcept;
    /// Why the engine will commit nothing of the transaction although it says it has; empty: it will.
    const std::string& abortedBy() const noexcept { return m_abortedBy; }
    /// Whether a statement of the transaction waited until its time was up, be it for a lock or for the engine.
    bool waitedInVain() const noexcept { return m_waitedInVain; }
    /// How long a lock of others is waited for, at most.
    void setPatience(std::chrono::milliseconds patience) noexcept { m_wait.setPatience(patience); }
    /// It is for reading alone, and says so when something is to be written: that is no fault of the database.
    void setReading() noexcept { m_reading = true; }
    /// Whether statements can be run without triggers.
    bool skipsTriggers() const noexcept { return m_sqlite != nullptr; }
    /// While something is owed for statements that skipped triggers, none that may fire any runs.
    void setOwing(bool owing) noexcept { m_owing = owing; }
    bool isOwing() const noexcept { return m_owing; }
    /// Whether a transaction is open as the engine sees it; true where it does not tell.
    bool isInTransaction() const noexcept { return m_sqlite == nullptr || isInSqliteTransaction(*m_sqlite); }
    /// The state that the transaction reads, see sqliteState(); nothing of another engine.
    std::optional<std::uint32_t> state() const noexcept {
        return m_sqlite == nullptr ? std::nullopt : sqliteState(*m_sqlite);
    }
    /// Whether a failure has left it in doubt.
    bool isBroken() const noexcept { return m_broken; }
    /// Whether the other end has gone, and so the others of its time probably have too.
    bool isLost() const noexcept { return m_lost; }
    void setBroken() noexcept { m_broken = true; }

private:
    friend class OdbcStatement;
    /// Throws what a return code means; \param rc SQLRETURN \param type of the handle
    void check(int rc, short type, void* handle, const std::string& statement);
    void connect(const std::string& connectionString);
    void disconnect() noexcept;
    /// A statement is about to run.
    void starting() noexcept;
    /// And it may fire triggers.
    void setTriggers(ASTriggers triggers);
    /// The end of rows that are handed out as they come: makes sure that it is one.
    void confirmEnd();
    /// Begins the transaction anew, for a statement that failed before anything was answered in it. \returns false when
    /// that cannot be done
    bool beginAgain();
    /// Whether the other end is known to have gone.
    bool isDead() const noexcept;
    /// Whether nothing may be written now, so that a refusal to write is no fault of the database.
    bool isForReading() const noexcept;
    bool streams() const noexcept { return !m_mark.empty(); }
    /// Throws where the request of the calling thread has ended, and that is what a failure means.
    void endRequest(const AException& failure) const;
    /// Makes a call that waits for the server, which ends with the request of the calling thread. \param statement what
    /// it runs, null for none \returns what it returns
    template <class Call>
    int watched(void* statement, Call call);
    /// Calls again while somebody else's lock is in the way, as long as the patience lasts. \returns SQLRETURN
    template <class Call>
    int patiently(short type, void* handle, Call call);

    void* m_environment = nullptr;
    void* m_handle = nullptr;
    void* m_direct = nullptr;     // of statements without parameters; to make one costs more than most of them
    sqlite3* m_sqlite = nullptr;  // the driver's, null when it is another engine's
    SqliteWait m_wait;
    std::unique_ptr<SqliteReads> m_sqliteReads;  ///< null when it is another engine's
    bool m_connected = false;
    bool m_broken = false;
    bool m_reading = false;
    bool m_lost = false;
    bool m_disconnected = false;  ///< by this end, because a request ended and the server did not answer
    bool m_answered = false;      ///< a statement of the transaction has run
    unsigned m_marks = 0;
    unsigned m_stale = 0;  ///< how often a prepared statement did not fit the database any more
    std::string m_begin;   ///< what began the transaction; empty: there is none
    std::string m_mark;    ///< of the transaction, where it can be told from others; empty elsewhere
    std::string m_abortedBy;
    bool m_waitedInVain = false;
    ASTriggers m_triggers = ASTriggers::Fire;
    bool m_owing = false;
    std::string m_database;
    ASFaults& m_faults;
    const ASDialect* m_dialect;
};

}  // namespace QOR
