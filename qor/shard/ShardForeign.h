/// \file
/// The engine's own servers, by which home reads what lies elsewhere.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "shard/ShardFile.h"

namespace QOR {

class ASSession;

/// Who home is at a server when it reads there.
struct ShardReader {
    std::string role;
    std::string password;  ///< empty: none is needed
};

/// A server of the engine's own, at home.
struct ShardForeign {
    using Options = std::vector<std::pair<std::string, std::string>>;

    std::string name;
    Options way;  ///< how it is reached, and read
    Options who;  ///< the reader

    /// Makes it anew. What depends on one that is there goes with that.
    std::vector<std::string> statements() const;
    /// Whether there is such a one. What a superuser has said besides of who reads may stay. \throws AException
    bool isThere(ASSession& home) const;
};

/// The two of a server: `qor_NAME` for pages, `qor_NAME_long` for who reads a great deal. \param connection the
/// server's, complete \throws QORException 1 for a connection string that the engine's servers have no word for
std::vector<ShardForeign> foreignServers(const std::string& name, const std::string& connection,
                                         const ShardReader& reader);

/// The statements that allow a role to read the records of a server, for the owner of its tables.
std::vector<std::string> readerGrants(const std::string& schema, const std::string& role);

}  // namespace QOR
