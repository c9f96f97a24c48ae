#include "QORServers/QORServers.h"

#include <optional>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "rdbmspp/engine/OdbcConnectionString.h"

namespace QOR {
namespace {

/// What a database says of servers to the role that asks it. The numbers are those of the select below.
enum class Division : std::int64_t { None, Hidden, Told };

Division divisionOf(ASSession& session) {
    ASStatement& select = session.prepare(
        "SELECT CASE WHEN to_regclass('qor_placement') IS NULL OR to_regclass('qor_server') IS NULL THEN 0 "
        "WHEN has_table_privilege(to_regclass('qor_placement'), 'SELECT') "
        "AND has_table_privilege(to_regclass('qor_server'), 'SELECT') THEN 2 ELSE 1 END");
    select.execute();
    const Division division = select.fetch() ? static_cast<Division>(select.integer(1)) : Division::None;
    select.close();
    return division;
}

/// Who reads an older database finds nothing of that.
bool canTellHandovers(ASSession& session) {
    ASStatement& select = session.prepare(
        "SELECT CASE WHEN has_table_privilege(to_regclass('qor_handover'), 'SELECT') THEN 1 ELSE 0 END");
    select.execute();
    const bool can = select.fetch() && select.integer(1) == 1;
    select.close();
    return can;
}

struct Epoch {
    std::int64_t number = 0;
    bool handsOver = false;
};

Epoch readEpoch(ASSession& session, bool tellsHandovers) {
    ASStatement& select =
        session.prepare(tellsHandovers ? "SELECT epoch, (SELECT count(*) FROM qor_handover) FROM qor_placement"
                                       : "SELECT epoch, 0 FROM qor_placement");
    select.execute();
    Epoch epoch;
    if (select.fetch()) epoch = {select.integer(1), select.integer(2) != 0};
    select.close();
    return epoch;
}

std::vector<QORServer> readServers(ASSession& session) {
    std::vector<QORServer> servers;
    ASStatement& select =
        session.prepare("SELECT name, number, connection, modulus, remainder FROM qor_server ORDER BY number");
    select.execute();
    while (select.fetch()) {
        servers.push_back({std::string(select.text(1)), static_cast<int>(select.integer(2)),
                           std::string(select.text(3)), static_cast<std::uint64_t>(select.integer(4)),
                           static_cast<std::uint64_t>(select.integer(5))});
    }
    select.close();
    return servers;
}

/// A server of another kind of machine would look for records elsewhere than this program puts them.
void checkHash(ASSession& session) {
    constexpr std::string_view eid = "01234567-89ab-4cde-8f01-23456789abcd";
    ASStatement& select = session.prepare("SELECT uuid_hash_extended(CAST(? AS uuid), CAST(? AS bigint))");
    select.bind(1, eid).bind(2, static_cast<std::int64_t>(QORPlacement::seedOfPartitions)).execute();
    const bool same = select.fetch() && static_cast<std::uint64_t>(select.integer(1)) + QORPlacement::combining ==
                                            QORPlacement::hash(QOREID(*QORGUIDBase::parse(eid)));
    select.close();
    if (!same)
        throw QORException(errFailure,
                           "the database divides environments by another hash than this program: its server runs on "
                           "another kind of machine",
                           QOR_SOURCE_PATH, __LINE__);
}

}  // namespace

std::string QORServers::connectionString(const std::string& server, const std::string& home) {
    const OdbcConnectionString from(home);
    OdbcConnectionString string(server);
    if (from.has("UID")) string.setDefault("UID", from.get("UID"));
    // A password may have a semicolon in it; the driver takes braces off it, and off no other value.
    if (from.has("PWD")) string.setDefault("PWD", '{' + from.get("PWD") + '}');
    return string.text();
}

QORServers& QORServers::instance() {
    static QORServers servers;
    return servers;
}

std::shared_ptr<const QORPlacement> QORServers::placement() {
    QORRdbms& home = QORRdbms::instance();
    const std::uint64_t generation = home.generation();
    {
        const std::lock_guard lock(m_mutex);
        if (m_placement && m_generation == generation) return m_placement;
    }
    return read(generation);
}

std::shared_ptr<const QORPlacement> QORServers::read(std::uint64_t generation) {
    auto found = std::make_shared<const QORPlacement>();
    bool divides = false;
    bool tellsHandovers = false;
    if (QORRdbms::instance().engine() == ASEngine::PostgreSQL && generation != 0) {
        QORRdbmsTran tran(ASAccess::Read);
        const Division division = divisionOf(*tran);
        divides = division == Division::Told;
        if (division == Division::Hidden) found = std::make_shared<const QORPlacement>(QORPlacement::hidden());
        if (divides) {
            std::vector<QORServer> servers = readServers(*tran);
            if (!servers.empty()) checkHash(*tran);
            tellsHandovers = canTellHandovers(*tran);
            found = std::make_shared<const QORPlacement>(readEpoch(*tran, false).number, std::move(servers));
        }
    }
    const std::lock_guard lock(m_mutex);
    if (m_generation != generation) {
        for (auto& [name, database] : m_databases)
            retire(database);
        m_databases.clear();
        m_away.clear();
    }
    m_generation = generation;
    m_divides = divides;
    m_tellsHandovers = tellsHandovers;
    return m_placement = std::move(found);
}

QORServers::Look QORServers::look() {
    auto known = placement();
    const std::uint64_t generation = QORRdbms::instance().generation();
    if (known->isHidden()) known = read(generation);  // the right may have been given meanwhile
    bool tellsHandovers = false;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_divides) return {known, false};
        tellsHandovers = m_tellsHandovers;
    }
    Epoch epoch;
    {
        QORRdbmsTran tran(ASAccess::ReadOne);
        epoch = readEpoch(*tran, tellsHandovers);
    }
    return {epoch.number == known->epoch() ? known : read(generation), epoch.handsOver};
}

