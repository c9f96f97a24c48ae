#include "rdbmspp/engine/OdbcConnection.h"

#include <sql.h>
#include <sqlext.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORRequestControl.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/engine/ASFaults.h"
#include "rdbmspp/engine/ASValue.h"
#include "rdbmspp/engine/StatementWatch.h"

namespace QOR {

namespace {

// The driver fills the whole of a bound buffer at every fetch, so a wide one costs more than reading the few long
// values once again. Buffers grow to what a statement's results turn out to need.
constexpr std::size_t smallestBuffer = 32;
constexpr std::size_t firstBufferAtMost = 64;
constexpr std::size_t largestBuffer = 1024;
// A value whose length the driver does not tell is read in pieces that double.
constexpr std::size_t firstPiece = 64 * 1024;
// What one statement keeps between two runs; a longer value's memory is given back.
constexpr std::size_t keptBytes = 64 * 1024;

// Unless the environment names the clients' encoding, PostgreSQL's driver takes it from the process's locale, which it
// sets anew for every connection: two threads that connect at once read each other's freed name. It is UTF-8 in any
// case. Set when the library is loaded, before there are threads.
[[maybe_unused]] const int encodingOfClients = ::setenv("PGCLIENTENCODING", "UTF8", 1);

struct Diagnosis {
    std::string state;
    int native = 0;
    std::string text;
};

Diagnosis diagnose(SQLSMALLINT type, SQLHANDLE handle) {
    Diagnosis diagnosis;
    std::array<SQLCHAR, 6> state{};
    std::array<SQLCHAR, 2048> text{};
    SQLINTEGER native = 0;
    SQLSMALLINT length = 0;
    const SQLRETURN rc = SQLGetDiagRec(type, handle, 1, state.data(), &native, text.data(),
                                       static_cast<SQLSMALLINT>(text.size()), &length);
    if (!SQL_SUCCEEDED(rc)) {
        diagnosis.text = "the ODBC driver failed without a reason";
        return diagnosis;
    }
    diagnosis.state.assign(reinterpret_cast<const char*>(state.data()), 5);
    diagnosis.native = native;
    diagnosis.text = reinterpret_cast<const char*>(text.data());
    return diagnosis;
}

SQLCHAR* chars(std::string_view text) {
    return reinterpret_cast<SQLCHAR*>(const_cast<char*>(text.data()));
}

/// Frees a statement handle at the end of a scope.
struct FreeStatement {
    void operator()(SQLHSTMT handle) const noexcept { SQLFreeHandle(SQL_HANDLE_STMT, handle); }
};
using StatementHandle = std::unique_ptr<std::remove_pointer_t<SQLHSTMT>, FreeStatement>;

/// Ends a statement's result at the end of a scope; the handle stays.
struct EndStatement {
    void operator()(SQLHSTMT handle) const noexcept { SQLFreeStmt(handle, SQL_CLOSE); }
};
using EndResult = std::unique_ptr<std::remove_pointer_t<SQLHSTMT>, EndStatement>;

// What begins otherwise may fire triggers.
constexpr std::string_view quietWords[] = {"select", "pragma", "begin", "commit", "rollback", "savepoint", "release"};
constexpr std::string_view changingWords[] = {"insert", "update", "delete", "replace"};

template <std::size_t size>
bool beginsWith(std::string_view sql, const std::string_view (&words)[size]) {
    const auto* const first = std::find_if_not(sql.begin(), sql.end(), isSpaceChar);
    const auto* const last = std::find_if_not(first, sql.end(), isWordChar);
    return std::any_of(std::begin(words), std::end(words), [&](std::string_view word) {
        return isSameWord({first, last}, word);
    });
}

// SQLite's driver keeps compiled what it takes for a select, and compiles anything else anew at each execution, for
// longer than most changes take. It takes for a select whatever begins with WITH.
std::string keptBySqliteDriver(const std::string& sql) {
    return beginsWith(sql, changingWords) ? "WITH qor_kept AS (SELECT 1) " + sql : sql;
}

// Digits and hyphens have the bit already that makes letters small. Eight characters are a word.
void lowerGuid(char* text, std::size_t length) {
    constexpr std::uint64_t small = 0x2020202020202020;
    std::uint64_t word = 0;
    for (; length >= sizeof(word); text += sizeof(word), length -= sizeof(word)) {
        std::memcpy(&word, text, sizeof(word));
        word |= small;
        std::memcpy(text, &word, sizeof(word));
    }
    for (; length > 0; --length)
        *text++ |= ' ';
}

// Failures that tell of the database and not of the statement.
bool isOfTheDatabase(ASFailure failure) {
    return failure == ASFailure::Denied || failure == ASFailure::Locked || failure == ASFailure::ReadOnly;
}

/// The deadline of the calling thread's request has passed.
bool isRequestLate() {
    const QORRequestControl* const control = QORRequestControl::current();
    return control != nullptr && control->ended() == QORRequestControl::End::Deadline;
}

}  // namespace

// Where the request has ended, that is the reason, and what it waited for is told beside it.
void OdbcConnection::endRequest(const AException& failure) const {
    const QORRequestControl* const control = QORRequestControl::current();
    if (control == nullptr || !control->expired()) return;
    if (failure.failure() == ASFailure::Ended) control->check();
    std::string reason;
    if (failure.failure() == ASFailure::Locked) reason = failure.text();
    if (m_disconnected) reason = "database \"" + m_database + "\" does not answer";
    if (!reason.empty()) throw QORException(errDeadline, control->text() + ": " + reason);
}

template <class Call>
int OdbcConnection::watched(void* statement, Call call) {
    auto control = m_sqlite == nullptr ? QORRequestControl::shareCurrent() : nullptr;
    if (!control) return call();
    const StatementWatch::Running running(std::move(control), [statement] {
        if (statement != nullptr) SQLCancel(statement);
    });
    const int rc = call();
    if (running.isDisconnected()) m_disconnected = m_broken = true;
    return rc;
}

// The engine does not always wait where it finds a lock: not while another program changes the journal, for one.
template <class Call>
int OdbcConnection::patiently(short type, void* handle, Call call) {
    for (;;) {
        const int rc = call();
        if (SQL_SUCCEEDED(rc) || rc == SQL_NO_DATA || m_sqlite == nullptr) return rc;
        const Diagnosis d = diagnose(type, handle);
        if (m_dialect->failureOf(d.state, d.native) != ASFailure::Locked || !m_wait.turn()) return rc;
    }
}

struct OdbcStatement::Parameter {
    Bound bound = Bound::None;
    std::int64_t integer = 0;
    double real = 0;
    std::string bytes;
    std::size_t boundCapacity = 0;
    SQLLEN indicator = SQL_NULL_DATA;
};

struct OdbcStatement::Column {
    std::vector<char> buffer;
    SQLLEN indicator = SQL_NULL_DATA;
    bool binary = false;
    std::string whole;  ///< the row's value when the buffer has no room for it

