#include "shard/ShardCheck.h"

#include <set>
#include <utility>

#include "QORDBSchema/QORDBSchema.h"

namespace QOR {
namespace {

/// Columns of a table, in their order, with their types.
std::string columnsSql(const std::string& schema, const std::string& table) {
    return "SELECT string_agg(a.attname || ' ' || format_type(a.atttypid, a.atttypmod), ', ' ORDER BY a.attname) "
           "FROM pg_attribute a JOIN pg_class c ON c.oid = a.attrelid JOIN pg_namespace n ON n.oid = c.relnamespace "
           "WHERE a.attnum > 0 AND NOT a.attisdropped AND n.nspname = " +
           ASSession::quoteLiteral(schema) + " AND c.relname = " + ASSession::quoteLiteral(table);
}

/// The engine lets an ordinary role read elsewhere by a password alone.
std::string adviceFor(const std::string& reason) {
    if (reason.find("password") == std::string::npos) return {};
    return ". Give the reader a password (Reader=ROLE;ReaderPWD=...), or have a superuser say at home: ALTER USER "
           "MAPPING FOR PUBLIC SERVER ... OPTIONS (ADD password_required 'false')";
}

class ServerCheck {
public:
    ServerCheck(ShardDatabase& home, ShardDatabase& database, const QORSpreadServer& server)
        : m_home(home), m_database(database), m_server(server) {}

    std::vector<std::string> run() {
        checkVersion();
        checkHeld();
        checkPlaces();
        for (const char* const suffix : {"", "_long"})
            checkWay("qor_at_" + m_server.name + suffix);
        return std::move(m_faults);
    }

private:
    void fault(const std::string& what) { m_faults.push_back(m_database.what() + ": " + what); }

    void checkVersion() {
        const std::string version = m_database.cell("SELECT max(version) FROM qor_schema_version");
        if (version != std::to_string(QORDBSchema::currentVersion()))
            fault("has version " + version + " of the schema, and this program has " +
                  std::to_string(QORDBSchema::currentVersion()));
        QORRdbmsTran tran(m_database.rdbms(), ASAccess::Read);
        for (const std::string& part : QORDBSchema::missingParts(*tran))
            fault(part + " is missing, or not as it should be: \"qorctl check --mend\" makes it anew");
    }

    void checkHeld() {
        const auto held = m_database.rows("SELECT modulus, remainder FROM qor_held", 2);
        const std::string expected = std::to_string(m_server.modulus) + '/' + std::to_string(m_server.remainder);
        const std::string found = held.size() == 1 ? held[0][0] + '/' + held[0][1] : "nothing";
        if (found != expected) fault("holds " + found + ", and home says " + expected);
    }

    void checkPlaces() {
        for (const QORSpreadTable& table : spreadTables()) {
            const std::string strays = m_database.cell(
                "SELECT count(*) FROM " + std::string(table.name) +
                " WHERE NOT satisfies_hash_partition(CAST('qor_spread' AS regclass), " +
                std::to_string(m_server.modulus) + ", " + std::to_string(m_server.remainder) + ", " + table.key + ")");
            if (strays != "0") fault(strays + " records of " + table.name + " belong to another server");
        }
    }

    void checkWay(const std::string& schema) {
        for (const QORSpreadTable& table : spreadTables()) {
            const std::string name = schema + '.' + table.name;
            checkBounds(schema, table);
            if (m_home.cell(columnsSql(schema, table.name)) != m_database.cell(columnsSql(m_server.schema, table.name)))
                fault(name + " at home has other columns than the table");
            try {
                m_home.cell("SELECT count(*) FROM (SELECT 1 FROM " + name + " LIMIT 1) AS one");
            } catch (const AException& error) {
                fault("home cannot read " + name + ": " + error.text() + adviceFor(error.text()));
                return;
            }
        }
        if (canWrite(schema)) fault("home's reader can write to " + schema + ".qor_event");
    }

    void checkBounds(const std::string& schema, const QORSpreadTable& table) {
        const std::string bounds = m_home.cell(
            "SELECT pg_get_expr(c.relpartbound, c.oid) FROM pg_class c WHERE c.oid = "
            "to_regclass(" +
            ASSession::quoteLiteral(schema + '.' + table.name) + ")");
        const std::string expected = "FOR VALUES WITH (modulus " + std::to_string(m_server.modulus) + ", remainder " +
                                     std::to_string(m_server.remainder) + ")";
        if (bounds != expected)
            fault(schema + '.' + table.name + " at home has " + (bounds.empty() ? "no bounds" : bounds) +
                  " where it should have " + expected);
    }

    /// Tries it; what was written is undone.
    bool canWrite(const std::string& schema) {
        try {
            QORRdbmsTran tran(m_home.rdbms(), ASAccess::Write);
            tran->execute("DO $$ BEGIN INSERT INTO " + schema +
                          ".qor_event (seq, time) VALUES (-1, '2000-01-01 00:00:00'); RAISE EXCEPTION 'written'; "
                          "EXCEPTION WHEN read_only_sql_transaction OR insufficient_privilege THEN NULL; END $$");
        } catch (const AException&) {
            return true;
        }
        return false;
    }

    ShardDatabase& m_home;
    ShardDatabase& m_database;
    const QORSpreadServer& m_server;
    std::vector<std::string> m_faults;
};

}  // namespace

std::vector<std::string> checkServer(ShardDatabase& home, ShardDatabase& database, const QORSpreadServer& server) {
    try {
        return ServerCheck(home, database, server).run();
    } catch (const AException& error) {
        return {error.text()};
    }
}

std::vector<std::string> checkHome(ShardDatabase& home) {
    std::vector<std::string> faults;
    const std::string schema = home.cell("SELECT CAST(current_schema() AS text)");
    for (const QORSpreadTable& table : spreadTables()) {
        const std::string name = table.name;
        if (home.cell("SELECT count(*) FROM (SELECT 1 FROM " + name + " LIMIT 1) AS one") != "0")
            faults.push_back(home.what() + ": " + name + " holds records itself, which nobody sees");
        for (const char* const all : {"qor_all", "qor_all_long"}) {
            if (home.cell(columnsSql(all, name)) != home.cell(columnsSql(schema, name)))
                faults.emplace_back(home.what())
                    .append(": ")
                    .append(all)
                    .append(".")
                    .append(name)
                    .append(" has other columns than ")
                    .append(name);
        }
        if (home.cell("SELECT count(*) FROM pg_trigger WHERE tgrelid = CAST('" + name +
                      "' AS regclass) AND tgname = 'qor_elsewhere' AND tgenabled IN ('O', 'A')") == "0")
            faults.push_back(home.what() + ": " + name + " takes records, which nobody would see");
    }
    return faults;
}

}  // namespace QOR
