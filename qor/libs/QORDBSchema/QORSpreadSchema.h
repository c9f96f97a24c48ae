/// \file
/// What a database needs to answer for records that lie with several servers: foreign tables, and views over them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

class ASSession;

/// A table whose records are spread.
struct QORSpreadTable {
    const char* name;
    const char* key;  ///< the environment that decides where a record lies
};

/// Those that others refer to before the others.
QOR_API std::span<const QORSpreadTable> spreadTables() noexcept;

/// A server, as home's table qor_server has it.
struct QORSpreadServer {
    std::string name;
    int number = 0;          ///< from 1
    std::string connection;  ///< ODBC's, without a password; without UID where that is home's
    std::string schema;      ///< where its tables are
    std::int64_t modulus = 1;
    std::int64_t remainder = 0;
};

/// By their numbers; none for a database that holds its records itself, or is older than this. \throws AException
QOR_API std::vector<QORSpreadServer> readSpreadServers(ASSession& home);

/// The statements that remakeSpread() runs for such servers, the first of which remove what is there.
QOR_API std::vector<std::string> spreadStatements(ASSession& home, const std::vector<QORSpreadServer>& servers);

/// Makes anew, from what home's tables and views now are and within the caller's transaction for writing: the schema
/// `qor_all` with the tables and views of all servers together, `qor_at_NAME` with those of one, both again as
/// `..._long` for who reads a great deal at once, and triggers by which home's own tables refuse records. They need the
/// engine's servers `qor_NAME` and `qor_NAME_long`. Readers of what was there before are waited for. The session's
/// first schema is home's. \throws AException
QOR_API void remakeSpread(ASSession& home);

}  // namespace QOR
