/// \file
/// Where the host keeps its things unless it is told otherwise. The agent and its clients use the same rules, so that
/// they meet without any option given.
#pragma once

#include <filesystem>
#include <string>

namespace QOR {

/// The folder of the running executable, symbolic links resolved.
std::filesystem::path executableDirectory();

/// The plug-ins that belong to the running executable: `lib/qor/plugins` beside its `bin`, in the build tree and in
/// an installed one alike. \returns the first candidate that exists, or the first candidate when none does
std::filesystem::path defaultPlugInDirectory();

/// The vocabulary that is shipped with the running executable: `share/qor/vocabulary.xml` beside its `bin`.
std::filesystem::path defaultVocabularyFile();

/// Where the database is kept: /var/lib/qor for root, else $XDG_STATE_HOME/qor or ~/.local/state/qor.
std::filesystem::path defaultStateDirectory();

/// The connection to a file of SQLite's: `Driver=SQLite3;Database=<file>`
std::string sqliteConnectionString(const std::filesystem::path& file);

/// What somebody means who names a database: an ODBC connection string, `name=value;...`, is taken as it stands,
/// anything else is the path of a file of SQLite's. "" stays "".
std::string connectionStringOf(const std::string& database);

/// The connection to `<state directory>/agent.db`.
std::string defaultConnectionString();

/// Where an agent of this user listens: /run/qor/agent.sock for root, else $XDG_RUNTIME_DIR/qor/agent.sock, or
/// agent.sock in the state directory when there is no runtime directory.
std::filesystem::path defaultSocketPath();

/// Where a client of this user looks: its own agent's socket when that exists, else the machine's agent's.
std::filesystem::path defaultClientSocketPath();

}  // namespace QOR
