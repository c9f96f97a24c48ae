#include "rdbmspp/pool/QORRdbms.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "rdbmspp/pool/ASSessionImpl.h"
#include "rdbmspp/sql/ASValue.h"
#include "rdbmspp/engine/OdbcConnectionString.h"
#include "rdbmspp/engine/SqliteTriggers.h"

namespace QOR {

namespace {

/// What connections are opened with; replaced as a whole by configure().
struct Settings {
    ASDatabaseOptions options;
    ASEngine engine = ASEngine::SQLite;
    ASConnectionSource source;  ///< with everything that was added to the options' connection string
    std::string driver;
    std::string database;
    std::string file;        ///< the database's file, empty when it has none that we know of
    bool mayCreate = false;  ///< a missing file
    std::uint64_t generation = 0;
};

bool containsSqlite(std::string text) {
    for (char& c : text)
        c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return text.find("sqlite") != std::string::npos;
}

bool isInMemory(const std::string& database) {
    return database.empty() || database.starts_with(":memory:");
}

// A driver of SQLite waits about twice as long as it is told, and for ever when it is told 0.
std::string sqliteTimeout(unsigned milliseconds) {
    return std::to_string(milliseconds < 2 ? 1 : milliseconds / 2);
}

void addSqliteDefaults(OdbcConnectionString& string, const ASDatabaseOptions& options) {
    string.setDefault("Timeout", sqliteTimeout(options.busyTimeoutMs));
    string.set("StepAPI", "0");
    string.setDefault("FKSupport", "1");
    string.setDefault("SyncPragma", "FULL");
    if (options.readOnly) {
        string.set("NoCreat", "1");
    } else {
        string.setDefault("JournalMode", "WAL");
    }
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

AException cannotOpen(const Settings& settings, const AException& error) {
    std::string text = "cannot open the database \"" + settings.database + "\" with the driver \"" + settings.driver +
                       "\": " + error.text();
    const bool file = containsSqlite(settings.driver) && !isInMemory(settings.database);
    if (file && error.text() == "connect failed") text += faultOf(settings.database, settings.mayCreate);
    return AException(std::move(text), error.sqlState(), error.nativeCode(), error.statement());
}

// The driver opens a file without looking into it.
void probe(ASSession::Impl& session) {
    if (session.dialect->engine == ASEngine::SQLite) session.connection.execute("SELECT count(*) FROM sqlite_master");
}

std::unique_ptr<ASSession> open(const Settings& settings) {
    try {
        auto impl = std::make_unique<ASSession::Impl>(settings.source);
        impl->generation = settings.generation;
        impl->file = ASFileIdentity::of(settings.file);
        return std::make_unique<ASSession>(std::move(impl));
    } catch (const AException& error) {
        throw cannotOpen(settings, error);
    }
}

ASEngine engineOf(const std::string& name) {
    return name.starts_with(ASDialect::of(ASEngine::PostgreSQL).odbcName) ? ASEngine::PostgreSQL : ASEngine::SQLite;
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
    return {info.st_dev, info.st_ino};
}

// --- statements ------------------------------------------------------------------------------------------------

ASStatement::Impl::Impl(OdbcConnection& connection, std::string_view sql) : statement(connection, std::string(sql)) {}

ASStatement::ASStatement(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
ASStatement::~ASStatement() = default;

ASStatement& ASStatement::bind(unsigned index, std::string_view text) {
    refuseNul(text);
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

void ASStatement::execute() {
    if (!m_impl->columnsBound) {
        m_impl->statement.bindTextColumns();
        m_impl->columnsBound = true;
    }
    m_impl->statement.execute();
    if (m_impl->statement.columns() == 0) *m_impl->changes = m_impl->statement.changes();
}

bool ASStatement::fetch() {
    return m_impl->statement.fetch();
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

// The driver writes bytes as the literal X'...'.
std::string_view ASStatement::bytes(unsigned column) const {
    const std::string_view stored = text(column);
    if (stored.size() < 3 || !stored.starts_with("X'") || stored.back() != '\'') return stored;
    const auto digit = [](char c) { return c <= '9' ? c - '0' : (c | 32) - 'a' + 10; };
    m_impl->decoded.clear();
    for (std::size_t i = 2; i + 2 < stored.size(); i += 2) {
        m_impl->decoded += static_cast<char>(digit(stored[i]) << 4 | digit(stored[i + 1]));
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
    : source(from),
      connection(source.string, source.database),
      dialect(&ASDialect::of(engineOf(connection.engineName()))),
      builder(*dialect, ASPurpose::Execution) {
    if (source.queryOnly) connection.execute(dialect->queryOnly);
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

void ASSession::Impl::openStreaming() {
    if (!streaming) {
        auto opened = std::make_unique<OdbcConnection>(source.streamingString, source.database);
        if (source.queryOnly) opened->execute(dialect->queryOnly);
        streaming = std::move(opened);
    }
}

ASStatementLease ASSession::Impl::leaseStreaming(const std::string& sql) {
    openStreaming();
    return leaseFrom(streamed, *streaming, sql);
}

// A transaction that is begun by its statement does not keep the driver from handing out rows one by one.
bool ASSession::Impl::beginLong() {
    if (source.streamingString.empty()) return false;
    openStreaming();
    streaming->execute(dialect->beginRead);
    inLong = true;
    return true;
}

void ASSession::Impl::endLong() noexcept {
    if (!std::exchange(inLong, false)) return;
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
ASSession::~ASSession() = default;

ASEngine ASSession::engine() const noexcept {
    return m_impl->dialect->engine;
}

void ASSession::execute(std::string_view sql) {
    m_impl->changes = m_impl->connection.execute(sql);
}

bool ASSession::setTriggers(bool on) noexcept {
    if (engine() != ASEngine::SQLite || !hasSqliteTriggerSwitch()) return false;
    try {
        m_impl->connection.execute(on ? sqliteTriggersOn : sqliteTriggersOff);
        return true;
    } catch (const std::exception&) {
        m_impl->connection.setBroken();
        return false;
    }
}

ASStatement& ASSession::prepare(std::string_view sql) {
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
    struct Waiter {
        std::condition_variable ready;
        bool granted = false;
        std::unique_ptr<ASSession> session;  ///< none: a place to open one
    };

    std::unique_ptr<ASSession> acquire();
    void release(std::unique_ptr<ASSession> session) noexcept;
    void giveUpPlace() noexcept;
    std::unique_ptr<ASSession> takeIdle(std::unique_lock<std::mutex>& lock);
    bool isCurrent(const ASSession::Impl& session) const;
    void replace(Settings settings, std::unique_ptr<ASSession> first);

    mutable std::mutex mutex;
    std::shared_ptr<const Settings> settings;           // guarded by mutex
    std::vector<std::shared_ptr<const Settings>> past;  // guarded by mutex; options() hands out references
    std::vector<std::unique_ptr<ASSession>> idle;       // guarded by mutex; the most recently used last
    std::deque<Waiter*> waiters;                        // guarded by mutex
    unsigned places = 0;                                // guarded by mutex; open or being opened
    std::uint64_t generation = 0;                       // guarded by mutex
    std::atomic<ASEngine> engine{ASEngine::SQLite};
};

bool QORRdbms::Impl::isCurrent(const ASSession::Impl& session) const {
    return settings && session.generation == settings->generation && !session.isBroken();
}

// A database file that was removed or replaced is not the one that the connection has open.
std::unique_ptr<ASSession> QORRdbms::Impl::takeIdle(std::unique_lock<std::mutex>& lock) {
    while (!idle.empty()) {
        auto session = std::move(idle.back());
        idle.pop_back();
        const auto used = settings;
        lock.unlock();
        if (used->file.empty() || ASFileIdentity::of(used->file) == session->impl().file) return session;
        session.reset();
        lock.lock();
        --places;
    }
    return nullptr;
}

std::unique_ptr<ASSession> QORRdbms::Impl::acquire() {
    std::unique_lock lock(mutex);
    if (!settings) throw AException("no database is configured");
    if (waiters.empty()) {
        if (auto session = takeIdle(lock)) return session;
    }
    const unsigned most = settings->options.maxConnections;
    if (places >= most) {
        if (heldByThread >= most) throw AException("this thread already uses every connection there may be");
        Waiter waiter;
        waiters.push_back(&waiter);
        waiter.ready.wait(lock, [&] { return waiter.granted; });
        if (waiter.session) return std::move(waiter.session);
    } else {
        ++places;
    }
    const auto used = settings;
    lock.unlock();
    try {
        if (!used) throw AException("no database is configured");
        return open(*used);
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
        ++places;
    }
    release(std::move(first));
}

QORRdbms::QORRdbms() : m_impl(std::make_unique<Impl>()) {}
QORRdbms::~QORRdbms() = default;

QORRdbms& QORRdbms::instance() {
    static QORRdbms database;
    return database;
}

namespace {

/// Opens the first connection and makes sure that there is a database behind it.
std::unique_ptr<ASSession> openFirst(Settings& settings, OdbcConnectionString& string) {
    const auto attempt = [&](bool sqlite) {
        if (sqlite) addSqliteDefaults(string, settings.options);
        settings.source.string = string.text();
        settings.source.queryOnly = sqlite && settings.options.readOnly;
        return open(settings);
    };
    const bool sqlite = containsSqlite(settings.driver);
    auto first = attempt(sqlite);
    if (!sqlite && first->engine() == ASEngine::SQLite) first = attempt(true);  // a data source by another name
    try {
        probe(first->impl());
    } catch (const AException& error) {
        throw cannotOpen(settings, error);
    }
    return first;
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
    settings.database = settings.source.database = string.get("Database");
    settings.mayCreate = !options.readOnly;
    {
        const std::lock_guard lock(m_impl->mutex);
        settings.generation = ++m_impl->generation;
    }
    auto first = openFirst(settings, string);
    settings.engine = first->engine();
    if (settings.engine == ASEngine::SQLite && isInMemory(settings.database)) {
        settings.options.maxConnections = settings.options.idleConnections = 1;
    } else if (settings.engine == ASEngine::SQLite) {
        settleSqliteFile(settings, string);
        first->impl().source = settings.source;
        first->impl().file = ASFileIdentity::of(settings.file);
    }
    m_impl->replace(std::move(settings), std::move(first));
}

const ASDatabaseOptions& QORRdbms::options() const {
    static const ASDatabaseOptions unset;
    const std::lock_guard lock(m_impl->mutex);
    return m_impl->settings ? m_impl->settings->options : unset;
}

ASEngine QORRdbms::engine() const {
    return m_impl->engine.load(std::memory_order_relaxed);
}

bool QORRdbms::isConfigured() const {
    const std::lock_guard lock(m_impl->mutex);
    return m_impl->settings != nullptr;
}

std::size_t QORRdbms::waiting() const {
    const std::lock_guard lock(m_impl->mutex);
    return m_impl->waiters.size();
}

void QORRdbms::shutdown() {
    std::vector<std::unique_ptr<ASSession>> closing;
    const std::lock_guard lock(m_impl->mutex);
    closing.swap(m_impl->idle);
    m_impl->places -= static_cast<unsigned>(closing.size());
    m_impl->settings.reset();
}

// With its memory statistics on, SQLite takes one lock of the whole process at every allocation. A connection is
// never used by two threads at once here, so it needs no lock of its own either.
void QORRdbms::prepareProcess() {
    static std::once_flag once;
    std::call_once(once, [] {
        sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
        sqlite3_config(SQLITE_CONFIG_MULTITHREAD);
        prepareSqliteTriggers();
    });
}

// --- transactions ----------------------------------------------------------------------------------------------

struct QORRdbmsTran::Impl {
    std::unique_ptr<ASSession> session;
    bool active = false;
};

QORRdbmsTran::QORRdbmsTran(ASAccess access) : m_impl(std::make_unique<Impl>()) {
    auto& pool = *QORRdbms::instance().m_impl;
    m_impl->session = pool.acquire();
    m_session = m_impl->session.get();
    countHeld(true);
    m_session->impl().inTransaction = access != ASAccess::ReadOne;
    if (access == ASAccess::ReadOne) return;
    const ASDialect& dialect = *m_session->impl().dialect;
    try {
        if (access == ASAccess::ReadLong && m_session->impl().beginLong()) return;
        m_session->execute(access == ASAccess::Write ? dialect.beginWrite : dialect.beginRead);
    } catch (...) {
        countHeld(false);
        pool.release(std::move(m_impl->session));
        throw;
    }
    m_impl->active = true;
}

QORRdbmsTran::~QORRdbmsTran() {
    auto& impl = m_session->impl();
    impl.tidy();
    impl.endLong();
    if (m_impl->active) {
        try {
            m_session->execute(impl.dialect->rollback);
        } catch (const std::exception&) {
            impl.connection.setBroken();
        }
    }
    countHeld(false);
    QORRdbms::instance().m_impl->release(std::move(m_impl->session));
}

void QORRdbmsTran::commit() {
    if (!m_impl->active) return;
    m_session->execute(m_session->impl().dialect->commit);
    m_impl->active = false;
}

}  // namespace QOR
