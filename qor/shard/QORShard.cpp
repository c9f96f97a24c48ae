#include "shard/QORShard.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "QORCommon/QORText.h"
#include "QORDBSchema/QORSpreadSchema.h"
#include "QORServers/QORServers.h"
#include "rdbmspp/engine/OdbcConnectionString.h"
#include "shard/ShardCheck.h"
#include "shard/ShardDatabase.h"
#include "shard/ShardForeign.h"

namespace QOR {
namespace {

/// A server with its database.
struct Place {
    ShardServer file;
    QORSpreadServer row;  ///< number 0: not in home's table yet
    ShardDatabase database;
};

std::string inQuotes(const std::string& text) {
    return ASSession::quoteLiteral(text);
}

/// Numbers that a server gives to what other programs store there are its alone, and above those that agents give.
constexpr int numberBits = 44;

bool holdsRecords(ShardDatabase& database) {
    return std::any_of(spreadTables().begin(), spreadTables().end(), [&](const QORSpreadTable& table) {
        return database.cell("SELECT count(*) FROM (SELECT 1 FROM " + std::string(table.name) + " LIMIT 1) AS one") !=
               "0";
    });
}

void note(ASSession& home, const QORSpreadServer& server) {
    home.prepare(
            "INSERT INTO qor_server (name, number, connection, schema, modulus, remainder) VALUES (CAST(? AS text), "
            "CAST(? AS int), CAST(? AS text), CAST(? AS text), CAST(? AS int), CAST(? AS int)) ON CONFLICT (name) DO "
            "UPDATE SET connection = excluded.connection, schema = excluded.schema, modulus = excluded.modulus, "
            "remainder = excluded.remainder")
        .bind(1, std::string_view(server.name))
        .bind(2, std::int64_t{server.number})
        .bind(3, std::string_view(server.connection))
        .bind(4, std::string_view(server.schema))
        .bind(5, server.modulus)
        .bind(6, server.remainder)
        .execute();
}

}  // namespace

class QORShard::Impl {
public:
    explicit Impl(QORShardOptions options) : m_options(std::move(options)), m_home("home", m_options.home) {
        m_home.migrate();
        m_alone.emplace(m_home.rdbms(), ASAccess::Read);
        if (readCell(**m_alone,
                     "SELECT pg_try_advisory_xact_lock(hashtextextended('qor shard ' || current_schema(), 0))") != "1")
            m_home.refuse("is being spread by another program at this moment");
        m_identity = m_home.identity();
        requireRights();
        openServers();
    }

    QORShardReport run() {
        QORShardReport report;
        for (Place& place : m_places)
            prepare(place);
        requireEmptyHome();
        const std::size_t known = countKnown();
        if (known == 0) {
            placeFirst();
            report.done.push_back("spread over " + std::to_string(m_places.size()) + " servers");
        } else if (known < m_places.size()) {
            m_home.refuse("has " + std::to_string(known) + " servers: adding one is not possible yet");
        }
        settle();
        for (Place& place : m_places) {
            auto faults = checkServer(m_home, place.database, place.row);
            std::move(faults.begin(), faults.end(), std::back_inserter(report.faults));
        }
        auto faults = checkHome(m_home);
        std::move(faults.begin(), faults.end(), std::back_inserter(report.faults));
        return report;
    }

private:
    void requireRights() {
        const std::string role = m_home.cell("SELECT quote_ident(current_user)");
        const std::string mayMake = m_home.cell("SELECT rolsuper FROM pg_roles WHERE rolname = current_user");
        const std::string extension = m_home.cell("SELECT count(*) FROM pg_extension WHERE extname = 'postgres_fdw'");
        const std::string advice =
            "CREATE EXTENSION IF NOT EXISTS postgres_fdw; GRANT USAGE ON FOREIGN DATA WRAPPER "
            "postgres_fdw TO " +
            role + "; GRANT CREATE ON DATABASE " + m_home.cell("SELECT quote_ident(current_database())") + " TO " +
            role;
        if (extension == "0") {
            if (mayMake != "1")
                m_home.refuse("lacks the extension postgres_fdw, which a superuser has to make there: " + advice);
            m_home.write([](ASSession& home) { home.execute("CREATE EXTENSION postgres_fdw"); });
        }
        if (m_home.cell("SELECT has_foreign_data_wrapper_privilege('postgres_fdw', 'USAGE') AND "
                        "has_database_privilege(current_database(), 'CREATE')") != "1")
            m_home.refuse("does not let the role " + role +
                          " make schemas and servers; a superuser says there: " + advice);
        const std::string other = m_home.cell(
            "SELECT obj_description(oid) FROM pg_namespace WHERE nspname = 'qor_all' AND "
            "obj_description(oid) IS DISTINCT FROM CAST(current_schema() AS text)");
        if (!other.empty())
            m_home.refuse("cannot be spread: the records of the schema " + quoteText(other) +
                          " in the same database are, and one database can spread those of one schema");
    }

    void openServers() {
        std::map<std::string, QORSpreadServer> rows;
        {
            QORRdbmsTran tran(m_home.rdbms(), ASAccess::Read);
            for (QORSpreadServer& row : readSpreadServers(*tran))
                rows.emplace(row.name, std::move(row));
        }
        for (const ShardServer& server : m_options.servers) {
            QORSpreadServer row;
            if (const auto known = rows.find(server.name); known != rows.end()) {
                row = known->second;
                rows.erase(known);
            }
            row.name = server.name;
            OdbcConnectionString connection(server.connection);
            connection.setDefault("Driver", '{' + OdbcConnectionString(m_options.home).get("Driver") + '}');
            row.connection = connection.text();
            m_places.push_back({server, row,
                                ShardDatabase("server " + quoteText(server.name),
                                              QORServers::connectionString(row.connection, m_options.home))});
        }
        if (!rows.empty())
            m_home.refuse("has the server " + quoteText(rows.begin()->first) +
                          ", which is not named any more: it holds records, and no server can be taken away");
    }

