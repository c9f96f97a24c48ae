/// \file
/// The file that names the servers over which records are to be spread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace QOR {

/// A server as the file names it.
struct ShardServer {
    std::string name;
    std::string connection;      ///< ODBC's, without a password; what it does not say is as home's
    std::string reader;          ///< the role by which home reads; empty: the one of the connection
    std::string readerPassword;  ///< empty: none is needed
};

/// Reads a line a server, `NAME CONNECTION`; empty lines and those that begin with # are none. Behind Reader= and
/// ReaderPWD= of the connection string are the reader's. \throws QORException 1 naming the line
std::vector<ShardServer> parseShardFile(std::string_view text, const std::string& file);

/// \throws QORException 1 for a file that cannot be read, or as parseShardFile()
std::vector<ShardServer> readShardFile(const std::string& file);

}  // namespace QOR
