#include "QORDBSchema/QORDBSchema.h"

#include <optional>
#include <string_view>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORDatabaseFile.h"
#include "QORDBSchema/QORSchemaEngine.h"
#include "QORDBSchema/QORStoredDocuments.h"
#include "QORDBSchema/SchemaTable.h"
#include "rdbmspp/engine/OdbcConnectionString.h"

namespace QOR {
namespace {

/// What tells a database of ours from another program's that happens to have a table of the same name.
constexpr std::string_view mark = "QORPager host database";

const int latestVersion = QORSchemaEngine::of(ASEngine::SQLite).latestVersion();

const QORSchemaEngine& engineOf(const ASSession& session) {
    return QORSchemaEngine::of(session.engine());
}

/// The version of a database that bears our mark.
std::optional<int> markedVersion(ASSession& session) {
    if (!session.prepare(engineOf(session).hasMark).hasRow()) return std::nullopt;
    ASStatement& newest =
        session.prepare("SELECT version FROM qor_schema_version WHERE mark = ? ORDER BY version DESC LIMIT 1");
    newest.bind(1, mark);
    newest.execute();
    std::optional<int> version;
    if (newest.fetch()) version = static_cast<int>(newest.integer(1));
    newest.close();
    return version;
}

[[noreturn]] void refuseForeign(const std::string& database) {
    throw QORException(errFailure,
                       "database " + quoteText(database, 1024) +
                           " belongs to another program: it holds tables or views that are not this host's. Use "
                           "--read-only to ask it questions, or name another database to keep records in",
                       QOR_SOURCE_PATH, __LINE__);
}

[[noreturn]] void refuseNewer(const std::string& database, int version) {
    throw QORException(errFailure,
                       "database " + quoteText(database, 1024) + " has version " + std::to_string(version) +
                           " of the schema, but this program knows versions up to " + std::to_string(latestVersion) +
                           ": use the newer program that wrote it, or --read-only to ask it questions",
                       QOR_SOURCE_PATH, __LINE__);
}

[[noreturn]] void refuseEmpty(const std::string& database, bool exists) {
    throw QORException(errFailure,
                       "database " + quoteText(database, 1024) +
                           (exists ? " is empty: there is nothing to ask it" : " does not exist"),
                       QOR_SOURCE_PATH, __LINE__);
}

[[noreturn]] void refuseFilling(const std::string& database) {
    throw QORException(errFailure,
                       "database " + quoteText(database, 1024) +
                           " holds a part of another one: a copy into it has not ended. Give the same \"qorctl copy\" "
                           "again, which goes on where it stood, or make the database anew",
                       QOR_SOURCE_PATH, __LINE__);
}

void createMark(ASSession& session) {
    session.execute(engineOf(session).markTable);
    session.execute("CREATE VIEW \"SchemaTable\" AS " + schemaTableSql(session.engine(), {}));
}

void applyStep(ASSession& session, const QORVersionedStep& next) {
    for (const char* statement : next.step->statements)
        session.execute(statement);
    if (next.step->work != nullptr) next.step->work(session);
    session.prepare("INSERT INTO qor_schema_version (version, mark, applied) VALUES (?, ?, ?)")
        .bind(1, std::int64_t{next.version})
        .bind(2, mark)
        .bind(3, time2dbstr(currentTime()))
        .execute();
}

QORSchemaState inspectDatabase() {
    QORRdbmsTran tran(ASAccess::Read);
    return QORDBSchema::inspect(*tran);
}

/// What is there, found without writing; nothing when it cannot be opened for reading, as when it is missing.
std::optional<QORSchemaState> lookReadOnly(ASDatabaseOptions options) {
    options.readOnly = true;
    std::optional<QORSchemaState> state;
    try {
        QORRdbms::instance().configure(options);
        state = inspectDatabase();
    } catch (const AException&) {
        state.reset();
    }
    // A connection left open would be in the way of whoever opens the database to change its journal.
    QORRdbms::instance().shutdown();
    return state;
}

bool isForeign(const QORSchemaState& state) {
    return state.kind == QORSchemaState::Kind::Foreign;
}

QORSchemaReport openReadOnly(ASDatabaseOptions options) {
    options.readOnly = true;
    QORRdbms::instance().configure(options);
    const QORSchemaState state = inspectDatabase();
    if (state.filling) refuseFilling(QORDBSchema::databaseName(options.connectionString));
    return {state, state.version, true};
}

/// From now on a connection to another database, which has taken this one's place, is refused.
void expectThisDatabase() {
    QORRdbmsTran tran(ASAccess::Read);
    constexpr const char* identity = "SELECT id FROM qor_database";
    if (!tran->prepare(engineOf(*tran).hasIdentity).hasRow()) return;
    ASStatement& select = tran->prepare(identity);
    select.execute();
    if (select.fetch()) QORRdbms::instance().expect(identity, std::string(select.text(1)));
    select.close();
}

void warnOfDocuments(const std::string& database) {
    QORRdbmsTran tran(ASAccess::Read);
    const auto unreadable = unreadableDocuments(*tran);
    if (!unreadable || unreadable->empty()) return;
    logMessage(1, "QORDBSchema", QOR_SOURCE_PATH, __func__, "Database '%s': stored documents that cannot be read: %s",
               database.c_str(), describe(*unreadable).c_str());
}

/// The triggers, indexes and functions that all steps together leave.
std::vector<QORSchemaPart> partsOfSchema(const QORSchemaEngine& engine) {
    std::vector<QORSchemaPart> parts;
    for (const QORVersionedStep& one : engine.steps) {
        for (const std::string_view sql : one.step->statements) {
            for (const std::string_view creates : engine.parts) {
                const std::string drops = "DROP" + std::string(creates.substr(creates.find(' ')));
                const bool makes = sql.starts_with(creates);
                if (!makes && !sql.starts_with(drops)) continue;
                const std::string_view rest = sql.substr((makes ? creates : drops).size());
                const std::string_view name = rest.substr(0, rest.find_first_of(" ("));
                std::erase_if(parts, [&](const QORSchemaPart& part) { return part.name == name; });
                if (makes) parts.push_back({name, sql});
            }
        }
    }
    return parts;
}

/// A database can be told only while it is empty, or by writing all of it anew, that its file is to shrink.
void makeNewShrinkable() {
    QORRdbmsTran tran(ASAccess::ReadOne);
    if (tran->engine() != ASEngine::SQLite || QORDBSchema::inspect(*tran).kind != QORSchemaState::Kind::Empty) return;
    try {
        QORDBSchema::makeShrinkable(*tran);
    } catch (const AException&) {
        // Another program is making it at this moment, and sees to it.
    }
}

}  // namespace

int QORDBSchema::currentVersion() noexcept {
    return latestVersion;
}

QORSchemaState QORDBSchema::inspect(ASSession& session) {
    const QORSchemaEngine& engine = engineOf(session);
    if (const auto version = markedVersion(session))
        return {QORSchemaState::Kind::Ours, *version, session.prepare(engine.isFilling).hasRow()};
    const bool any = session.prepare(engine.hasAnything).hasRow();
    return {any ? QORSchemaState::Kind::Foreign : QORSchemaState::Kind::Empty, 0, false};
}

int QORDBSchema::migrate(ASSession& session, int version) {
    const QORSchemaEngine& engine = engineOf(session);
    if (*engine.alone != '\0') session.execute(engine.alone);
    const QORSchemaState found = inspect(session);
    const std::string database = databaseName(QORRdbms::instance().options().connectionString);
    if (isForeign(found)) refuseForeign(database);
    if (found.version > latestVersion) refuseNewer(database, found.version);
    if (found.filling && found.version < latestVersion) refuseFilling(database);
    if (found.kind == QORSchemaState::Kind::Empty) createMark(session);
    for (const QORVersionedStep& next : engine.steps) {
        if (next.version > found.version && next.version <= version) applyStep(session, next);
    }
    return found.version;
}

std::vector<std::string> QORDBSchema::postgresStatements() {
    const QORSchemaEngine& engine = QORSchemaEngine::of(ASEngine::PostgreSQL);
    std::vector<std::string> statements{engine.markTable,
                                        "CREATE VIEW \"SchemaTable\" AS " + schemaTableSql(ASEngine::PostgreSQL, {})};
    for (const QORVersionedStep& step : engine.steps) {
        statements.insert(statements.end(), step.step->statements.begin(), step.step->statements.end());
        statements.push_back("INSERT INTO qor_schema_version (version, mark, applied) VALUES (" +
                             std::to_string(step.version) + ", " + ASSession::quoteLiteral(mark) + ", now())");
    }
    return statements;
}

QORSchemaReport QORDBSchema::open(const ASDatabaseOptions& options, QORSchemaMode mode) {
    const QORSchemaReport report = openDatabase(options, mode);
    expectThisDatabase();
    if (mode == QORSchemaMode::Own && !report.readOnly)
        migrateServers(report.found.kind == QORSchemaState::Kind::Ours && report.found.version < latestVersion);
    warnOfDocuments(databaseName(options.connectionString));
    return report;
}

QORSchemaReport QORDBSchema::openDatabase(const ASDatabaseOptions& options, QORSchemaMode mode) {
    const QORDatabaseFile file(options.connectionString);
    if (options.readOnly) return openReadOnly(options);
    // Who only asks makes no database: where none is, a name was mistaken.
    const bool makes = mode != QORSchemaMode::Reading;
    if (!makes && !file.exists()) refuseEmpty(databaseName(options.connectionString), false);
    file.check();
    // Merely opening a database for writing may change its file (its journal), so another program's is looked at first.
    const auto found = lookReadOnly(options);
    if (found && isForeign(*found)) {
        if (makes) refuseForeign(databaseName(options.connectionString));
        return openReadOnly(options);
    }
    if (found && found->version > latestVersion) refuseNewer(databaseName(options.connectionString), found->version);
    if (found && found->filling && mode != QORSchemaMode::Filling)
        refuseFilling(databaseName(options.connectionString));
    if (!makes && found && found->kind == QORSchemaState::Kind::Empty)
        refuseEmpty(databaseName(options.connectionString), true);
    if (makes) file.create();
    QORRdbms::instance().configure(options);
    if (makes) file.narrow();
    QORSchemaReport report{found.value_or(QORSchemaState()), latestVersion, false};
    if (found && found->kind == QORSchemaState::Kind::Ours && found->version == latestVersion) return report;
    if (report.found.kind == QORSchemaState::Kind::Empty) makeNewShrinkable();
    QORRdbms::instance().write([&](ASSession& session) { report.found.version = migrate(session); });
    if (report.found.version < latestVersion) {
        logMessage(2, "QORDBSchema", QOR_SOURCE_PATH, __func__, "Database '%s': schema version %d, was %d",
                   databaseName(options.connectionString).c_str(), latestVersion, report.found.version);
    }
    return report;
}

void QORDBSchema::prepareManyWrites(ASSession& session) {
    if (session.engine() != ASEngine::SQLite) return;
    // Identifiers come in no order, so that a thousand records touch thousands of pages: with the usual 2 MB they
    // would be written several times within one transaction, and with the usual 4 MB of log every commit would wait
    // for a checkpoint.
    session.execute("PRAGMA cache_size = -32768");
    session.execute("PRAGMA wal_autocheckpoint = 8192");
}

std::vector<std::string> QORDBSchema::missingParts(ASSession& session) {
    std::vector<std::string> missing;
    const QORSchemaEngine& engine = engineOf(session);
    for (const QORSchemaPart& part : partsOfSchema(engine)) {
        if (!engine.isThere(session, part)) missing.emplace_back(part.name);
    }
    return missing;
}

void QORDBSchema::restoreParts(ASSession& session) {
    const QORSchemaEngine& engine = engineOf(session);
    for (const QORSchemaPart& part : partsOfSchema(engine)) {
        if (engine.isThere(session, part)) continue;
        const std::string removal = engine.removal(part);
        if (!removal.empty()) session.execute(removal);
        session.execute(removal.empty() ? "CREATE OR REPLACE" + std::string(part.sql.substr(part.sql.find(' ')))
                                        : std::string(part.sql));
    }
}

void QORDBSchema::beginFilling(ASSession& session) {
    session.execute(
        "CREATE TABLE qor_copy (part text NOT NULL PRIMARY KEY, records bigint NOT NULL, digest text NOT NULL)");
    const QORSchemaEngine& engine = engineOf(session);
    for (const QORSchemaPart& part : partsOfSchema(engine)) {
        const std::string removal = engine.removal(part);
        if (!removal.empty()) session.execute(removal);
    }
}

void QORDBSchema::completeFilling(ASSession& session) {
    restoreParts(session);
    const QORSchemaEngine& engine = engineOf(session);
    if (*engine.afterFilling == '\0') return;
    std::vector<std::string> statements;
    ASStatement& select = session.prepare(engine.afterFilling);
    select.execute();
    while (select.fetch())
        statements.emplace_back(select.text(1));
    select.close();
    for (const std::string& statement : statements)
        session.execute(statement);
}

void QORDBSchema::endFilling(ASSession& session) {
    session.execute("DROP TABLE qor_copy");
    // Whoever has the environments in memory has to read them anew.
    session.execute("INSERT INTO qor_environment_change (n, environments) SELECT n + 1, NULL FROM qor_change");
    session.execute("UPDATE qor_change SET n = n + 1");
    for (const char* const statement : engineOf(session).sequenceFilling->statements)
        session.execute(statement);
}

void QORDBSchema::makeShrinkable(ASSession& session) {
    session.execute("PRAGMA auto_vacuum = 2");
    session.execute("VACUUM");
}

std::string QORDBSchema::databaseName(const std::string& connectionString) {
    const OdbcConnectionString parts(connectionString);
    return parts.get(parts.has("Database") ? "Database" : "DSN");
}

}  // namespace QOR
