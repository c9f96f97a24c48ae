#include "rdbmspp/engine/PostgresEngine.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "QORCommon/QORAscii.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/engine/OdbcConnectionString.h"

namespace QOR {

// What sessions run is left out, since it may hold values. Of those of other roles the engine may not tell what they do
// and since when.
const char* const postgresLockHolders =
    "SELECT string_agg(h.told, '; ' ORDER BY h.began) FROM (SELECT "
    "format('session %s (\"%s\", role \"%s\"%s%s) on %s', a.pid, a.application_name, a.usename, ', ' || a.state, "
    "', in a transaction for ' || floor(extract(epoch FROM clock_timestamp() - a.xact_start)) || ' s', "
    "string_agg(DISTINCT c.relname::text, ', ' ORDER BY c.relname::text)) AS told, a.xact_start AS began "
    "FROM pg_locks l JOIN pg_stat_activity a ON a.pid = l.pid JOIN pg_class c ON c.oid = l.relation "
    "WHERE l.locktype = 'relation' AND l.granted AND l.mode NOT IN ('AccessShareLock', 'ShareUpdateExclusiveLock') "
    "AND c.relkind IN ('r', 'p') AND l.database = (SELECT d.oid FROM pg_database d WHERE d.datname = "
    "current_database()) AND l.pid <> pg_backend_pid() "
    "AND NOT EXISTS (SELECT FROM pg_locks w WHERE w.pid = l.pid AND NOT w.granted) "
    "GROUP BY a.pid, a.application_name, a.usename, a.state, a.xact_start ORDER BY a.xact_start LIMIT 5) h";

namespace {

struct Setting {
    const char* name;
    const char* value;
};

// The driver would otherwise put a savepoint around each statement and let a transaction go on, and commit, after one
// failed (Protocol); change line ends and truth values (LFConversion, TrueIsMinus1); read through cursors that cost a
// page twice its time (UseDeclareFetch); write into statements what they shall not have (Parse, RowVersioning,
// UpdatableCursors); or write what is asked, with its values, into files that everybody may read (CommLog, Debug).
constexpr Setting settings[] = {
    {"Protocol", "7.4-0"}, {"UseServerSidePrepare", "1"}, {"UseDeclareFetch", "0"}, {"LFConversion", "0"},
    {"TrueIsMinus1", "0"}, {"UpdatableCursors", "0"},     {"RowVersioning", "0"},   {"ShowOidColumn", "0"},
    {"Parse", "0"},        {"UnknownSizes", "0"},         {"ReadOnly", "0"},        {"CommLog", "0"},
    {"Debug", "0"},
};

// A server that does not answer any more is given up after some seconds. What the administrator says counts.
constexpr Setting clientSettings[] = {
    {"application_name", "qor"},  {"connect_timeout", "3"},  {"keepalives_idle", "5"},
    {"keepalives_interval", "2"}, {"keepalives_count", "2"}, {"tcp_user_timeout", "10000"},
};

struct Advice {
    const char* reason;  ///< a part of what the engine or its library says
    const char* advice;
};

constexpr const char* nameAuthority =
    ": name the file with the certificate of the authority that has signed the server's, in PEM: "
    "pqopt={sslrootcert=FILE}, PGSSLROOTCERT, or ~/.postgresql/root.crt";

// In their order; of a reason that says several things the first counts.
constexpr Advice advices[] = {
    {"certificate verify failed", nameAuthority},
    {"root certificate file", nameAuthority},
    {"does not match host name", ": Server has to be one of the names in the server's certificate"},
    {"server does not support SSL",
     ": switch it on there (ssl = on in postgresql.conf), or leave SSLmode out where nobody can listen"},
    {"no pg_hba.conf entry", ": the server's pg_hba.conf has to let this role in from here"},
    {"Peer authentication failed",
     ": over a socket the role has to bear the name of this program's user, or the server's pg_hba.conf to say "
     "scram-sha-256 for it"},
    {"no password supplied",
     ": put it into ~/.pgpass or the file that PGPASSFILE names (HOST:PORT:DATABASE:ROLE:PASSWORD, mode 0600), or "
     "behind "
     "PWD="},
    {"password authentication failed",
     ": PWD, or the line of ~/.pgpass or of the file that PGPASSFILE names, is wrong"},
    {"Connection refused", ": start the server, or correct Server and Port"},
};

// Rows that are asked for at once by whoever reads many.
constexpr const char* rowsAtOnce = "10000";

[[noreturn]] void refuse(const std::string& what) {
    throw AException("the connection string " + what);
}

// "A1=..." is Protocol, "CX=..." several at once: a letter and a digit, or these two.
bool isAbbreviation(std::string_view name) {
    if (name.size() != 2) return false;
    const char letter = static_cast<char>(name[0] | 0x20);
    return letter >= 'a' && letter <= 'd' && (isDigitChar(name[1]) || (letter == 'c' && (name[1] | 0x20) == 'x'));
}

void refuseAbbreviations(const OdbcConnectionString& string) {
    for (const std::string& name : string.names()) {
        if (isAbbreviation(name))
            refuse("abbreviates a setting of the driver as \"" + name + "\"; its full name says what is meant");
    }
}

}  // namespace

void settlePostgres(OdbcConnectionString& string) {
    refuseAbbreviations(string);
    for (const auto& [name, value] : settings) {
        if (string.has(name) && !isSameWord(string.get(name), value)) {
            refuse("says " + std::string(name) + "=" + string.get(name) + ", which has to be " + value);
        }
        string.set(name, value);
    }
    if (string.has("ConnSettings")) {
        refuse("says ConnSettings; what a session shall find set belongs to its role (ALTER ROLE ... SET ...)");
    }
    // The driver would talk in the clear even where the server can do better.
    string.setDefault("SSLmode", "prefer");
    std::string client;
    for (const auto& [name, value] : clientSettings)
        client += std::string(name) + "=" + value + " ";
    string.set("pqopt", "{" + client + string.get("pqopt") + "}");  // of two of a name the later one counts
}

std::string postgresStreaming(OdbcConnectionString string) {
    string.set("UseDeclareFetch", "1");
    string.set("Fetch", rowsAtOnce);
    return string.text();
}

// Statements here are quick or wait for whoever reads them: the engine would compile for longer than it gains.
std::string postgresScript(std::chrono::milliseconds patience) {
    return "SET standard_conforming_strings = on; SET bytea_output = 'hex'; SET IntervalStyle = 'postgres'; "
           "SET TimeZone = 'UTC'; SET client_min_messages = error; SET default_transaction_read_only = on; "
           "SET jit = off; "
           "SET lock_timeout = " +
           std::to_string(std::min<std::chrono::milliseconds::rep>(patience.count(), 1 << 30));
}

std::string postgresAdvice(const std::string& reason) {
    for (const auto& [part, advice] : advices) {
        if (reason.find(part) != std::string::npos) return advice;
    }
    return {};
}

}  // namespace QOR