    SQLSMALLINT type() const noexcept { return binary ? SQL_C_BINARY : SQL_C_CHAR; }
    /// Bytes of a value that the buffer holds; a text needs one more for its terminator.
    std::size_t room() const noexcept { return buffer.size() - (binary ? 0 : 1); }
    /// Whether the driver had more to give than the buffer has room for, or does not tell.
    bool isCut() const noexcept {
        return indicator == SQL_NO_TOTAL || (indicator > 0 && static_cast<std::size_t>(indicator) > room());
    }
};

OdbcStatement::OdbcStatement(OdbcConnection& connection, std::string sql)
    : m_connection(connection), m_sql(std::move(sql)), m_mayFire(!beginsWith(m_sql, quietWords)) {
    m_connection.starting();
    m_prepared = m_connection.m_stale;
    SQLHSTMT allocated = nullptr;
    m_connection.check(SQLAllocHandle(SQL_HANDLE_STMT, m_connection.m_handle, &allocated), SQL_HANDLE_DBC,
                       m_connection.m_handle, m_sql);
    StatementHandle handle(allocated);
    m_connection.check(prepare(allocated), SQL_HANDLE_STMT, allocated, m_sql);
    m_handle = handle.release();
}

// PostgreSQL's driver tells the server, and waits for its word.
OdbcStatement::~OdbcStatement() {
    m_connection.watched(nullptr, [this] { return SQLFreeHandle(SQL_HANDLE_STMT, m_handle); });
}

int OdbcStatement::prepare(void* handle) const {
    const std::string text = m_connection.m_sqlite == nullptr ? m_sql : keptBySqliteDriver(m_sql);
    return SQLPrepare(handle, chars(text), static_cast<SQLINTEGER>(text.size()));
}

void OdbcStatement::check(int result) {
    m_connection.check(result, SQL_HANDLE_STMT, m_handle, m_sql);
}

OdbcStatement::Parameter& OdbcStatement::parameter(std::size_t index) {
    while (m_parameters.size() <= index)
        m_parameters.push_back(std::make_unique<Parameter>());
    return *m_parameters[index];
}

void OdbcStatement::setNull(std::size_t index) {
    Parameter& p = parameter(index);
    p.indicator = SQL_NULL_DATA;
    if (p.bound == Bound::None) bindParameter(index, Bound::Null);
}

void OdbcStatement::setInteger(std::size_t index, std::int64_t value) {
    Parameter& p = parameter(index);
    p.integer = value;
    p.indicator = 0;
    if (p.bound != Bound::Integer) bindParameter(index, Bound::Integer);
}

// Other drivers than SQLite's write the digits of a double themselves, and fewer than it has.
void OdbcStatement::setReal(std::size_t index, double value) {
    if (m_connection.m_sqlite == nullptr) return setText(index, doubleToStr(value));
    Parameter& p = parameter(index);
    p.real = value;
    p.indicator = 0;
    if (p.bound != Bound::Real) bindParameter(index, Bound::Real);
}

// SQLite's driver looks at the length of bytes at the first execution after they were bound and keeps it, whatever the
// indicator says later: they are bound anew for every value. Of a text it looks each time.
void OdbcStatement::setBytes(std::size_t index, std::string_view value, bool binary) {
    Parameter& p = parameter(index);
    const auto kind = binary ? Bound::Binary : Bound::Text;
    const char* before = p.bytes.data();
    p.bytes.assign(value);
    p.indicator = static_cast<SQLLEN>(value.size());
    const bool moved = p.bytes.data() != before || value.size() > p.boundCapacity;
    if (binary || moved || p.bound != kind) bindParameter(index, kind);
}

void OdbcStatement::giveBack() noexcept {
    close();
    for (std::size_t i = 0; i < m_parameters.size(); ++i) {
        Parameter& p = *m_parameters[i];
        p.indicator = SQL_NULL_DATA;
        if (p.bytes.capacity() <= keptBytes) continue;
        std::string going;
        going.swap(p.bytes);
        if (SQL_SUCCEEDED(tryBind(i, Bound::Null))) continue;
        going.swap(p.bytes);  // the driver still has its address
    }
    for (auto& column : m_columns) {
        if (column->whole.capacity() > keptBytes) std::string().swap(column->whole);
    }
}

void OdbcStatement::set(std::size_t index, const ASValue& value) {
    switch (value.kind) {
        case ASValue::Kind::Null:
            return setNull(index);
        case ASValue::Kind::Integer:
            return setInteger(index, value.integer);
        case ASValue::Kind::Real:
            return setReal(index, value.real);
        case ASValue::Kind::Text:
            return setText(index, value.text);
        case ASValue::Kind::Binary:
            return setBinary(index, value.text);
    }
}

void OdbcStatement::bindParameter(std::size_t index, Bound kind) {
    check(tryBind(index, kind));
}

// Times and GUIDs are texts here: the driver would send a timestamp with a fraction, which equals no stored time,
// and refuses GUIDs.
int OdbcStatement::tryBind(std::size_t index, Bound kind) noexcept {
    Parameter& p = *m_parameters[index];
    p.bound = Bound::None;  // until the driver has taken it
    p.boundCapacity = p.bytes.capacity();
    SQLSMALLINT from = SQL_C_CHAR;
    SQLSMALLINT to = SQL_VARCHAR;
    SQLPOINTER at = p.bytes.data();
    SQLULEN size = std::max<std::size_t>(p.boundCapacity, 1);
    switch (kind) {
        case Bound::Integer:
            from = SQL_C_SBIGINT, to = SQL_BIGINT, at = &p.integer, size = sizeof(p.integer);
            break;
        case Bound::Real:
            from = SQL_C_DOUBLE, to = SQL_DOUBLE, at = &p.real, size = sizeof(p.real);
            break;
        case Bound::Binary:
            from = SQL_C_BINARY, to = SQL_VARBINARY;
            break;
        default:
            break;
    }
    const SQLRETURN rc = SQLBindParameter(m_handle, static_cast<SQLUSMALLINT>(index + 1), SQL_PARAM_INPUT, from, to,
                                          size, 0, at, static_cast<SQLLEN>(size), &p.indicator);
    if (SQL_SUCCEEDED(rc)) p.bound = kind;
    return rc;
}

void OdbcStatement::bindColumns(const std::vector<OdbcColumn>& columns) {
    if (m_layout == columns && m_columns.size() == columns.size()) return;
    m_layout.clear();  // until all of them are bound
    m_described = false;
    check(SQLFreeStmt(m_handle, SQL_UNBIND));
    m_columns.clear();
    for (const OdbcColumn& wanted : columns) {
        auto column = std::make_unique<Column>();
        column->binary = wanted.binary;
        column->buffer.resize(std::clamp(wanted.expected + 1, smallestBuffer, firstBufferAtMost));
        m_columns.push_back(std::move(column));
        check(bindColumn(m_columns.size() - 1));
    }
    m_layout = columns;
}

void OdbcStatement::bindTextColumns() {
    SQLSMALLINT count = 0;
    check(m_connection.watched(m_handle, [&] { return SQLNumResultCols(m_handle, &count); }));
    bindColumns(std::vector<OdbcColumn>(static_cast<std::size_t>(count), OdbcColumn{false, firstBufferAtMost}));
}

int OdbcStatement::bindColumn(std::size_t index) noexcept {
    Column& c = *m_columns[index];
    return SQLBindCol(m_handle, static_cast<SQLUSMALLINT>(index + 1), c.type(), c.buffer.data(),
                      static_cast<SQLLEN>(c.buffer.size()), &c.indicator);
}

void OdbcStatement::execute(ASTriggers triggers) {
    close();
    m_connection.starting();
    if (m_mayFire) m_connection.setTriggers(triggers);
    if (m_unprepared || m_prepared != m_connection.m_stale) prepareAgain();
    try {
        run();
    } catch (const AException& error) {
        if (error.failure() != ASFailure::Stale || !m_connection.beginAgain()) throw;
        prepareAgain();
        run();
    }
    m_connection.m_faults.read();
}

void OdbcStatement::run() {
    for (auto& column : m_columns)
        column->indicator = SQL_NULL_DATA;  // what is not read from this result is not left from another
    m_open = true;
    m_rowsLeft = false;
    check(m_connection.watched(m_handle, [this] {
        return m_connection.patiently(SQL_HANDLE_STMT, m_handle, [this] { return SQLExecute(m_handle); });
    }));
    m_rowsLeft = true;
    m_connection.m_answered = true;
}

void OdbcStatement::prepareAgain() {
    m_open = false;
    SQLFreeStmt(m_handle, SQL_CLOSE);
    check(prepare(m_handle));
    for (std::size_t i = 0; i < m_columns.size(); ++i)
        check(bindColumn(i));
    m_unprepared = false;
    m_described = false;
    m_prepared = m_connection.m_stale;
}

// A result that lies in memory already is fetched without the engine, which therefore ends nothing.
bool OdbcStatement::fetch() {
    if ((++m_fetches & 63) == 0) QORRequestControl::checkCurrent();
    const auto next = [this] { return SQLFetch(m_handle); };
    const int rc = m_connection.streams() ? m_connection.watched(m_handle, next) : next();
    if (rc == SQL_SUCCESS) {
        lowerGuids();
        return true;
    }
    if (rc == SQL_NO_DATA) {
        m_rowsLeft = false;
        if (m_connection.streams()) m_connection.confirmEnd();
        return false;
    }
    m_rowsLeft = SQL_SUCCEEDED(rc);
    check(rc);
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        if (m_columns[i]->isCut()) readLong(i);
    }
    lowerGuids();
    return true;
}

