/// \file
/// Agents and databases that somebody works with, by names of his own: the file ~/.config/qor/config.toml.
#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace QOR {

/// Where one asks, and how one shows who one is. What is empty is not set.
struct Context {
    std::string agent{};        ///< an address, or the path of a unix socket
    std::string database{};     ///< asked without an agent: SQLite's file, or an ODBC connection string
    std::string token{};        ///< itself
    std::string tokenFile{};    ///< or the file that holds it
    std::string ca{};           ///< file of the certificates that are believed
    std::string certificate{};  ///< file of the one that shows who one is
    std::string key{};          ///< file of its key
};

struct Contexts {
    std::string current{};  ///< empty: none
    std::map<std::string, Context> all{};

    /// \throws CtlError BadUsage that names those that there are
    const Context& find(const std::string& name) const;
};

/// $XDG_CONFIG_HOME/qor/config.toml, or else ~/.config/qor/config.toml; empty for who has no home.
std::filesystem::path contextsFile();

/// A file that there is not holds none. \throws CtlError BadUsage naming line, column and the nearest known key of what
/// cannot be read, and for one that holds a token and that others may read
Contexts readContexts();

/// Writes the file anew, readable by its owner alone, whole or not at all. Comments in it are lost.
/// \throws CtlError AnsweredError when it cannot be written
void writeContexts(const Contexts& contexts);

}  // namespace QOR
