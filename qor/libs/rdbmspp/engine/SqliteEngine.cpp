#include "rdbmspp/engine/SqliteEngine.h"

#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "QORCommon/QORRequestControl.h"
#include "rdbmspp/engine/SqliteAmong.h"
#include "rdbmspp/engine/SqliteDecimal.h"
#include "rdbmspp/engine/SqliteLike.h"
#include "rdbmspp/engine/SqliteSecond.h"

namespace QOR {

namespace {

// Steps of the engine's machine between two looks at the clock: some microseconds, of which the look is less than one
// in a hundred.
constexpr int stepsBetweenLooks = 500;

constexpr auto shortestPause = std::chrono::microseconds(200);
constexpr auto longestPause = std::chrono::milliseconds(20);

thread_local SqliteOpening* openingOfThread = nullptr;
thread_local SqliteComplaint complaintOfThread;

int endsRequest(void*) {
    QORRequestControl* const control = QORRequestControl::current();
    return control != nullptr && !control->mayGoOn() ? 1 : 0;
}

int waitsForLock(void* wait, int) {
    return static_cast<SqliteWait*>(wait)->turn() ? 1 : 0;
}

// "os_unix.c:41234: (28) write(/var/lib/qor/agent.db-wal) - No space left on device"
int systemErrorIn(std::string_view text) {
    const auto open = text.find(": (");
    int number = 0;
    if (!text.starts_with("os_") || open == std::string_view::npos) return 0;
    std::from_chars(text.data() + open + 3, text.data() + text.size(), number);
    return number;
}

void takeNote(void*, int code, const char* message) {
    const int primary = code & 0xff;
    if (primary != SQLITE_IOERR && primary != SQLITE_FULL) return;
    try {
        const std::string_view text = message ? message : "";
        const int systemError = systemErrorIn(text);
        // What failed is told first; that a statement was given up for it comes after.
        if (complaintOfThread.code != 0 && systemError == 0) return;
        complaintOfThread = {code, systemError, std::string(text)};
    } catch (const std::exception&) {
        complaintOfThread.code = code;
    }
}

}  // namespace

/// What the engine calls back with its own types.
struct SqliteHooks {
    static int opened(sqlite3* connection, const char**, const void*) {
        sqlite3_progress_handler(connection, stepsBetweenLooks, &endsRequest, nullptr);
        replaceSqliteLike(*connection);
        addSqliteAmong(*connection);
        addSqliteDecimal(*connection);
        addSqliteSecond(*connection);
        if (openingOfThread != nullptr) openingOfThread->m_opened = connection;
        return SQLITE_OK;
    }
};

namespace {

// Each connection of the process is seen, whoever opens it. Registering it twice changes nothing.
void watchConnections() {
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(&SqliteHooks::opened));
}

}  // namespace

void prepareSqlite() {
    static std::once_flag once;
    std::call_once(once, [] {
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        sqlite3_config(SQLITE_CONFIG_MULTITHREAD);
        sqlite3_config(SQLITE_CONFIG_URI, 1);
        sqlite3_config(SQLITE_CONFIG_LOG, &takeNote, nullptr);
        watchConnections();
    });
}

bool SqliteComplaint::isSynchronisation() const noexcept {
    return code == SQLITE_IOERR_FSYNC || code == SQLITE_IOERR_DIR_FSYNC;
}

bool SqliteComplaint::isFull() const noexcept {
    return (code & 0xff) == SQLITE_FULL || systemError == ENOSPC || systemError == EFBIG || systemError == EDQUOT;
}

bool SqliteComplaint::isReading() const noexcept {
    return code == SQLITE_IOERR_READ || code == SQLITE_IOERR_SHORT_READ;
}

SqliteComplaint takeSqliteComplaint() noexcept {
    return std::exchange(complaintOfThread, {});
}

bool SqliteWait::turn() noexcept {
    const auto now = std::chrono::steady_clock::now();
    if (!std::exchange(m_waiting, true)) {
        m_since = now;
        m_turns = 0;
    }
    const auto left = m_since + m_patience - now;
    const QORRequestControl* const control = QORRequestControl::current();
    if (left <= left.zero() || (control != nullptr && control->expired())) return false;
    const auto pause =
        std::min<std::chrono::nanoseconds>(shortestPause * (1U << std::min(m_turns++, 10U)), longestPause);
    std::this_thread::sleep_for(std::min<std::chrono::nanoseconds>(pause, left));
    return true;
}

// A program that has prepared nothing has its connections watched all the same.
SqliteOpening::SqliteOpening() noexcept : m_outer(std::exchange(openingOfThread, this)) {
    watchConnections();
}

SqliteOpening::~SqliteOpening() {
    openingOfThread = m_outer;
}

void setSqliteWait(sqlite3& connection, SqliteWait& wait) noexcept {
    sqlite3_busy_handler(&connection, &waitsForLock, &wait);
}

bool isInSqliteTransaction(sqlite3& connection) noexcept {
    return sqlite3_get_autocommit(&connection) == 0;
}

std::int64_t sqliteChanges(sqlite3& connection) noexcept {
    return sqlite3_changes64(&connection);
}

std::optional<std::uint32_t> sqliteState(sqlite3& connection) noexcept {
    std::uint32_t state = 0;
    if (sqlite3_txn_state(&connection, "main") != SQLITE_TXN_READ ||
        sqlite3_file_control(&connection, "main", SQLITE_FCNTL_DATA_VERSION, &state) != SQLITE_OK)
        return std::nullopt;
    return state;
}

SqliteReads::~SqliteReads() {
    sqlite3_finalize(m_begin);
    sqlite3_finalize(m_rollback);
}

bool SqliteReads::run(std::string_view sql) noexcept {
    const bool isOpen = isInSqliteTransaction(m_connection);
    if (!isOpen && sql == "BEGIN") return step(m_begin, "BEGIN");
    if (isOpen && sql == "ROLLBACK" && sqlite3_txn_state(&m_connection, nullptr) != SQLITE_TXN_WRITE)
        return step(m_rollback, "ROLLBACK");
    return false;
}

bool SqliteReads::step(sqlite3_stmt*& statement, const char* sql) noexcept {
    if (statement == nullptr &&
        sqlite3_prepare_v3(&m_connection, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK)
        return false;
    const bool done = sqlite3_step(statement) == SQLITE_DONE;
    sqlite3_reset(statement);
    return done;
}

bool setSqliteTriggers(sqlite3& connection, ASTriggers triggers) noexcept {
    const int fire = triggers == ASTriggers::Fire ? 1 : 0;
    return sqlite3_db_config(&connection, SQLITE_DBCONFIG_ENABLE_TRIGGER, fire, nullptr) == SQLITE_OK;
}

}  // namespace QOR