// PostgreSQL's driver tells GUIDs in capitals. Which columns are GUIDs it knows by itself once there are rows.
void OdbcStatement::lowerGuids() {
    if (m_connection.m_sqlite != nullptr) return;
    if (!m_described) {
        m_guids.clear();
        for (std::size_t i = 0; i < m_columns.size(); ++i) {
            SQLLEN type = 0;
            check(SQLColAttribute(m_handle, static_cast<SQLUSMALLINT>(i + 1), SQL_DESC_CONCISE_TYPE, nullptr, 0,
                                  nullptr, &type));
            if (type == SQL_GUID) m_guids.push_back(i);
        }
        m_described = true;
    }
    for (const std::size_t index : m_guids) {
        Column& c = *m_columns[index];
        if (c.indicator <= 0 || c.isCut()) continue;
        lowerGuid(c.buffer.data(), static_cast<std::size_t>(c.indicator));
    }
}

// The driver hands a bound column out again from its beginning. SQLite's looks for the end of a text anew at every
// piece, so that many small ones would cost the square of its length: it is asked for once, whole.
void OdbcStatement::readLong(std::size_t index) {
    Column& c = *m_columns[index];
    const std::size_t terminator = c.binary ? 0 : 1;
    std::size_t piece = c.indicator == SQL_NO_TOTAL ? firstPiece : static_cast<std::size_t>(c.indicator) + terminator;
    std::size_t length = 0;
    for (bool more = true; more; piece = c.whole.size()) {
        c.whole.resize(length + piece);
        SQLLEN rest = 0;
        const SQLRETURN rc = SQLGetData(m_handle, static_cast<SQLUSMALLINT>(index + 1), c.type(),
                                        c.whole.data() + length, static_cast<SQLLEN>(piece), &rest);
        if (rc == SQL_NO_DATA) break;
        check(rc);
        const std::size_t room = piece - terminator;
        more = rest == SQL_NO_TOTAL || (rest >= 0 && static_cast<std::size_t>(rest) > room);
        length += more ? room : static_cast<std::size_t>(std::max<SQLLEN>(rest, 0));
    }
    c.whole.resize(length);
    c.indicator = static_cast<SQLLEN>(length);
    if (length < largestBuffer) widen(index);
}

