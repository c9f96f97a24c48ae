#include "shard/ShardForeign.h"

#include <algorithm>
#include <array>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORDBSchema/QORSchemaRows.h"
#include "QORDBSchema/QORSpreadSchema.h"
#include "rdbmspp/engine/OdbcConnectionString.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

using Options = ShardForeign::Options;

struct Word {
    const char* odbc;
    const char* engine;
};

constexpr std::array words{
    Word{"Server", "host"},
    Word{"Port", "port"},
    Word{"Database", "dbname"},
    Word{"SSLmode", "sslmode"},
};

// A server that does not answer any more is given up after some seconds, also in the middle of an answer.
constexpr std::array patience{
    std::pair{"connect_timeout", "2"},     std::pair{"keepalives", "1"},       std::pair{"keepalives_idle", "5"},
    std::pair{"keepalives_interval", "2"}, std::pair{"keepalives_count", "2"}, std::pair{"tcp_user_timeout", "10000"},
};

// Nothing is written by this way, whatever the reader's role might do.
constexpr const char* readOnly = "-c default_transaction_read_only=on";
// The other side does not hear of a page's limit: told that only the first rows are wanted, it does not sort all.
constexpr const char* firstRows = " -c cursor_tuple_fraction=0.0001";

void set(Options& options, const std::string& name, const std::string& value) {
    std::erase_if(options, [&](const auto& option) { return option.first == name; });
    options.emplace_back(name, value);
}

/// `name=value name='a value'`, as the engine's library reads it.
void addLibraryOptions(Options& options, const std::string& text) {
    std::size_t at = 0;
    while ((at = text.find_first_not_of(' ', at)) != std::string::npos) {
        const std::size_t equals = text.find('=', at);
        if (equals == std::string::npos)
            throw QORException(errFailure,
                               "pqopt={" + text + "}: a value is missing behind " + quoteText(text.substr(at)),
                               QOR_SOURCE_PATH, __LINE__);
        const std::string name = text.substr(at, equals - at);
        std::string value;
        const bool quoted = text[equals + 1 < text.size() ? equals + 1 : equals] == '\'';
        std::size_t end = equals + (quoted ? 2 : 1);
        for (; end < text.size() && text[end] != (quoted ? '\'' : ' '); ++end) {
            if (text[end] == '\\' && end + 1 < text.size()) ++end;
            value += text[end];
        }
        at = std::min(end + 1, text.size());
        // These are said below, or are the session's and not the way's.
        if (name != "options" && name != "application_name" && name != "fallback_application_name")
            set(options, name, value);
    }
}

Options wayTo(const std::string& connection) {
    const OdbcConnectionString parts(connection);
    Options options;
    for (const Word& word : words) {
        if (parts.has(word.odbc)) options.emplace_back(word.engine, parts.get(word.odbc));
    }
    if (!parts.has("SSLmode")) options.emplace_back("sslmode", "prefer");
    for (const auto& [name, value] : patience)
        options.emplace_back(name, value);
    addLibraryOptions(options, parts.get("pqopt"));
    return options;
}

std::string optionList(const Options& options) {
    std::string list;
    for (const auto& [name, value] : options)
        list += (list.empty() ? "" : ", ") + name + ' ' + ASSession::quoteLiteral(value);
    return " OPTIONS (" + list + ")";
}

/// As the engine keeps them.
std::string lines(const Options& options) {
    std::string text;
    for (const auto& [name, value] : options)
        text.append(text.empty() ? "" : "\n").append(name).append("=").append(value);
    return text;
}

}  // namespace

std::vector<ShardForeign> foreignServers(const std::string& name, const std::string& connection,
                                         const ShardReader& reader) {
    std::vector<ShardForeign> servers;
    for (const bool isLong : {false, true}) {
        ShardForeign server{"qor_" + name + (isLong ? "_long" : ""), wayTo(connection), {{"user", reader.role}}};
        set(server.way, "application_name", server.name);
        set(server.way, "options", std::string(readOnly) + (isLong ? "" : firstRows));
        set(server.way, "fetch_size", isLong ? "10000" : "100");
        set(server.way, "async_capable", "true");
        if (!reader.password.empty()) server.who.emplace_back("password", reader.password);
        servers.push_back(std::move(server));
    }
    return servers;
}

std::vector<std::string> ShardForeign::statements() const {
    return {"DROP SERVER IF EXISTS " + name + " CASCADE",
            "CREATE SERVER " + name + " FOREIGN DATA WRAPPER postgres_fdw" + optionList(way),
            "CREATE USER MAPPING FOR PUBLIC SERVER " + name + optionList(who)};
}

bool ShardForeign::isThere(ASSession& home) const {
    const std::string named = " WHERE srvname = " + ASSession::quoteLiteral(name);
    return readCell(home, "SELECT array_to_string(srvoptions, chr(10)) FROM pg_foreign_server" + named) == lines(way) &&
           readCell(home,
                    "SELECT array_to_string(array_remove(umoptions, 'password_required=false'), chr(10)) FROM "
                    "pg_user_mappings" +
                        named + " AND umuser = 0") == lines(who);
}

std::vector<std::string> readerGrants(const std::string& schema, const std::string& role) {
    const std::string in = ASSession::quoteIdentifier(schema);
    const std::string to = " TO " + ASSession::quoteIdentifier(role);
    std::vector<std::string> statements{"GRANT USAGE ON SCHEMA " + in + to};
    for (const QORSpreadTable& table : spreadTables())
        statements.emplace_back("GRANT SELECT ON ").append(in).append(".").append(table.name).append(to);
    return statements;
}

}  // namespace QOR
