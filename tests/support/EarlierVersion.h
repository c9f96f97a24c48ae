/// \file
/// Databases that earlier versions of the programs have written.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "support/PostgresServer.h"
#include "support/SqliteFile.h"
#include "support/TestDatabase.h"

namespace QOR::test {

/// \param project the project's folder
inline std::string fileOfVersion(int version, const std::string& project) {
    return project + "/tests/libs/QORDBSchema/data/" + (testEngine() == ASEngine::SQLite ? "sqlite" : "postgresql") +
           std::to_string(version) + ".sql";
}
inline bool isVersionWritten(int version, const std::string& project) {
    return std::filesystem::exists(fileOfVersion(version, project));
}

/// Fills an empty database of the tests' engine with what the programs of a version of the schema have written.
/// \throws std::runtime_error when there is nothing of that version
inline void fillWithVersion(const TestDatabase& database, int version, const std::string& project) {
    const std::string name = fileOfVersion(version, project);
    std::ifstream file(name);
    if (!file) throw std::runtime_error(name + " cannot be read: write_version.sh beside it makes it");
    const std::string statements{std::istreambuf_iterator<char>(file), {}};
    if (testEngine() == ASEngine::SQLite)
        SqliteFile(database.file()).run(statements);
    else
        PostgresConnection(database.conninfo()).run(statements);
}

}  // namespace QOR::test