// So that the next value of this length is there with the row.
void OdbcStatement::widen(std::size_t index) {
    Column& c = *m_columns[index];
    const std::size_t length = c.whole.size();
    if (c.room() < length) {
        std::vector<char> wider(std::min(length * 2, largestBuffer));
        wider.swap(c.buffer);
        const int rc = bindColumn(index);
        if (!SQL_SUCCEEDED(rc)) {
            wider.swap(c.buffer);  // the driver still has its address
            check(rc);
        }
    }
    // Binding makes the driver clear the length, so the value goes in behind it.
    std::memcpy(c.buffer.data(), c.whole.data(), length);
    c.indicator = static_cast<SQLLEN>(length);
}

bool OdbcStatement::isNull(std::size_t column) const noexcept {
    return m_columns[column]->indicator == SQL_NULL_DATA;
}

std::string_view OdbcStatement::value(std::size_t column) const noexcept {
    const Column& c = *m_columns[column];
    if (c.indicator == SQL_NULL_DATA) return {};
    const auto length = static_cast<std::size_t>(std::max<SQLLEN>(c.indicator, 0));
    if (length > c.room()) return c.whole;
    return {c.buffer.data(), length};
}

// What SQLite's driver takes for a select has changed nothing, as it sees it.
std::int64_t OdbcStatement::changes() {
    if (m_mayFire && m_connection.m_sqlite != nullptr) return sqliteChanges(*m_connection.m_sqlite);
    SQLLEN rows = 0;
    check(SQLRowCount(m_handle, &rows));
    return rows;
}

