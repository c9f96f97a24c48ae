// Makes the files that the servers of test programs begin with, unless they are there already and as they would be
// made: a server's own take most of a second, and the host's tables a third of one.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "QORDBSchema/QORDBSchema.h"
#include "support/PostgresServer.h"

namespace {

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

int main(int count, char** arguments) {
    namespace fs = std::filesystem;
    if (count != 2) return 2;
    try {
        const fs::path folder = arguments[1];
        const fs::path made = folder.string() + ".made";
        std::string with;
        for (const std::string& statement : QOR::QORDBSchema::postgresStatements())
            with += statement + ";\n";
        if (fs::exists(folder) && contentOf(made) == with &&
            fs::last_write_time(made) > fs::last_write_time(arguments[0]))
            return 0;
        fs::remove(made);
        fs::remove_all(folder);
        QOR::test::PostgresServer server;
        server.databaseWithTables();
        server.endAndKeepFiles(folder.string());
        std::ofstream(made, std::ios::binary) << with;
        return 0;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << "\neach server makes its own\n";
        return 0;
    }
}
