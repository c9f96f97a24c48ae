#include "shard/ShardFile.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "rdbmspp/engine/OdbcConnectionString.h"

namespace QOR {
namespace {

constexpr std::string_view blanks = " \t\r";
constexpr std::size_t longestName = 32;

/// What is wrong with a line.
class LinePlace {
public:
    LinePlace(std::string file, std::size_t line) : m_file(std::move(file)), m_line(line) {}
    [[noreturn]] void refuse(const std::string& why) const {
        throw QORException(errFailure, m_file + ", line " + std::to_string(m_line) + ": " + why, QOR_SOURCE_PATH,
                           __LINE__);
    }

private:
    std::string m_file;
    std::size_t m_line;
};

bool isSmall(char c) {
    return c >= 'a' && c <= 'z';
}

// It becomes a part of the names of schemas, those of the second kind of which end in _long.
void checkName(const std::string& name, const LinePlace& place) {
    const bool plain = !name.empty() && isSmall(name.front()) && std::all_of(name.begin(), name.end(), [](char c) {
        return isSmall(c) || (c >= '0' && c <= '9') || c == '_';
    });
    if (!plain || name.size() > longestName || name.ends_with("_long"))
        place.refuse("the name " + quoteText(name) +
                     " has to be of small letters, digits and _, to begin with a letter, " +
                     "to have at most 32 of them and not to end in _long");
}

ShardServer readLine(std::string_view line, const LinePlace& place) {
    const std::size_t end = std::min(line.find_first_of(blanks), line.size());
    ShardServer server;
    server.name = line.substr(0, end);
    checkName(server.name, place);
    OdbcConnectionString connection(line.substr(end));
    server.reader = connection.take("Reader", "");
    server.readerPassword = connection.take("ReaderPWD", "");
    if (connection.names().empty()) place.refuse("a connection string is missing behind " + quoteText(server.name));
    for (const char* const needed : {"Server", "Database"}) {
        if (connection.get(needed).empty())
            place.refuse("the connection string of " + quoteText(server.name) + " does not say " + needed + "=");
    }
    const bool forLibrary = connection.get("pqopt").find("password") != std::string::npos;
    if (connection.has("PWD") || connection.has("Password") || forLibrary)
        place.refuse("the connection string of " + quoteText(server.name) +
                     " has a password: it would be stored in a table. Leave it out where it is that of the first "
                     "database, or put it into the file that PGPASSFILE names");
    server.connection = connection.text();
    return server;
}

}  // namespace

std::vector<ShardServer> parseShardFile(std::string_view text, const std::string& file) {
    std::vector<ShardServer> servers;
    std::size_t number = 0;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view whole = text.substr(at, end - at);
        at = end + 1;
        const LinePlace place(file, ++number);
        const std::size_t from = whole.find_first_not_of(blanks);
        if (from == std::string_view::npos || whole[from] == '#') continue;
        ShardServer server = readLine(whole.substr(from, whole.find_last_not_of(blanks) - from + 1), place);
        for (const ShardServer& other : servers) {
            if (other.name == server.name) place.refuse("the name " + quoteText(server.name) + " stands there twice");
            if (other.connection == server.connection)
                place.refuse(quoteText(server.name) + " is the same database as " + quoteText(other.name));
        }
        servers.push_back(std::move(server));
    }
    if (servers.empty()) throw QORException(errFailure, file + " names no server", QOR_SOURCE_PATH, __LINE__);
    return servers;
}

std::vector<ShardServer> readShardFile(const std::string& file) {
    std::ifstream input(file, std::ios::binary);
    if (!input) throw QORException(errFailure, "cannot read " + quoteText(file, 1024), QOR_SOURCE_PATH, __LINE__);
    return parseShardFile(std::string(std::istreambuf_iterator<char>(input), {}), file);
}

}  // namespace QOR