// SQLite's driver goes on holding its lock when a result that it streams is closed before its end. A result of one row
// is at its end after one more fetch; any other is ended by preparing the statement anew.
void OdbcStatement::close() noexcept {
    if (!m_open) return;
    m_open = false;
    const bool streams = m_connection.m_sqlite != nullptr && m_parameters.empty() && !m_columns.empty();
    const bool unfinished = m_rowsLeft && streams && SQLFetch(m_handle) != SQL_NO_DATA;
    const auto end = [this] { return SQLFreeStmt(m_handle, SQL_CLOSE); };
    m_connection.streams() ? m_connection.watched(nullptr, end) : end();
    if (!unfinished) return;
    try {
        prepareAgain();
    } catch (const std::exception&) {
        m_unprepared = true;  // the next execution tries again and says what is in the way
    }
}

// The one place where a return code becomes an exception.
void OdbcConnection::check(int rc, short type, void* handle, const std::string& statement) {
    if (SQL_SUCCEEDED(rc) || rc == SQL_NO_DATA) return;
    if (rc == SQL_INVALID_HANDLE) throw AException("an ODBC handle is invalid", "HY000", 0, statement);
    Diagnosis d = diagnose(type, handle);
    std::string text = m_dialect->plainText(d.text, d.state, d.native);
    ASFailure meaning = m_dialect->failureOf(d.state, d.native);
    if (meaning == ASFailure::Statement && isDead()) meaning = ASFailure::Unreachable;
    // Of a server that this one asks, it says what its driver says of itself.
    if (meaning == ASFailure::Unreachable && m_connected && m_sqlite == nullptr && d.state.starts_with("08") &&
        !m_disconnected && !isDead())
        meaning = ASFailure::Statement;
    const bool doubt = m_dialect->leavesDoubt(meaning);
    if (doubt) m_broken = true;
    if (m_connected && m_sqlite == nullptr && meaning == ASFailure::Unreachable && !m_disconnected) m_lost = true;
    if (m_connected && (doubt || isOfTheDatabase(meaning))) text = "database \"" + m_database + "\": " + text;
    const AException failure(std::move(text), std::move(d.state), d.native, statement, meaning);
    if (!m_begin.empty() && m_dialect->failureAborts && m_abortedBy.empty()) m_abortedBy = failure.text();
    if (meaning == ASFailure::Locked || (meaning == ASFailure::Ended && isRequestLate())) m_waitedInVain = true;
    if (m_connected && !(isForReading() && meaning == ASFailure::ReadOnly))
        m_faults.report(failure, takeSqliteComplaint(), m_reading);
    endRequest(failure);
    throw failure;
}

