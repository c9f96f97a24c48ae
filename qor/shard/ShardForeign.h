/// \file
/// The engine's own servers, by which home reads what lies elsewhere.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "shard/ShardFile.h"

namespace QOR {

/// Who home is at a server when it reads there.
struct ShardReader {
    std::string role;
    std::string password;  ///< empty: none is needed
};

/// Statements that make anew, at home, the two of a server: `qor_NAME` for pages, `qor_NAME_long` for who reads a great
/// deal. What depends on those that are there goes with them. \param connection the server's, complete
/// \throws QORException 1 for a connection string that the engine's servers have no word for
std::vector<std::string> foreignServerStatements(const std::string& name, const std::string& connection,
                                                 const ShardReader& reader);

/// The statements that allow a role to read the records of a server, for the owner of its tables.
std::vector<std::string> readerGrants(const std::string& schema, const std::string& role);

}  // namespace QOR
