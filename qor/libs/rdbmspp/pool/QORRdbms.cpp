#include "rdbmspp/pool/QORRdbms.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <limits>
#include <mutex>
#include <optional>
#include <random>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORPercent.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "rdbmspp/engine/ASFaults.h"
#include "rdbmspp/engine/ASValue.h"
#include "rdbmspp/engine/OdbcConnectionString.h"
#include "rdbmspp/engine/PostgresEngine.h"
#include "rdbmspp/engine/SqliteEngine.h"
#include "rdbmspp/engine/StatementWatch.h"
#include "rdbmspp/pool/ASSessionImpl.h"
#include "rdbmspp/pool/ASWriterQueue.h"

namespace QOR {

namespace {

/// What connections are opened with; replaced as a whole by configure().
struct Settings {
    ASDatabaseOptions options;
    ASEngine engine = ASEngine::SQLite;
    ASConnectionSource source;  ///< with everything that was added to the options' connection string
    std::string driver;
    std::string database;
    std::string file;         ///< the database's file, empty when it has none that we know of
    ASFileIdentity identity;  ///< of that file when it was opened first
    bool immutable = false;   ///< it is read without locks, because it cannot change
    bool mayCreate = false;   ///< a missing file
    std::uint64_t generation = 0;
};

// As the driver's name tells before there is a connection; that of a data source may tell nothing.
std::optional<ASEngine> engineOfDriver(const std::string& driver) {
    const std::string lowered = toLowerText(driver);
    for (const ASEngine engine : {ASEngine::SQLite, ASEngine::PostgreSQL}) {
        if (lowered.find(toLowerText(ASDialect::of(engine).odbcName)) != std::string::npos) return engine;
    }
    return std::nullopt;
}

bool isInMemory(const std::string& database) {
    return database.empty() || database.starts_with(":memory:");
}

// A connection string may say otherwise, in the driver's way: 0 waits for ever.
std::chrono::milliseconds patienceOf(OdbcConnectionString& string, const ASDatabaseOptions& options) {
    const auto asked = parseInt64(string.get("Timeout"));
    if (!asked || *asked < 0) return std::chrono::milliseconds(options.busyTimeoutMs);
    return *asked == 0 ? std::chrono::hours(24 * 365) : std::chrono::milliseconds(*asked);
}

// What a connection string may say about connections, less what could be more than a word of the engine's.
std::string pragma(const char* name, const std::string& value) {
    std::string word;
    std::copy_if(value.begin(), value.end(), std::back_inserter(word),
                 [](unsigned char c) { return std::isalnum(c) != 0; });
    return "PRAGMA " + std::string(name) + " = " + word;
}

// The driver waits for locks by itself, about twice as long as it is told, whatever has become of the request, and does
// not say when a setting was refused. So it is told to wait for nothing (0 would be for ever) and to set nothing.
void addSqliteDefaults(OdbcConnectionString& string, Settings& settings) {
    auto& setup = settings.source.setup;
    setup.clear();
    settings.source.patience = patienceOf(string, settings.options);
    string.set("Timeout", "1");
    string.set("StepAPI", "0");
    setup.push_back(pragma("foreign_keys", string.take("FKSupport", "1")));
    setup.push_back(pragma("synchronous", string.take("SyncPragma", "FULL")));
    const std::string journal = string.take("JournalMode", settings.options.readOnly ? "" : "WAL");
    if (settings.options.readOnly) {
        string.set("NoCreat", "1");
    } else if (!journal.empty()) {
        settings.source.journal = pragma("journal_mode", journal);
    }
}

void addPostgresDefaults(OdbcConnectionString& string, Settings& settings) {
    settlePostgres(string);
    settings.source.patience = std::chrono::milliseconds(settings.options.busyTimeoutMs);
    settings.source.setup = {postgresScript(settings.source.patience)};
    const std::string& schema = settings.options.schema;
    if (!schema.empty()) settings.source.setup.push_back("SET search_path = " + ASSession::quoteIdentifier(schema));
    settings.source.streamingString = postgresStreaming(string);
}

// What is wrong with the path; the driver does not tell.
std::string faultOf(const std::filesystem::path& file, bool mayBeCreated) {
    std::error_code ignored;
    const auto folder = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
    if (!std::filesystem::exists(folder, ignored)) return ": the folder \"" + folder.string() + "\" does not exist";
    if (std::filesystem::is_directory(file, ignored)) return ": it is a folder";
    if (std::filesystem::exists(file, ignored)) {
        if (::access(file.c_str(), R_OK) != 0) return ": " + std::generic_category().message(errno);
    } else if (!mayBeCreated) {
        return ": there is no such file";
    } else if (::access(folder.c_str(), W_OK) != 0) {
        return ": its folder: " + std::generic_category().message(errno);
    }
    return {};
}

// What a library wrote for a terminal, a sentence a line.
std::string onOneLine(std::string_view text) {
    std::string line;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::size_t begin = text.find_first_not_of(" \t", at);
        if (begin < end) line += (line.empty() ? "" : ". ") + std::string(text.substr(begin, end - begin));
        at = end + 1;
    }
    return line;
}

AException cannotOpen(const Settings& settings, const AException& error) {
    std::string text = "cannot open the database \"" + settings.source.database + "\" with the driver \"" +
                       settings.driver + "\": " + onOneLine(error.text());
    const bool file = engineOfDriver(settings.driver) == ASEngine::SQLite && !isInMemory(settings.database);
    if (file && error.text() == "connect failed") text += faultOf(settings.database, settings.mayCreate);
    return error.reworded(std::move(text));
}

// The driver opens a file without looking into it.
void probe(ASSession::Impl& session) {
    if (session.dialect->engine == ASEngine::SQLite) session.connection.execute("SELECT count(*) FROM sqlite_master");
}

std::unique_ptr<ASSession> open(const Settings& settings) {
    try {
        auto impl = std::make_unique<ASSession::Impl>(settings.source);
        impl->generation = settings.generation;
        return std::make_unique<ASSession>(std::move(impl));
    } catch (const AException& error) {
        throw cannotOpen(settings, error);
    }
}

[[noreturn]] void refuseFile(const Settings& settings, const char* reason) {
    AException failure("database \"" + settings.database + "\": " + reason, "HY000", 0, {}, ASFailure::Unreachable);
    settings.source.faults->report(ASFault::Missing, failure.text());
    throw failure;
}

/// Makes sure that the name still means the file that was opened first.
void checkFile(const Settings& settings) {
    if (settings.file.empty()) return;
    const ASFileIdentity now = ASFileIdentity::of(settings.file);
    if (now.inode == 0) refuseFile(settings, "its file is gone");
    if (!now.isSameFile(settings.identity)) {
        refuseFile(settings, "its file was replaced by another one; start the program again to use that");
    }
    if (now.size == 0 && settings.identity.size > 0) refuseFile(settings, "its file was emptied");
    if (settings.immutable && (now != settings.identity || ASFileIdentity::of(settings.file + "-wal").size > 0)) {
        refuseFile(settings,
                   "its file changes although it lies on a file system for reading only; start the program again");
    }
    settings.source.faults->found();
}

thread_local unsigned heldByThread = 0;

void countHeld(bool taken) noexcept {
    if (taken) {
        ++heldByThread;
    } else if (heldByThread > 0) {  // a transaction may end on another thread than it began on
        --heldByThread;
    }
}

}  // namespace