// PostgreSQL's driver says HY000 of some of what it was doing when the server went away.
bool OdbcConnection::isDead() const noexcept {
    if (!m_connected || m_sqlite != nullptr) return false;
    SQLUINTEGER dead = SQL_CD_FALSE;
    return SQL_SUCCEEDED(SQLGetConnectAttr(m_handle, SQL_ATTR_CONNECTION_DEAD, &dead, 0, nullptr)) &&
           dead == SQL_CD_TRUE;
}

bool OdbcConnection::isForReading() const noexcept {
    return m_reading ||
           (m_dialect->alwaysInTransaction && (m_begin.empty() || m_begin.starts_with(m_dialect->beginRead)));
}

void OdbcConnection::starting() noexcept {
    m_wait.begin();
    takeSqliteComplaint();
}

void OdbcConnection::setTriggers(ASTriggers triggers) {
    if (m_owing && triggers == ASTriggers::Fire) {
        throw AException("triggers cannot fire before what is owed for those that were skipped is written");
    }
    if (m_triggers == triggers || m_sqlite == nullptr) return;
    if (!setSqliteTriggers(*m_sqlite, triggers)) {
        m_broken = true;
        throw AException("triggers cannot be switched");
    }
    m_triggers = triggers;
}

OdbcConnection::OdbcConnection(const std::string& connectionString, std::string database, ASFaults& faults)
    : m_database(std::move(database)), m_faults(faults), m_dialect(&ASDialect::of(ASEngine::SQLite)) {
    try {
        connect(connectionString);
    } catch (...) {
        disconnect();
        throw;
    }
}

OdbcConnection::~OdbcConnection() {
    disconnect();
}

// An environment for each connection: the driver manager's locks are then never shared between two of them.
void OdbcConnection::connect(const std::string& connectionString) {
    if (!SQL_SUCCEEDED(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &m_environment))) {
        throw AException("the ODBC driver manager cannot be started", "HY000");
    }
    const auto version = reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3);  // NOLINT(performance-no-int-to-ptr): ODBC's way
    check(SQLSetEnvAttr(m_environment, SQL_ATTR_ODBC_VERSION, version, 0), SQL_HANDLE_ENV, m_environment, {});
    check(SQLAllocHandle(SQL_HANDLE_DBC, m_environment, &m_handle), SQL_HANDLE_ENV, m_environment, {});
    const SqliteOpening opening;
    const auto open = [&] {
        return SQLDriverConnect(m_handle, nullptr, chars(connectionString),
                                static_cast<SQLSMALLINT>(connectionString.size()), nullptr, 0, nullptr,
                                SQL_DRIVER_NOPROMPT);
    };
    check(watched(nullptr, open), SQL_HANDLE_DBC, m_handle, {});
    m_connected = true;
    m_sqlite = opening.opened();
    if (m_sqlite != nullptr) {
        setSqliteWait(*m_sqlite, m_wait);
        m_sqliteReads = std::make_unique<SqliteReads>(*m_sqlite);
    }
    std::array<char, 64> name{};
    SQLSMALLINT length = 0;
    check(SQLGetInfo(m_handle, SQL_DBMS_NAME, name.data(), static_cast<SQLSMALLINT>(name.size()), &length),
          SQL_HANDLE_DBC, m_handle, {});
    m_dialect = &ASDialect::named(name.data());
}