// Its idle connections are closed; whoever uses one goes on.
void QORServers::retire(Database& database) {
    if (!database.database) return;
    database.database->shutdown();
    m_retired.push_back(std::move(database.database));
}

QORRdbms& QORServers::database(std::string_view name) {
    const auto servers = placement();
    const QORServer* const server = servers->find(name);
    if (server == nullptr)
        throw QORException(errFailure, "there is no server " + quoteText(name), QOR_SOURCE_PATH, __LINE__);
    ASDatabaseOptions options = QORRdbms::instance().options();
    options.connectionString = connectionString(server->connection, options.connectionString);
    options.name = server->name;
    options.mayBeAway = true;
    const std::lock_guard lock(m_mutex);
    Database& kept = m_databases[server->name];
    if (kept.database && kept.connection == options.connectionString) return *kept.database;
    retire(kept);
    auto fresh = std::make_unique<QORRdbms>();
    fresh->configure(options);
    kept = {options.connectionString, std::move(fresh)};
    return *kept.database;
}

bool QORServers::holds(ASSession& session, const QORServer& server) {
    ASStatement& select = session.prepare("SELECT modulus, remainder FROM qor_held");
    select.execute();
    const bool same = select.fetch() && static_cast<std::uint64_t>(select.integer(1)) == server.modulus &&
                      static_cast<std::uint64_t>(select.integer(2)) == server.remainder;
    select.close();
    return same;
}

AException QORServers::naming(std::string_view name, const AException& failure) {
    const std::string quoted = '"' + std::string(name) + '"';
    if (failure.text().find(quoted) != std::string::npos) return failure;
    return failure.reworded("server " + quoted + ": " + failure.text());
}

void QORServers::run(const QORServer& server, const std::function<void(QORRdbms&)>& work) {
    try {
        work(database(server.name));
    } catch (const AException& failure) {
        throw naming(server.name, failure);
    }
}

bool QORServers::isAway(std::string_view name) const {
    constexpr auto believed = std::chrono::seconds(5);
    const std::lock_guard lock(m_mutex);
    const auto found = m_away.find(name);
    return found != m_away.end() && std::chrono::steady_clock::now() - found->second < believed;
}

void QORServers::noteAway(std::string_view name) {
    const std::lock_guard lock(m_mutex);
    m_away[std::string(name)] = std::chrono::steady_clock::now();
}

std::vector<std::pair<std::string, QORRdbms*>> QORServers::used() {
    const std::lock_guard lock(m_mutex);
    std::vector<std::pair<std::string, QORRdbms*>> all;
    for (const auto& [name, database] : m_databases)
        all.emplace_back(name, database.database.get());
    return all;
}

void QORServers::close() {
    const std::lock_guard lock(m_mutex);
    m_databases.clear();
    m_retired.clear();
    m_away.clear();
    m_placement.reset();
    m_divides = false;
    m_tellsHandovers = false;
    m_generation = 0;
}

}  // namespace QOR