    std::size_t countKnown() const {
        return static_cast<std::size_t>(
            std::count_if(m_places.begin(), m_places.end(), [](const Place& place) { return place.row.number != 0; }));
    }

    /// Makes sure that a server's database is one that records may lie in.
    void prepare(Place& place) {
        ShardDatabase& database = place.database;
        database.migrate();
        const std::string identity = database.identity();
        if (identity == m_identity) database.refuse("is home itself: it needs a database of its own");
        for (const Place& other : m_places) {
            if (&other == &place) break;
            if (m_identities[other.file.name] == identity)
                database.refuse("is the same database as " + other.database.what());
        }
        m_identities[place.file.name] = identity;
        place.row.schema = database.cell("SELECT CAST(current_schema() AS text)");
        if (database.cell("SELECT count(*) FROM qor_server") != "0")
            database.refuse("is itself one whose records are spread over servers");
        const std::string home = database.cell("SELECT home FROM qor_held");
        if (!home.empty() && home != m_identity) database.refuse("is a server of another database");
        if (home.empty() && place.row.number == 0 && holdsRecords(database))
            database.refuse("holds records of its own: a server begins with a database without any");
    }

    void requireEmptyHome() {
        if (holdsRecords(m_home)) m_home.refuse("holds records: spreading these is not possible yet");
    }

    void placeFirst() {
        const auto modulus = static_cast<std::int64_t>(m_places.size());
        int number = 0;
        for (Place& place : m_places) {
            place.row.number = ++number;
            place.row.modulus = modulus;
            place.row.remainder = number - 1;
            begin(place, 1);
        }
        raiseArrival();
        m_changed = true;
    }

    /// What a server holds from now on, without any records yet.
    void begin(Place& place, std::int64_t epoch) {
        place.database.write([&](ASSession& session) {
            session.execute("DELETE FROM qor_held");
            session
                .prepare(
                    "INSERT INTO qor_held (epoch, modulus, remainder, home) VALUES (CAST(? AS bigint), "
                    "CAST(? AS int), CAST(? AS int), CAST(? AS text))")
                .bind(1, epoch)
                .bind(2, place.row.modulus)
                .bind(3, place.row.remainder)
                .bind(4, std::string_view(m_identity))
                .execute();
            session.execute("DELETE FROM qor_followed");
            session.execute("INSERT INTO qor_followed (n) VALUES (-1)");
            for (const char* const table : {"qor_operation", "qor_event", "qor_backup"})
                session.execute("ALTER TABLE " + std::string(table) + " ALTER COLUMN seq RESTART WITH " +
                                std::to_string(std::int64_t{place.row.number} << numberBits));
        });
    }

    /// Agents number records behind all that there are.
    void raiseArrival() {
        m_home.write([](ASSession& home) {
            readCell(home,
                     "SELECT setval('qor_arrival', greatest(a.last_value, s.last)) FROM qor_arrival a, (SELECT "
                     "max(last_value) AS last FROM pg_sequences WHERE schemaname = CAST(current_schema() AS text) AND "
                     "sequencename LIKE 'qor\\_%\\_seq\\_seq') s WHERE s.last IS NOT NULL");
        });
    }

    /// The rights of readers at the servers, and everything at home, in one transaction.
    void settle() {
        std::vector<std::string> servers;
        for (Place& place : m_places) {
            ShardReader reader{place.file.reader, place.file.readerPassword};
            if (reader.role.empty()) {
                reader.role = place.database.cell("SELECT CAST(current_user AS text)");
            } else {
                allow(place, reader.role);
            }
            const auto more = foreignServerStatements(place.row.name, place.database.connection(), reader);
            servers.insert(servers.end(), more.begin(), more.end());
        }
        m_home.write([&](ASSession& home) {
            for (const std::string& statement : servers)
                home.execute(statement);
            for (const Place& place : m_places)
                note(home, place.row);
            remakeSpread(home);
            if (m_changed) home.execute("UPDATE qor_placement SET epoch = epoch + 1");
        });
        m_changed = false;
    }

    static void allow(Place& place, const std::string& role) {
        if (place.database.cell("SELECT count(*) FROM pg_roles WHERE rolname = " + inQuotes(role)) == "0")
            place.database.refuse("has no role " + quoteText(role) + " for home to read by: CREATE ROLE " +
                                  ASSession::quoteIdentifier(role) + " LOGIN");
        place.database.write([&](ASSession& session) {
            for (const std::string& statement : readerGrants(place.row.schema, role))
                session.execute(statement);
        });
    }

    const QORShardOptions m_options;
    ShardDatabase m_home;
    std::optional<QORRdbmsTran> m_alone;  ///< holds the lock
    std::string m_identity;               ///< home's
    std::vector<Place> m_places;
    std::map<std::string, std::string> m_identities;  ///< by names of servers
    bool m_changed = false;                           ///< the placement, since it was written down
};

QORShard::QORShard(QORShardOptions options) : m_impl(std::make_unique<Impl>(std::move(options))) {}
QORShard::~QORShard() = default;

QORShardReport QORShard::run() {
    return m_impl->run();
}

}  // namespace QOR
