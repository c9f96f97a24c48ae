#include "shard/QORShard.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "QORCommon/QORText.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/QORHandover.h"
#include "QORDBSchema/QORSpreadSchema.h"
#include "QORServers/QORServers.h"
#include "rdbmspp/engine/OdbcConnectionString.h"
#include "shard/ShardCheck.h"
#include "shard/ShardDatabase.h"
#include "shard/ShardForeign.h"
#include "shard/ShardMove.h"

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

/// Tables whose records have numbers of their own.
constexpr std::array numbered{"qor_operation", "qor_event", "qor_backup"};

/// Numbers that a server gives to what other programs store there are its alone, and above those that agents give.
constexpr int numberBits = 44;

bool holdsRecords(ShardDatabase& database) {
    return std::any_of(spreadTables().begin(), spreadTables().end(), [&](const QORSpreadTable& table) {
        return database.cell("SELECT count(*) FROM (SELECT 1 FROM " + std::string(table.name) + " LIMIT 1) AS one") !=
               "0";
    });
}

std::string noteStatement(const QORSpreadServer& server) {
    return "INSERT INTO qor_server (name, number, connection, schema, modulus, remainder) VALUES (" +
           inQuotes(server.name) + ", " + std::to_string(server.number) + ", " + inQuotes(server.connection) + ", " +
           inQuotes(server.schema) + ", " + std::to_string(server.modulus) + ", " + std::to_string(server.remainder) +
           ") ON CONFLICT (name) DO UPDATE SET connection = excluded.connection, schema = excluded.schema, "
           "modulus = excluded.modulus, remainder = excluded.remainder";
}

std::string holdStatement(const QORSpreadServer& server, std::int64_t epoch, const std::string& home) {
    return "INSERT INTO qor_held (epoch, modulus, remainder, home) VALUES (" + std::to_string(epoch) + ", " +
           std::to_string(server.modulus) + ", " + std::to_string(server.remainder) + ", " + inQuotes(home) + ")";
}

/// What a server without any records begins with.
std::vector<std::string> beginStatements(const QORSpreadServer& server, std::int64_t epoch, const std::string& home) {
    std::vector<std::string> statements{"DELETE FROM qor_held", holdStatement(server, epoch, home),
                                        "DELETE FROM qor_followed", "INSERT INTO qor_followed (n) VALUES (-1)"};
    for (const char* const table : numbered)
        statements.push_back("ALTER TABLE " + std::string(table) + " ALTER COLUMN seq RESTART WITH " +
                             std::to_string(std::int64_t{server.number} << numberBits));
    return statements;
}

/// Agents number records behind all that there are and were.
std::string arrivalStatement() {
    std::string last =
        "coalesce((SELECT max(last_value) FROM pg_sequences WHERE schemaname = CAST(current_schema() AS text) AND "
        "sequencename LIKE 'qor\\_%\\_seq\\_seq'), 0)";
    for (const char* const table : numbered)
        last += ", coalesce((SELECT max(seq) FROM " + std::string(table) + "), 0)";
    return "SELECT setval('qor_arrival', greatest(last_value, " + last + ")) FROM qor_arrival";
}

}  // namespace

class QORShard::Impl {
public:
    explicit Impl(QORShardOptions options) : m_options(std::move(options)), m_home("home", m_options.home) {
        m_home.migrate();
        m_alone.emplace(m_home.rdbms(), ASAccess::Read);
        if (!takeSpread(**m_alone)) m_home.refuse("is being spread by another program at this moment");
        m_identity = m_home.identity();
        requireRights();
        settleLast();
        openServers();
        requireSplit();
    }

    QORShardReport run() {
        QORShardReport report;
        for (Place& place : m_places)
            prepare(place);
        try {
            make(report);
        } catch (const ShardStopped&) {
            report.stopped = true;
            return report;
        }
        check(report.faults);
        return report;
    }

private:
    void make(QORShardReport& report) {
        if (countKnown() == 0) {
            placeFirst();
            report.done.push_back("spread over " + std::to_string(m_places.size()) + " servers");
        }
        for (Place& place : m_places) {
            if (place.row.number != 0) continue;
            const Place& source = add(place);
            report.done.push_back("server " + quoteText(place.row.name) + " has half of the environments of " +
                                  quoteText(source.row.name));
            report.waited = std::max(report.waited, m_waited);
        }
        for (Place& place : m_places)
            watch(place.database, false, m_options.stop);
        alone(m_home, settling(), m_options.stop);
    }

    void check(std::vector<std::string>& faults) {
        const auto take = [&](const std::vector<std::string>& more) {
            faults.insert(faults.end(), more.begin(), more.end());
        };
        for (Place& place : m_places)
            take(checkServer(m_home, place.database, place.row));
        take(checkHome(m_home));
    }

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