ASFileIdentity ASFileIdentity::of(const std::string& path) noexcept {
    struct stat info {};
    if (path.empty() || ::stat(path.c_str(), &info) != 0) return {};
    return {info.st_dev, info.st_ino, info.st_size, info.st_ctim.tv_sec * 1'000'000'000 + info.st_ctim.tv_nsec};
}

// --- statements ------------------------------------------------------------------------------------------------

ASStatement::Impl::Impl(OdbcConnection& connection, std::string_view sql)
    : statement(connection, std::string(sql)), dialect(connection.dialect()) {}

ASStatement::ASStatement(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
ASStatement::~ASStatement() = default;

ASStatement& ASStatement::bind(unsigned index, std::string_view text) {
    refuseUntakeable(text, m_impl->dialect);
    m_impl->statement.setText(index - 1, text);
    return *this;
}

ASStatement& ASStatement::bind(unsigned index, std::int64_t value) {
    m_impl->statement.setInteger(index - 1, value);
    return *this;
}

ASStatement& ASStatement::bind(unsigned index, double value) {
    m_impl->statement.setReal(index - 1, value);
    return *this;
}

ASStatement& ASStatement::bindBinary(unsigned index, std::string_view bytes) {
    m_impl->statement.setBinary(index - 1, bytes);
    return *this;
}

ASStatement& ASStatement::bindNull(unsigned index) {
    m_impl->statement.setNull(index - 1);
    return *this;
}

void ASStatement::execute(ASTriggers triggers) {
    if (!m_impl->columnsBound) {
        m_impl->statement.bindTextColumns();
        m_impl->columnsBound = true;
    }
    m_impl->statement.execute(triggers);
    if (m_impl->statement.columns() == 0) *m_impl->changes = m_impl->statement.changes();
}

bool ASStatement::fetch() {
    return m_impl->statement.fetch();
}
bool ASStatement::hasRow() {
    execute();
    const bool found = fetch();
    close();
    return found;
}
bool ASStatement::isNull(unsigned column) const {
    return m_impl->statement.isNull(column - 1);
}
std::string_view ASStatement::text(unsigned column) const {
    return m_impl->statement.value(column - 1);
}

std::int64_t ASStatement::integer(unsigned column) const {
    const std::string_view stored = text(column);
    std::int64_t value = 0;
    const auto end = stored.data() + stored.size();
    const auto result = std::from_chars(stored.data(), end, value);
    if (isNull(column) || (result.ec == std::errc() && result.ptr == end)) return value;
    throw AException("\"" + std::string(stored) + "\" is no integer", {}, 0, m_impl->statement.sql());
}

// SQLite's driver writes bytes as the literal X'...', PostgreSQL's as bare digits.
std::string_view ASStatement::bytes(unsigned column) const {
    std::string_view digits = text(column);
    if (m_impl->dialect.engine == ASEngine::SQLite) {
        if (digits.size() < 3 || !digits.starts_with("X'") || digits.back() != '\'') return digits;
        digits = digits.substr(2, digits.size() - 3);
    }
    const auto digit = [](char c) { return c <= '9' ? c - '0' : (c | 32) - 'a' + 10; };
    m_impl->decoded.clear();
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        m_impl->decoded += static_cast<char>(digit(digits[i]) << 4 | digit(digits[i + 1]));
    }
    return m_impl->decoded;
}

void ASStatement::close() {
    m_impl->statement.close();
}

void ASStatement::reset() {
    m_impl->statement.giveBack();
    std::string().swap(m_impl->decoded);
}

// --- sessions --------------------------------------------------------------------------------------------------

ASSession::Impl::Impl(const ASConnectionSource& from)
    : source(from), connection(source.string, source.database, *source.faults), dialect(&connection.dialect()) {
    setUp(connection);
}

// A journal cannot be changed while others have the database open; it is as good as it was.
void ASSession::Impl::setJournal(OdbcConnection& opened) const {
    if (source.journal.empty()) return;
    try {
        opened.execute(source.journal);
    } catch (const AException& error) {
        if (error.failure() != ASFailure::Locked) throw;
    }
}

void ASSession::Impl::setUp(OdbcConnection& opened) const {
    opened.setPatience(source.patience);
    for (const std::string& statement : source.setup)
        opened.execute(statement);
    setJournal(opened);
    if (!source.queryOnly) return;
    opened.execute(dialect->queryOnly);
    opened.setReading();
}

namespace {

/// Bytes of a statement that is worth keeping. One with a hundred thousand literals is not asked twice, and its program
/// is many times as long as its text.
constexpr std::size_t mostKeptText = std::size_t{16} << 10;

ASStatementLease leaseFrom(ASStatementLease::Cache& cache, OdbcConnection& connection, const std::string& sql) {
    if (sql.size() > mostKeptText) return ASStatementLease(std::make_unique<OdbcStatement>(connection, sql));
    auto* entry = cache.find(sql);
    if (entry && !entry->leased) return ASStatementLease(*entry);
    auto fresh = std::make_unique<OdbcStatement>(connection, sql);
    // The same select is running already on this session: a second one of its own, for this once.
    if (entry) return ASStatementLease(std::move(fresh));
    return ASStatementLease(cache.insert(sql, std::move(fresh)));
}

}  // namespace

ASStatementLease ASSession::Impl::lease(const std::string& sql) {
    return leaseFrom(selects, connection, sql);
}

// A failure to open a database that was open before is a fault of it.
std::unique_ptr<OdbcConnection> ASSession::Impl::connectStreaming() const {
    try {
        return std::make_unique<OdbcConnection>(source.streamingString, source.database, *source.faults);
    } catch (const AException& error) {
        const AException failure = error.reworded("database \"" + source.database + "\": " + error.text());
        source.faults->report(ASFault::Reading, failure.text());
        throw failure;
    }
}

void ASSession::Impl::openStreaming() {
    if (!streaming) {
        auto opened = connectStreaming();
        setUp(*opened);
        streaming = std::move(opened);
    }
}

ASStatementLease ASSession::Impl::leaseStreaming(const std::string& sql) {
    if (dialect->alwaysInTransaction) {
        beginLong();
    } else {
        openStreaming();
    }
    return leaseFrom(streamed, *streaming, sql);
}

namespace {

constexpr std::int64_t longestBound = 1 << 30;

/// What bounds the thread's request in the engine itself, beside the watch that ends its statements: for an agent that
/// is gone, say. Milliseconds; 0: nothing does.
std::int64_t boundOfRequest(const ASDialect& dialect) {
    constexpr auto margin = std::chrono::seconds(1);
    const QORRequestControl* const control = QORRequestControl::current();
    if (*dialect.statementTimeout == '\0' || control == nullptr) return 0;
    if (control->deadline() == QORRequestControl::Clock::time_point::max()) return 0;
    const auto left = control->deadline() - QORRequestControl::Clock::now() + margin;
    const auto milliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(left).count();
    return std::clamp<std::int64_t>(milliseconds, 1, longestBound);
}

std::string timeouts(const ASDialect& dialect, const char* set, std::int64_t statement, std::int64_t lock) {
    return set + (dialect.statementTimeout + std::to_string(statement)) + "; " + set +
           (dialect.lockTimeout + std::to_string(std::min(lock, longestBound)));
}

/// Who serves a request waits for locks as long as the request may go on.
std::string boundsOfRequest(const ASDialect& dialect) {
    const std::int64_t bound = boundOfRequest(dialect);
    return bound == 0 ? std::string() : "; " + timeouts(dialect, dialect.setLocal, bound, 0);
}

}  // namespace

// A server may hang even then.
std::shared_ptr<QORRequestControl> ASSession::Impl::timeToTidy(std::chrono::milliseconds limit) const {
    return dialect->alwaysInTransaction ? std::make_shared<QORRequestControl>(limit) : nullptr;
}

// Nothing where the engine keeps nothing of a transaction either.
ASCommitToken ASSession::Impl::leaveToken(ASSession& session) {
    constexpr std::uint64_t betweenForgetting = 256;
    if (*dialect->transactionId == '\0') return {};
    keepsTokens = keepsTokens || connection.selectText(dialect->keepsTokens) == "true";
    if (!keepsTokens) return {connection.selectText(dialect->transactionId), {}};
    std::random_device random;
    const std::uint64_t number = (std::uint64_t{random()} << 32) | random();
    if (number % betweenForgetting == 0) session.execute(dialect->forgetTokens);
    ASCommitToken left{{}, std::to_string(number)};
    ASStatement& leaving = session.prepare(dialect->leaveToken);
    leaving.bind(1, std::string_view(left.token)).execute();
    if (leaving.fetch()) left.transaction = leaving.text(1);
    leaving.close();
    return left;
}

void ASSession::Impl::begin(ASAccess access) {
    const bool writes = access == ASAccess::Write && !(source.queryOnly && dialect->alwaysInTransaction);
    std::string bounds = boundsOfRequest(*dialect);
    if (bounds.empty() && bound != 0) bounds = "; " + timeouts(*dialect, dialect->setLocal, 0, source.patience.count());
    if (access == ASAccess::ReadKnown) bounds = dialect->planOnce + bounds;
    connection.beginTransaction((writes ? dialect->beginWrite : dialect->beginRead) + bounds);
}

void ASSession::Impl::beginSingle() noexcept {
    single = true;
    untouched = true;
}

// The session's own bounds hold for single reads that have no transaction. Requests mostly have the same deadline, so
// that they are seldom said anew: they may be wide of it, since they are not what ends a request.
void ASSession::Impl::readySingle(bool computes) {
    constexpr std::int64_t wide = 64'000;
    if (!single) return;
    if (computes) {
        begin(ASAccess::Read);
        single = untouched = false;
        begun = true;
        return;
    }
    const std::int64_t needed = boundOfRequest(*dialect);
    if (needed == 0 ? bound == 0 : bound >= needed && bound <= std::max(4 * needed, wide)) return;
    const auto next = needed == 0 ? 0 : static_cast<std::int64_t>(std::bit_ceil(static_cast<std::uint64_t>(needed)));
    connection.execute(timeouts(*dialect, dialect->setSession, next, needed == 0 ? source.patience.count() : 0));
    bound = next;
}

// What a transaction sets goes with it.
void ASSession::Impl::setElsewhere(bool now) {
    if (inLong || !dialect->typed) return;
    bool& known = single ? elsewhere : elsewhereNow;
    if (known == now) return;
    connection.execute((single ? dialect->setSession : dialect->setLocal) +
                       std::string(now ? dialect->orderedElsewhere : dialect->orderedAnywhere));
    known = now;
}

// A transaction that is begun by its statement does not keep the driver from handing out rows one by one.
bool ASSession::Impl::beginLong() {
    if (source.streamingString.empty()) return false;
    if (inLong) return true;
    openStreaming();
    streaming->beginTransaction(dialect->beginRead + boundsOfRequest(*dialect), true);
    inLong = true;
    return true;
}

void ASSession::Impl::endLong() noexcept {
    if (!std::exchange(inLong, false)) return;
    streaming->endTransaction();
    try {
        streaming->execute(dialect->rollback);
    } catch (const std::exception&) {
        streaming->setBroken();
    }
}

void ASSession::Impl::tidy() {
    for (auto& entry : statements)
        entry.statement->reset();
    selects.trim(keptStatements);
    statements.trim(keptStatements);
    streamed.trim(keptStatements / 4);
}

ASSession::ASSession(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
ASSession::~ASSession() {
    constexpr auto atOnce = std::chrono::milliseconds(1);
    const QORRequestScope tidying(m_impl->timeToTidy(atOnce));
    m_impl.reset();
}

ASEngine ASSession::engine() const noexcept {
    return m_impl->dialect->engine;
}

// What the host's own statements compute is not looked into.
void ASSession::ready() {
    if (m_impl->single) Impl::doSingle(*this, [this] { m_impl->readySingle(true); });
}

void ASSession::execute(std::string_view sql) {
    ready();
    m_impl->changes = m_impl->connection.execute(sql);
}

bool ASSession::skipsTriggers() const noexcept {
    return m_impl->connection.skipsTriggers();
}

void ASSession::setOwing(bool owing) noexcept {
    m_impl->connection.setOwing(owing);
}

ASStatement& ASSession::prepare(std::string_view sql) {
    ready();
    if (auto* entry = m_impl->statements.find(sql)) {
        entry->statement->reset();
        return *entry->statement;
    }
    auto impl = std::make_unique<ASStatement::Impl>(m_impl->connection, sql);
    impl->changes = &m_impl->changes;
    return *m_impl->statements.insert(sql, std::make_unique<ASStatement>(std::move(impl))).statement;
}

std::int64_t ASSession::changes() const {
    return m_impl->changes;
}

std::string ASSession::quoteIdentifier(std::string_view name) {
    std::string out;
    appendQuoted(out, name, '"');
    return out;
}

std::string ASSession::quoteLiteral(std::string_view text) {
    std::string out;
    appendQuoted(out, text, '\'');
    return out;
}

// --- the pool --------------------------------------------------------------------------------------------------

struct QORRdbms::Impl {
    // Connections end with their database, at the latest when the process does. What watches their statements has to be
    // there until then, and so is made before.
    explicit Impl(ASFaults* shared) : faults(shared == nullptr ? ownFaults : *shared) { StatementWatch::instance(); }

    struct Waiter {
        std::condition_variable ready;
        bool granted = false;
        std::unique_ptr<ASSession> session;  ///< none: a place to open one
    };

    std::unique_ptr<ASSession> acquire();
    std::unique_ptr<ASSession> await(std::unique_lock<std::mutex>& lock);
    ASWriterQueue::Turn takeTurn();
    void release(std::unique_ptr<ASSession> session) noexcept;
    void giveUpPlace() noexcept;
    std::unique_ptr<ASSession> takeIdle();
    void forgetOthers(ASSession& lost) noexcept;
    std::unique_ptr<ASSession> openChecked(const Settings& used);
    void mayWrite();
    void wrote();
    void undo(ASSession& failed, const AException& error) noexcept;
    void settleLost(const ASCommitToken& left, const AException& lost);
    std::string outcomeOf(const Settings& used, const ASCommitToken& left);
    void settle(const Settings& used);
    bool isCurrent(const ASSession::Impl& session) const;
    void replace(Settings settings, std::unique_ptr<ASSession> first);

    ASFaults ownFaults;
    ASFaults& faults;
    mutable std::mutex mutex;
    std::shared_ptr<const Settings> settings;           // guarded by mutex
    std::vector<std::shared_ptr<const Settings>> past;  // guarded by mutex; options() hands out references
    std::vector<std::unique_ptr<ASSession>> idle;       // guarded by mutex; the most recently used last
    std::deque<Waiter*> waiters;                        // guarded by mutex
    unsigned places = 0;                                // guarded by mutex; open or being opened
    std::uint64_t generation = 0;                       // guarded by mutex
    std::uint64_t losses = 0;                           // guarded by mutex; of connections to a server
    std::atomic<ASEngine> engine{ASEngine::SQLite};
    ASWriterQueue writers;

    struct Expectation {
        std::string select;
        std::string value;
        std::uint64_t generation;
    };
    std::shared_ptr<const Expectation> expectation;  // guarded by mutex

    // Of writers, one of which has its turn at a time.
    bool unsettled = false;  ///< what a failed commit has left in the log is not overwritten yet
    std::string doubt;       ///< why
};

// What a commit wrote whose synchronisation failed stands in the log, and a program that opens the database after a
// crash would take it for committed. The next commit overwrites its beginning and so undoes the whole of it. This one
// changes nothing that anybody reads; once it has reached the disk, so has all that was said.
void QORRdbms::Impl::settle(const Settings& used) {
    const QORRequestScope unbounded(nullptr);
    auto session = openChecked(used);
    const ASDialect& dialect = *session->impl().dialect;
    session->execute(dialect.beginWrite);
    ASStatement& version = session->prepare("PRAGMA user_version");
    version.execute();
    const std::int64_t next = version.fetch() ? (version.integer(1) + 1) & 0x7fffffff : 1;
    version.close();
    session->execute("PRAGMA user_version = " + std::to_string(next));
    takeSqliteComplaint();
    session->execute(dialect.commit);
    unsettled = false;
    faults.wrote();
}

// After a commit that failed, for whatever reason that leaves it open what is on the disk.
void QORRdbms::Impl::undo(ASSession& failed, const AException& error) noexcept {
    if (error.failure() != ASFailure::InputOutput || failed.engine() != ASEngine::SQLite) return;
    unsettled = true;
    try {
        doubt = error.text();
        std::shared_ptr<const Settings> used;
        {
            const std::lock_guard lock(mutex);
            used = settings;
        }
        if (failed.impl().connection.isInTransaction()) failed.execute(failed.impl().dialect->rollback);
        if (used) settle(*used);
    } catch (const std::exception&) {
        // It was told to the log and to health; the next writer tries again.
        failed.impl().connection.setBroken();
    }
}

// The log is worked into the file behind a commit; a failure there is nobody's but has to be heard.
void QORRdbms::Impl::wrote() {
    const SqliteComplaint complaint = takeSqliteComplaint();
    if (complaint.code == 0) return faults.wrote();
    faults.report(AException("the log cannot be worked into the database", "HY000", 0, {}, ASFailure::InputOutput),
                  complaint, false);
}

// Refuses to write while it is in doubt what has been written, and tries to end that doubt.
void QORRdbms::Impl::mayWrite() {
    std::shared_ptr<const Settings> used;
    {
        const std::lock_guard lock(mutex);
        used = settings;
    }
    if (!unsettled || !used) return;
    try {
        settle(*used);
    } catch (const AException& error) {
        doubt = error.text();
    }
    if (!unsettled) return;
    throw AException(
        "database \"" + used->database +
            "\": nothing is stored until its disk works again, since a commit could not be synchronised: " + doubt,
        "HY000", 0, {}, ASFailure::InputOutput);
}

// What the engine says of the identifier may be said of a later transaction. But while none with it is at work, what
// the token says is final.
std::string QORRdbms::Impl::outcomeOf(const Settings& used, const ASCommitToken& left) {
    auto session = openChecked(used);
    const ASDialect& dialect = *session->impl().dialect;
    std::string answer = "aborted";
    try {
        ASStatement& outcome = session->prepare(dialect.transactionOutcome);
        outcome.bind(1, left.transaction);
        outcome.execute();
        answer = outcome.fetch() ? std::string(outcome.text(1)) : std::string();
        outcome.close();
    } catch (const AException& error) {
        // One that the engine has not heard of was not stored before it was started again.
        if (error.failure() != ASFailure::Statement) throw;
        session = openChecked(used);
    }
    if (left.token.empty() || answer == "in progress") return answer;
    ASStatement& find = session->prepare(dialect.findToken);
    find.bind(1, left.token);
    find.execute();
    return find.fetch() ? "committed" : "aborted";
}

// A commit whose answer was lost on its way was carried out or was not, and the engine knows. Returns when it was.
void QORRdbms::Impl::settleLost(const ASCommitToken& left, const AException& lost) {
    constexpr auto betweenLooks = std::chrono::milliseconds(20);
    const QORRequestScope unbounded(nullptr);
    std::shared_ptr<const Settings> used;
    {
        const std::lock_guard lock(mutex);
        used = settings;
    }
    if (!used) throw lost;
    const auto until = QORRequestControl::Clock::now() + used->source.patience;
    std::string reason;
    do {
        std::string answer;
        try {
            answer = outcomeOf(*used, left);
        } catch (const AException& error) {
            reason = "; " + error.text();
        }
        if (answer == "committed") return;
        if (answer == "aborted") throw lost.reworded(lost.text() + "; nothing was committed");
        std::this_thread::sleep_for(betweenLooks);
    } while (QORRequestControl::Clock::now() < until);
    throw AException("database \"" + used->source.database +
                         "\": it is not known whether the transaction was committed: " + lost.text() + reason,
                     lost.sqlState(), lost.nativeCode(), {}, ASFailure::Undecided);
}

bool QORRdbms::Impl::isCurrent(const ASSession::Impl& session) const {
    return settings && session.generation == settings->generation && session.time == losses && !session.isBroken();
}

std::unique_ptr<ASSession> QORRdbms::Impl::takeIdle() {
    if (idle.empty()) return nullptr;
    auto session = std::move(idle.back());
    idle.pop_back();
    return session;
}

// Whatever has ended one connection to a server has ended the others of its time: they are not tried one by one.
void QORRdbms::Impl::forgetOthers(ASSession& lost) noexcept {
    std::vector<std::unique_ptr<ASSession>> closing;
    const std::lock_guard lock(mutex);
    if (!lost.impl().isLost() || lost.impl().time != losses) return;
    ++losses;
    closing.swap(idle);
    places -= static_cast<unsigned>(closing.size());
}

std::unique_ptr<ASSession> QORRdbms::Impl::openChecked(const Settings& used) {
    std::unique_ptr<ASSession> session;
    try {
        std::uint64_t time = 0;
        {
            const std::lock_guard lock(mutex);
            time = losses;
        }
        session = open(used);
        session->impl().time = time;
        session->impl().pool = this;
    } catch (const AException& error) {
        faults.report(ASFault::Reading, error.text());
        throw;
    }
    std::shared_ptr<const Expectation> expected;
    {
        const std::lock_guard lock(mutex);
        expected = expectation;
    }
    if (!expected || used.generation != expected->generation) return session;
    std::string found;
    try {
        ASStatement& proof = session->prepare(expected->select);
        proof.execute();
        if (proof.fetch()) found = proof.text(1);
        proof.close();
    } catch (const AException& error) {
        if (error.failure() != ASFailure::Statement) throw;
    }
    if (found != expected->value) refuseFile(used, "what is in its file was replaced");
    return session;
}

// Whatever ended it has ended the others of its time. Nothing of the old session is in use: nothing was answered on it.
void ASSession::Impl::replaceLost(ASSession& session) {
    auto& pool = *session.m_impl->pool;
    pool.forgetOthers(session);
    std::shared_ptr<const Settings> used;
    {
        const std::lock_guard lock(pool.mutex);
        used = pool.settings;
    }
    if (!used) throw AException("no database is configured");
    auto fresh = pool.openChecked(*used);
    fresh->m_impl->beginSingle();
    session.m_impl.swap(fresh->m_impl);
}

// Waits for a session, or for a place to open one, as long as the request may go on. A request that is cancelled
// cannot wake whoever waits for it, so it is looked at from time to time.
std::unique_ptr<ASSession> QORRdbms::Impl::await(std::unique_lock<std::mutex>& lock) {
    constexpr auto lookInterval = std::chrono::milliseconds(50);
    const QORRequestControl* const control = QORRequestControl::current();
    Waiter waiter;
    waiters.push_back(&waiter);
    if (control == nullptr) waiter.ready.wait(lock, [&] { return waiter.granted; });
    while (!waiter.granted) {
        if (control->expired()) {
            std::erase(waiters, &waiter);
            control->check();
        }
        const auto next = QORRequestControl::Clock::now() + lookInterval;
        waiter.ready.wait_until(lock, std::min<QORRequestControl::Clock::time_point>(next, control->deadline()));
    }
    return std::move(waiter.session);
}

// A server lets several write at a time, and its own locks are served in turn.
ASWriterQueue::Turn QORRdbms::Impl::takeTurn() {
    std::shared_ptr<const Settings> used;
    {
        const std::lock_guard lock(mutex);
        used = settings;
    }
    if (!used) throw AException("no database is configured");
    if (used->engine == ASEngine::PostgreSQL) return {};
    return writers.take(used->source.patience, used->source.database);
}

std::unique_ptr<ASSession> QORRdbms::Impl::acquire() {
    QORRequestControl::checkCurrent();
    std::unique_lock lock(mutex);
    if (!settings) throw AException("no database is configured");
    const auto asked = settings;
    lock.unlock();
    checkFile(*asked);
    lock.lock();
    if (!settings) throw AException("no database is configured");
    if (waiters.empty()) {
        if (auto session = takeIdle()) return session;
    }
    const unsigned most = settings->options.maxConnections;
    if (places >= most) {
        if (heldByThread >= most) throw AException("this thread already uses every connection there may be");
        if (auto session = await(lock)) return session;
    } else {
        ++places;
    }
    const auto used = settings;
    lock.unlock();
    try {
        if (!used) throw AException("no database is configured");
        return openChecked(*used);
    } catch (...) {
        giveUpPlace();
        throw;
    }
}

// The place of a connection that is gone falls to the first who waits.
void QORRdbms::Impl::giveUpPlace() noexcept {
    const std::lock_guard lock(mutex);
    if (waiters.empty()) {
        --places;
        return;
    }
    Waiter* next = waiters.front();
    waiters.pop_front();
    next->granted = true;
    next->ready.notify_one();
}

void QORRdbms::Impl::release(std::unique_ptr<ASSession> session) noexcept {
    forgetOthers(*session);
    {
        const std::lock_guard lock(mutex);
        if (isCurrent(session->impl())) {
            if (!waiters.empty()) {
                Waiter* next = waiters.front();
                waiters.pop_front();
                next->session = std::move(session);
                next->granted = true;
                next->ready.notify_one();
                return;
            }
            if (idle.size() < settings->options.idleConnections) {
                idle.push_back(std::move(session));
                return;
            }
        }
    }
    session.reset();
    giveUpPlace();
}

void QORRdbms::Impl::replace(Settings next, std::unique_ptr<ASSession> first) {
    std::vector<std::unique_ptr<ASSession>> closing;
    {
        const std::lock_guard lock(mutex);
        closing.swap(idle);
        places -= static_cast<unsigned>(closing.size());
        engine.store(next.engine, std::memory_order_relaxed);
        settings = std::make_shared<const Settings>(std::move(next));
        past.push_back(settings);
        faults.forget(settings->options.name);
        if (first) ++places;
    }
    if (!first) return;
    first->impl().pool = this;
    release(std::move(first));
}

QORRdbms::QORRdbms() : m_impl(std::make_unique<Impl>(nullptr)) {}
QORRdbms::QORRdbms(ASFaults& faults) : m_impl(std::make_unique<Impl>(&faults)) {}
QORRdbms::~QORRdbms() = default;

QORRdbms& QORRdbms::instance() {
    static QORRdbms database(ASFaults::instance());
    return database;
}

namespace {

bool isOnReadOnlyFileSystem(const std::string& file) {
    struct statvfs info {};
    return ::statvfs(file.c_str(), &info) == 0 && (info.f_flag & ST_RDONLY) != 0;
}

/// The name of a file that the engine reads without locks and without looking for a log.
std::string immutableName(const std::string& file) {
    return "file:" + percentEscaped(std::filesystem::absolute(file).string()) + "?immutable=1";
}

// A database with a log keeps an index of it in a file of its own, for which there is no place here. A log that is
// there would have to be read; without one nothing is missing, and nobody writes to a file system for reading only.
bool mayBeImmutable(const Settings& settings) {
    return settings.engine == ASEngine::SQLite && settings.options.readOnly &&
           isOnReadOnlyFileSystem(settings.database) && ASFileIdentity::of(settings.database + "-wal").size == 0;
}

// The driver manager says which file it did not find, not what would bring it.
std::string adviceForDriver(const std::string& driver, const std::string& reason) {
    if (reason.find("Data source name not found") != std::string::npos)
        return ": neither odbc.ini nor the user's .odbc.ini has a data source of this name";
    if (reason.find("Can't open lib") == std::string::npos) return {};
    const std::optional<ASEngine> engine = engineOfDriver(driver);
    if (engine == ASEngine::SQLite)
        return ": the driver is not installed; on Debian it is in the package libsqliteodbc, and is called \"SQLite3\"";
    if (engine == ASEngine::PostgreSQL)
        return ": the driver is not installed; on Debian it is in the package odbc-postgresql, and is called "
               "\"PostgreSQL Unicode\"";
    return ": there is no driver of this name (\"odbcinst -q -d\" lists those that there are); on Debian the package "
           "libsqliteodbc brings \"SQLite3\", odbc-postgresql \"PostgreSQL Unicode\"";
}

std::string adviceFor(const Settings& settings, const std::string& reason) {
    if (std::string advice = adviceForDriver(settings.driver, reason); !advice.empty()) return advice;
    if (engineOfDriver(settings.driver) == ASEngine::PostgreSQL) return postgresAdvice(reason);
    if (settings.engine != ASEngine::SQLite || !settings.options.readOnly || isInMemory(settings.database)) return {};
    const bool log = ASFileIdentity::of(settings.database + "-wal").size > 0;
    if (log && isOnReadOnlyFileSystem(settings.database)) {
        return ": its log \"" + settings.database +
               "-wal\" holds changes, and cannot be read on a file system for reading only; copy both files to where "
               "they "
               "may be written to, or open the database there once for writing";
    }
    const auto folder = std::filesystem::absolute(settings.database).parent_path();
    if (::access(folder.c_str(), W_OK) == 0) return {};
    return ": a database with a log is read only where its folder \"" + folder.string() +
           "\" may be written to, or while another program has it open";
}

void addDefaults(Settings& settings, OdbcConnectionString& string, std::optional<ASEngine> engine) {
    if (engine == ASEngine::SQLite) addSqliteDefaults(string, settings);
    if (engine == ASEngine::PostgreSQL) addPostgresDefaults(string, settings);
    settings.source.string = string.text();
    settings.source.queryOnly = engine && settings.options.readOnly;
}

/// Opens a connection and makes sure that there is a database behind it.
std::unique_ptr<ASSession> openAndProbe(Settings& settings, OdbcConnectionString& string) {
    const OdbcConnectionString asked = string;
    const auto attempt = [&](std::optional<ASEngine> engine) {
        string = asked;
        addDefaults(settings, string, engine);
        return open(settings);
    };
    std::optional<ASEngine> engine = engineOfDriver(settings.driver);
    auto first = attempt(engine);
    settings.engine = first->engine();
    if (engine != settings.engine) first = attempt(settings.engine);
    try {
        probe(first->impl());
    } catch (const AException& error) {
        throw cannotOpen(settings, error);
    }
    return first;
}

std::unique_ptr<ASSession> openFirst(Settings& settings, OdbcConnectionString& string) {
    try {
        return openAndProbe(settings, string);
    } catch (const AException& error) {
        if (!mayBeImmutable(settings)) {
            throw error.reworded(error.text() + adviceFor(settings, error.text()));
        }
    }
    settings.immutable = true;
    string.set("Database", immutableName(settings.database));
    return openAndProbe(settings, string);
}

// From now on a missing file is an error, not a reason to begin anew.
void settleSqliteFile(Settings& settings, OdbcConnectionString& string) {
    settings.file = settings.database;
    settings.mayCreate = false;
    string.set("NoCreat", "1");
    settings.source.string = string.text();
    string.set("StepAPI", "1");
    settings.source.streamingString = string.text();
}

}  // namespace

void QORRdbms::configure(const ASDatabaseOptions& options) {
    OdbcConnectionString string(options.connectionString);
    Settings settings;
    settings.options = options;
    settings.options.maxConnections = std::max(options.maxConnections, 1u);
    settings.driver = string.get(string.has("Driver") ? "Driver" : "DSN");
    settings.database = string.get("Database");
    settings.source.database = options.name.empty() ? settings.database : options.name;
    settings.source.faults = &m_impl->faults;
    settings.mayCreate = !options.readOnly;
    {
        const std::lock_guard lock(m_impl->mutex);
        settings.generation = ++m_impl->generation;
    }
    if (options.mayBeAway && engineOfDriver(settings.driver) == ASEngine::PostgreSQL) {
        settings.engine = ASEngine::PostgreSQL;
        addDefaults(settings, string, settings.engine);
        return m_impl->replace(std::move(settings), nullptr);
    }
    auto first = openFirst(settings, string);
    if (settings.engine == ASEngine::SQLite && isInMemory(settings.database)) {
        settings.options.maxConnections = settings.options.idleConnections = 1;
    } else if (settings.engine == ASEngine::SQLite) {
        settleSqliteFile(settings, string);
        first->impl().source = settings.source;
        settings.identity = ASFileIdentity::of(settings.file);
    }
    m_impl->replace(std::move(settings), std::move(first));
}

void QORRdbms::expect(std::string select, std::string value) {
    const std::lock_guard lock(m_impl->mutex);
    if (!m_impl->settings) return;
    m_impl->expectation = std::make_shared<const Impl::Expectation>(
        Impl::Expectation{std::move(select), std::move(value), m_impl->settings->generation});
}

const ASDatabaseOptions& QORRdbms::options() const {
    static const ASDatabaseOptions unset;
    const std::lock_guard lock(m_impl->mutex);
    return m_impl->settings ? m_impl->settings->options : unset;
}

ASEngine QORRdbms::engine() const {
    return m_impl->engine.load(std::memory_order_relaxed);
}

const ASDialect& QORRdbms::dialect() const {
    return ASDialect::of(engine());
}

bool QORRdbms::isConfigured() const {
    const std::lock_guard lock(m_impl->mutex);
    return m_impl->settings != nullptr;
}

std::uint64_t QORRdbms::generation() const {
    const std::lock_guard lock(m_impl->mutex);
    return m_impl->settings ? m_impl->settings->generation : 0;
}

ASFaults& QORRdbms::faults() const {
    return m_impl->faults;
}

std::size_t QORRdbms::waiting() const {
    const std::lock_guard lock(m_impl->mutex);
    return m_impl->waiters.size();
}

QORRdbms::Connections QORRdbms::connections() const {
    const std::lock_guard lock(m_impl->mutex);
    return {m_impl->places, m_impl->idle.size()};
}

void QORRdbms::shutdown() {
    std::vector<std::unique_ptr<ASSession>> closing;
    const std::lock_guard lock(m_impl->mutex);
    closing.swap(m_impl->idle);
    m_impl->places -= static_cast<unsigned>(closing.size());
    m_impl->settings.reset();
}

namespace {

/// Decides whether a transaction that failed is run again.
class Rerun {
public:
    Rerun(const ASDialect& dialect, std::chrono::milliseconds patience)
        : m_mayBeAway(*dialect.transactionOutcome != '\0'), m_patience(patience) {}

    bool isWorthwhile(const AException& error) {
        if (error.failure() == ASFailure::Undone) return ++m_undone < mostUndone;
        if (error.failure() != ASFailure::Unreachable || !m_mayBeAway) return false;
        const auto now = QORRequestControl::Clock::now();
        if (m_away == QORRequestControl::Clock::time_point::max()) m_away = now;
        return now - m_away < m_patience;
    }
    /// Writers that undid each other do not meet again at once.
    void pause() const {
        constexpr auto step = std::chrono::milliseconds(10);
        std::this_thread::sleep_for(step * (m_undone + 1));
        QORRequestControl::checkCurrent();
    }

private:
    static constexpr unsigned mostUndone = 8;

    bool m_mayBeAway;  ///< a server, which may be started again; a file that is gone is none
    std::chrono::milliseconds m_patience;
    unsigned m_undone = 0;
    QORRequestControl::Clock::time_point m_away = QORRequestControl::Clock::time_point::max();
};

/// For whom a writer has waited until his time was up, the engine does not tell when it is over. Whoever held locks
/// then mostly still does: these are logged, once the writer holds none himself.
void logHolders(QORRdbmsTran& transaction) noexcept {
    ASSession::Impl& session = transaction->impl();
    if (session.dialect->engine != ASEngine::PostgreSQL || !session.connection.waitedInVain()) return;
    if (session.isBroken()) return;
    const char* const database = session.source.database.c_str();
    try {
        const QORRequestScope tidying(session.timeToTidy(session.source.patience));
        transaction.rollback();
        const std::string holders = session.connection.selectText(postgresLockHolders);
        if (holders.empty()) return;
        logMessage(1, "QORRdbms", QOR_SOURCE_PATH, "write",
                   "database \"%s\": who wrote has waited until his time was up; locks are held by %s", database,
                   holders.c_str());
    } catch (const std::exception& failure) {
        logMessage(1, "QORRdbms", QOR_SOURCE_PATH, "write",
                   "database \"%s\": who wrote has waited until his time was up; who holds locks cannot be told: %s",
                   database, failure.what());
    }
}

void writeOnce(QORRdbms& database, const std::function<void(ASSession&)>& work) {
    QORRdbmsTran transaction(database, ASAccess::Write);
    try {
        work(*transaction);
        transaction.commit();
    } catch (...) {
        logHolders(transaction);
        throw;
    }
}

}  // namespace

void QORRdbms::write(const std::function<void(ASSession&)>& work) {
    Rerun rerun(dialect(), std::chrono::milliseconds(options().busyTimeoutMs));
    for (;; rerun.pause()) {
        try {
            return writeOnce(*this, work);
        } catch (const AException& error) {
            if (!rerun.isWorthwhile(error)) throw;
        }
    }
}

void QORRdbms::read(ASAccess access, const std::function<void(ASSession&)>& work) {
    Rerun rerun(dialect(), std::chrono::milliseconds(options().busyTimeoutMs));
    for (;; rerun.pause()) {
        try {
            QORRdbmsTran transaction(*this, access);
            return work(*transaction);
        } catch (const AException& error) {
            if (error.failure() != ASFailure::Undone || !rerun.isWorthwhile(error)) throw;
        }
    }
}

std::size_t QORRdbms::waitingWriters() const {
    return m_impl->writers.waiting();
}

void QORRdbms::prepareProcess() {
    prepareSqlite();
}

// --- transactions ----------------------------------------------------------------------------------------------

struct QORRdbmsTran::Impl {
    explicit Impl(QORRdbms::Impl& from) : pool(from) {}

    QORRdbms::Impl& pool;
    ASWriterQueue::Turn turn;
    std::unique_ptr<ASSession> session;
    bool active = false;
    bool writes = false;
};

namespace {

// A request waits for another program's lock as long as it may go on, and every now and then it is told that it does.
void beginWriting(ASSession& session) {
    const QORRequestControl* const control = QORRequestControl::current();
    const bool bounded = control != nullptr && control->deadline() != QORRequestControl::Clock::time_point::max();
    for (;;) {
        try {
            session.impl().begin(ASAccess::Write);
            return;
        } catch (const AException& error) {
            if (!bounded || error.failure() != ASFailure::Locked) throw;
        }
    }
}

/// \returns whether there is a transaction on the session's own connection
bool begin(ASSession& session, ASAccess access) {
    auto& impl = session.impl();
    impl.inTransaction = access != ASAccess::ReadOne;
    if (access == ASAccess::ReadOne) {
        if (impl.dialect->alwaysInTransaction) impl.beginSingle();
        return false;
    }
    if (access == ASAccess::ReadLong && impl.beginLong()) return false;
    if (access == ASAccess::Write) {
        beginWriting(session);
    } else {
        impl.begin(access);
    }
    return true;
}

}  // namespace

// A connection to a server may have been lost while it lay idle, which its first use tells. Nothing was done on it by
// then, and the others of its time are gone with it, so that the next one is new.
QORRdbmsTran::QORRdbmsTran(QORRdbms& database, ASAccess access) : m_impl(std::make_unique<Impl>(*database.m_impl)) {
    auto& pool = m_impl->pool;
    m_impl->writes = access == ASAccess::Write;
    if (m_impl->writes) {
        m_impl->turn = pool.takeTurn();
        pool.mayWrite();
    }
    for (bool again = false;; again = true) {
        m_impl->session = pool.acquire();
        m_session = m_impl->session.get();
        countHeld(true);
        try {
            m_impl->active = begin(*m_session, access);
            return;
        } catch (...) {
            const bool lost = m_session->impl().isLost();
            countHeld(false);
            pool.release(std::move(m_impl->session));
            if (!lost || again) throw;
        }
    }
}

QORRdbmsTran::~QORRdbmsTran() {
    auto& impl = m_session->impl();
    const QORRequestScope tidying(
        impl.timeToTidy(impl.source.patience));  // what has ended has to be tidied up all the same
    impl.tidy();
    impl.endLong();
    impl.connection.endTransaction();
    impl.connection.setOwing(false);
    impl.single = impl.elsewhereNow = false;
    const bool active = std::exchange(impl.begun, false) || m_impl->active;
    if (active && impl.connection.isInTransaction()) {
        try {
            m_session->execute(impl.dialect->rollback);
        } catch (const std::exception&) {
            impl.connection.setBroken();
        }
    }
    countHeld(false);
    m_impl->pool.release(std::move(m_impl->session));
}

void QORRdbmsTran::rollback() {
    auto& impl = m_session->impl();
    m_session->execute(impl.dialect->rollback);
    impl.begun = m_impl->active = false;
    impl.connection.endTransaction();
}

void QORRdbmsTran::commit() {
    if (!m_impl->active) return;
    if (m_session->impl().connection.isOwing()) {
        throw AException("nothing is committed before what is owed for triggers that were skipped is written");
    }
    auto& pool = m_impl->pool;
    auto& impl = m_session->impl();
    if (!impl.connection.abortedBy().empty()) {
        throw AException("nothing was committed, since a statement had failed: " + impl.connection.abortedBy(), "25P02",
                         0, {}, ASFailure::Aborted);
    }
    const ASCommitToken left = m_impl->writes ? impl.leaveToken(*m_session) : ASCommitToken();
    try {
        m_session->execute(impl.dialect->commit);
    } catch (const AException& error) {
        if (left.transaction.empty() || error.failure() != ASFailure::Unreachable) {
            if (m_impl->writes) pool.undo(*m_session, error);
            throw;
        }
        pool.settleLost(left, error);
    }
    m_impl->active = false;
    impl.connection.endTransaction();
    if (!m_impl->writes) return;
    pool.wrote();
    m_impl->turn = {};
}

}  // namespace QOR
