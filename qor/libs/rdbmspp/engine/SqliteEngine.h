/// \file
/// Internal: what SQLite is told beside its driver. The only place that calls it is SqliteEngine.cpp.
///
/// The driver ends nothing before its time, waits for locks with a patience of its own, and hands on the first eight
/// bits of an error. The engine itself can do better, and asks whoever has its connection: at every few hundred steps
/// of a statement whether to go on, at every lock whether to wait, and it says in words what failed beneath it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "rdbmspp/engine/ASTriggers.h"

struct sqlite3;
struct sqlite3_stmt;

namespace QOR {

/// Settles what can be settled only before the engine's first use in a process: no memory statistics (they take one
/// lock of the whole process at every allocation), no locks of connections (each is used by one thread at a time),
/// names of files that say how they are to be opened ("file:..."), and that statements end with the request
/// (QORRequestControl) that the thread which runs them serves.
void prepareSqlite();

/// Something that the engine complained of while the calling thread used it.
struct SqliteComplaint {
    int code = 0;         ///< the engine's extended code; 0: none
    int systemError = 0;  ///< errno of a call that failed, 0 where there was none
    std::string text;

    bool isSynchronisation() const noexcept;  ///< what was written may never have reached the disk
    bool isFull() const noexcept;             ///< no space, or none that this process may have
    bool isReading() const noexcept;
};

/// The last failure of input or output beneath the engine in the calling thread, and forgets it. Others than those
/// are told by the driver.
SqliteComplaint takeSqliteComplaint() noexcept;

/// How long one connection waits for locks: as long as its patience lasts and the request goes on. Used by the
/// connection's thread.
class SqliteWait {
public:
    void setPatience(std::chrono::milliseconds patience) noexcept { m_patience = patience; }
    /// A statement is about to run: the waiting begins anew.
    void begin() noexcept { m_waiting = false; }
    /// Waits a little. \returns false when that was enough
    bool turn() noexcept;

private:
    std::chrono::milliseconds m_patience{5000};
    std::chrono::steady_clock::time_point m_since;
    unsigned m_turns = 0;
    bool m_waiting = false;
};

/// Sees the connection of SQLite that the driver opens in this thread while the object lives.
class SqliteOpening {
public:
    SqliteOpening() noexcept;
    ~SqliteOpening();
    SqliteOpening(const SqliteOpening&) = delete;
    SqliteOpening& operator=(const SqliteOpening&) = delete;

    /// Null when none was opened: the driver is another engine's.
    sqlite3* opened() const noexcept { return m_opened; }

private:
    friend struct SqliteHooks;
    sqlite3* m_opened = nullptr;
    SqliteOpening* m_outer;
};

/// Has a connection wait as `wait` says, in place of the driver. \param wait must live as long as the connection
void setSqliteWait(sqlite3& connection, SqliteWait& wait) noexcept;
/// Whether a transaction is open: after some failures the engine has ended it by itself.
bool isInSqliteTransaction(sqlite3& connection) noexcept;
/// Rows that the last statement which changes any has changed.
std::int64_t sqliteChanges(sqlite3& connection) noexcept;
/// A number for the state of the database that the open transaction reads. As long as it is the same on one connection,
/// nobody has committed anything, whatever program: the engine itself goes by it where it reads its pages out of
/// memory. Nothing before the transaction has read anything, and once it has written.
std::optional<std::uint32_t> sqliteState(sqlite3& connection) noexcept;
/// Begins and ends a connection's read transactions by statements that stay compiled: the driver compiles them anew
/// each time, for longer than a short select takes. Goes before its connection does.
class SqliteReads {
public:
    explicit SqliteReads(sqlite3& connection) noexcept : m_connection(connection) {}
    ~SqliteReads();
    SqliteReads(const SqliteReads&) = delete;
    SqliteReads& operator=(const SqliteReads&) = delete;

    /// \returns false when nothing has been done: it is no such statement, something has been written, or the engine
    /// refuses; the driver then does it, or says why not
    bool run(std::string_view sql) noexcept;

private:
    bool step(sqlite3_stmt*& statement, const char* sql) noexcept;

    sqlite3& m_connection;
    sqlite3_stmt* m_begin = nullptr;
    sqlite3_stmt* m_rollback = nullptr;
};

/// Whether statements fire triggers. They are compiled with them or without, so that all of a connection are compiled
/// anew when they run next after it has changed. \returns false when the engine refuses
bool setSqliteTriggers(sqlite3& connection, ASTriggers triggers) noexcept;

}  // namespace QOR