    /// What an earlier run was ended in the middle of.
    void settleLast() {
        const auto handover = readHandover(**m_alone);
        if (!handover) return;
        for (const QORSpreadServer& server : readSpreadServers(**m_alone)) {
            if (server.name != handover->source) continue;
            ShardDatabase source("server " + quoteText(server.name),
                                 QORServers::connectionString(server.connection, m_options.home));
            QORRdbmsTran tran(source.rdbms(), ASAccess::Read);
            if (hasLeft(*tran, *handover))
                alone(
                    m_home, [&](ASSession& home) { completeHandover(home, *handover); }, m_options.stop);
        }
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
            connection.setDefault("Driver", OdbcConnectionString(m_options.home).get("Driver"));
            row.connection = connection.text();
            m_places.push_back({server, row,
                                ShardDatabase("server " + quoteText(server.name),
                                              QORServers::connectionString(row.connection, m_options.home))});
        }
        if (!rows.empty())
            m_home.refuse("has the server " + quoteText(rows.begin()->first) +
                          ", which is not named any more: it holds records, and no server can be taken away");
    }

    void requireSplit() const {
        if (m_options.split.empty()) return;
        const bool known = std::any_of(m_places.begin(), m_places.end(), [&](const Place& place) {
            return place.row.number != 0 && place.row.name == m_options.split;
        });
        if (!known) m_home.refuse("has no server " + quoteText(m_options.split) + " that could give environments away");
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

    /// The records that home has go to all servers.
    void placeFirst() {
        const auto modulus = static_cast<std::int64_t>(m_places.size());
        std::vector<ShardWay> ways;
        for (Place& place : m_places) {
            place.row.number = static_cast<int>(ways.size()) + 1;
            place.row.modulus = modulus;
            place.row.remainder = place.row.number - 1;
            begin(place, 1);
            ways.push_back({place.row.name, &place.database, shareOf(place.row)});
        }
        m_home.write([](ASSession& home) { home.execute(arrivalStatement()); });
        m_changed = true;
        ShardMove move(m_home, m_home, std::move(ways), {}, hooks({}));
        move.copy();
        move.finishHome(settling());
        m_changed = false;
    }

    /// Gives a new server half of the environments of one that there is. \returns that one
    const Place& add(Place& place) {
        Place& source = sourceFor(place);
        place.row.number = 1 + std::max_element(m_places.begin(), m_places.end(), [](const auto& a, const auto& b) {
                                   return a.row.number < b.row.number;
                               })->row.number;
        place.row.modulus = source.row.modulus * 2;
        place.row.remainder = source.row.remainder + source.row.modulus;
        QORSpreadServer rest = source.row;
        rest.modulus = place.row.modulus;
        const std::int64_t epoch = std::stoll(m_home.cell("SELECT epoch FROM qor_placement")) + 1;
        if (place.database.cell("SELECT count(*) FROM qor_held") == "0") begin(place, epoch);
        const QORHandover handover{source.row.name, place.row};
        const auto noted = [&](ASSession& home) {
            for (const ShardForeign& server : foreignTo(place)) {
                if (server.isThere(home)) continue;
                for (const std::string& statement : server.statements())
                    home.execute(statement);
            }
            noteHandover(home, handover);
        };
        const auto settle = [&](ASSession& home) { completeHandover(home, handover); };
        if (source.database.cell("SELECT modulus FROM qor_held") == std::to_string(rest.modulus)) {
            // An earlier program was ended after the records had gone, and had not noted it.
            m_home.write(noted);
            alone(m_home, settle, m_options.stop);
        } else {
            ShardMove move(m_home, source.database, {{place.row.name, &place.database, shareOf(place.row)}},
                           {{rest.name, shareOf(rest)}}, hooks(place.row.name));
            move.copy();
            m_home.write(noted);
            m_waited = move.finish([&](ASSession& session) { hold(session, rest, epoch); }, settle);
        }
        source.row = rest;
        return source;
    }

    /// Which server gives to a new one: the one that has begun to, the one that was asked for, or the largest.
    Place& sourceFor(Place& place) {
        const auto held = place.database.rows("SELECT modulus, remainder FROM qor_held", 2);
        Place* chosen = nullptr;
        std::int64_t most = -1;
        for (Place& one : m_places) {
            if (one.row.number == 0) continue;
            if (!held.empty()) {
                if (std::stoll(held[0][0]) == one.row.modulus * 2 &&
                    std::stoll(held[0][1]) == one.row.remainder + one.row.modulus)
                    return one;
            } else if (!m_options.split.empty()) {
                if (one.row.name == m_options.split) return one;
            } else if (const std::int64_t records = recordsOf(one); records > most) {
                most = records;
                chosen = &one;
            }
        }
        if (chosen == nullptr)
            place.database.refuse("was begun for environments that no server has any more: make it anew, empty");
        return *chosen;
    }

    static std::int64_t recordsOf(Place& place) {
        return std::stoll(
            place.database.cell("SELECT (SELECT count(*) FROM qor_operation) + (SELECT count(*) FROM qor_event) + "
                                "(SELECT count(*) FROM qor_backup)"));
    }

    static ShardShare shareOf(const QORSpreadServer& row) { return {row.modulus, row.remainder}; }

    ShardMoveHooks hooks(const std::string& to) const {
        return {[this, to](std::uint64_t records, std::uint64_t of, std::uint64_t resumed) {
                    if (m_options.progress) m_options.progress({to, records, of, resumed});
                },
                m_options.stop};
    }

    /// In place: who waits for the row finds it again, as it is then.
    void hold(ASSession& session, const QORSpreadServer& row, std::int64_t epoch) const {
        session.execute("UPDATE qor_held SET epoch = " + std::to_string(epoch) + ", modulus = " +
                        std::to_string(row.modulus) + ", remainder = " + std::to_string(row.remainder));
    }

    /// What a server holds from now on, without any records yet.
    void begin(Place& place, std::int64_t epoch) {
        place.database.write([&](ASSession& session) {
            for (const std::string& statement : beginStatements(place.row, epoch, m_identity))
                session.execute(statement);
        });
    }

    /// The engine's own servers for one; gives their reader his rights there.
    static std::vector<ShardForeign> foreignTo(Place& place) {
        ShardReader reader{place.file.reader, place.file.readerPassword};
        if (reader.role.empty()) {
            reader.role = place.database.cell("SELECT CAST(current_user AS text)");
            reader.password = OdbcConnectionString(place.database.connection()).get("PWD");
        } else {
            allow(place, reader.role);
        }
        return foreignServers(place.row.name, place.database.connection(), reader);
    }

    /// \returns what makes everything at home as it has to be
    std::function<void(ASSession&)> settling() {
        std::vector<ShardForeign> servers;
        for (Place& place : m_places) {
            if (place.row.number == 0) continue;
            const auto more = foreignTo(place);
            servers.insert(servers.end(), more.begin(), more.end());
        }
        return [this, servers = std::move(servers)](ASSession& home) {
            for (const ShardForeign& server : servers) {
                if (server.isThere(home)) continue;
                for (const std::string& statement : server.statements())
                    home.execute(statement);
            }
            for (const Place& place : m_places) {
                if (place.row.number != 0) home.execute(noteStatement(place.row));
            }
            remakeSpread(home);
            if (m_changed) home.execute("UPDATE qor_placement SET epoch = epoch + 1");
        };
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
    std::uint64_t m_waited = 0;                       ///< as the report's
};

std::vector<std::string> QORShard::script(const QORShardOptions& options) {
    ShardDatabase home("home", options.home);
    QORRdbmsTran tran(home.rdbms(), ASAccess::Read);
    if (QORDBSchema::inspect(*tran).version != QORDBSchema::currentVersion())
        home.refuse("is not one of this program's and of this version yet: have an agent open it once");
    if (!readSpreadServers(*tran).empty())
        home.refuse("has servers: adding one moves records, which takes more than statements");
    const std::string identity = readCell(*tran, "SELECT id FROM qor_database");
    const std::string role = readCell(*tran, "SELECT CAST(current_user AS text)");
    std::vector<std::string> lines;
    const auto add = [&](const std::vector<std::string>& statements) {
        for (const std::string& statement : statements)
            lines.push_back(statement + ';');
    };
    std::vector<QORSpreadServer> rows;
    std::vector<std::string> ways;
    for (const ShardServer& server : options.servers) {
        const int number = static_cast<int>(rows.size()) + 1;
        const std::string whole = QORServers::connectionString(server.connection, options.home);
        const OdbcConnectionString connection(whole);
        rows.push_back({server.name, number, server.connection, "public",
                        static_cast<std::int64_t>(options.servers.size()), number - 1});
        lines.push_back("-- server " + server.name + ": database " + connection.get("Database") + " at " +
                        connection.get("Server"));
        add(QORDBSchema::postgresStatements());
        add(beginStatements(rows.back(), 1, identity));
        ShardReader reader{server.reader, server.readerPassword};
        if (!reader.role.empty()) add(readerGrants("public", reader.role));
        if (reader.role.empty()) {
            reader.role = connection.has("UID") ? connection.get("UID") : role;
            reader.password = connection.get("PWD");
        }
        if (!reader.password.empty() && !options.showPasswords) reader.password = "***";
        for (const ShardForeign& way : foreignServers(server.name, whole, reader)) {
            const auto more = way.statements();
            ways.insert(ways.end(), more.begin(), more.end());
        }
    }
    lines.push_back("-- home, in one transaction, while it holds no records");
    add({"BEGIN", "CREATE EXTENSION IF NOT EXISTS postgres_fdw"});
    add(ways);
    for (const QORSpreadServer& row : rows)
        add({noteStatement(row)});
    add(spreadStatements(*tran, rows));
    add({arrivalStatement(), "UPDATE qor_placement SET epoch = epoch + 1", "COMMIT"});
    return lines;
}

QORShard::QORShard(QORShardOptions options) : m_impl(std::make_unique<Impl>(std::move(options))) {}
QORShard::~QORShard() = default;

QORShardReport QORShard::run() {
    return m_impl->run();
}

}  // namespace QOR