void OdbcConnection::disconnect() noexcept {
    m_sqliteReads.reset();
    if (m_direct != nullptr) SQLFreeHandle(SQL_HANDLE_STMT, m_direct);
    if (m_connected) SQLDisconnect(m_handle);
    if (m_handle) SQLFreeHandle(SQL_HANDLE_DBC, m_handle);
    if (m_environment) SQLFreeHandle(SQL_HANDLE_ENV, m_environment);
}

std::int64_t OdbcConnection::execute(std::string_view sql) {
    const std::string text(sql);
    starting();
    if (m_sqliteReads && m_sqliteReads->run(sql)) {
        m_answered = true;
        return 0;
    }
    if (!beginsWith(text, quietWords)) setTriggers(ASTriggers::Fire);
    if (m_direct == nullptr) {
        check(SQLAllocHandle(SQL_HANDLE_STMT, m_handle, &m_direct), SQL_HANDLE_DBC, m_handle, text);
    }
    const EndResult ending(m_direct);
    const auto run = [&] { return SQLExecDirect(m_direct, chars(text), static_cast<SQLINTEGER>(text.size())); };
    const auto runPatiently = [&] { return patiently(SQL_HANDLE_STMT, m_direct, run); };
    check(watched(m_direct, runPatiently), SQL_HANDLE_STMT, m_direct, text);
    SQLSMALLINT columns = 0;
    check(SQLNumResultCols(m_direct, &columns), SQL_HANDLE_STMT, m_direct, text);
    if (columns > 0) {  // where rows are handed out as they come, nothing has happened before the first is asked for
        SQLRETURN rc = SQL_SUCCESS;
        while (rc != SQL_NO_DATA)
            check(rc = SQLFetch(m_direct), SQL_HANDLE_STMT, m_direct, text);
        m_answered = true;
        return 0;
    }
    SQLLEN rows = 0;
    check(SQLRowCount(m_direct, &rows), SQL_HANDLE_STMT, m_direct, text);
    m_answered = true;
    return rows;
}

void OdbcConnection::beginTransaction(std::string sql, bool marked) {
    endTransaction();
    std::string mark;
    if (marked && *m_dialect->mark != '\0') {
        mark = std::to_string(++m_marks);
        sql += std::string("; ") + m_dialect->mark + mark;
    }
    execute(sql);
    m_begin = std::move(sql);
    m_mark = std::move(mark);
    m_answered = false;
}

void OdbcConnection::endTransaction() noexcept {
    m_begin.clear();
    m_mark.clear();
    m_abortedBy.clear();
    m_waitedInVain = false;
}

// The engine says the same of every later run of what does not fit any more, and of other statements of the connection.
bool OdbcConnection::beginAgain() {
    ++m_stale;
    if (m_begin.empty()) return true;
    if (m_answered) return false;
    std::string mark = std::move(m_mark);
    std::string begin = std::move(m_begin);
    execute(m_dialect->rollback);
    beginTransaction(std::move(begin));
    m_mark = std::move(mark);
    return true;
}

std::string OdbcConnection::selectText(const std::string& sql) {
    OdbcStatement select(*this, sql);
    select.bindTextColumns();
    select.execute();
    return select.fetch() ? std::string(select.value(0)) : std::string();
}

// Rows that are handed out as they come belong to a cursor, which is gone without a word when its transaction is.
void OdbcConnection::confirmEnd() {
    const std::string mark = std::exchange(m_mark, {});
    const std::string found = selectText(m_dialect->selectMark);
    m_mark = mark;
    if (found != mark) throw AException("the result was cut off: its transaction has ended before it");
}

}  // namespace QOR
