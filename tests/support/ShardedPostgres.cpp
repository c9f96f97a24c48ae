#include "support/ShardedPostgres.h"

#include <stdexcept>

#include "shard/QORShard.h"

namespace QOR::test {
namespace {

const bool isRegistered = [] {
    TestDatabase::makerOfServers() = [] { return std::make_unique<ShardedPostgres>(); };
    return true;
}();

}  // namespace

PostgresServer& ShardedPostgres::server(unsigned number) {
    if (number == 1) return PostgresServer::shared();
    static std::vector<std::unique_ptr<PostgresServer>> others;
    while (others.size() + 2 <= number)
        others.push_back(std::make_unique<PostgresServer>());
    return *others.at(number - 2);
}

ShardedPostgres::ShardedPostgres(unsigned servers, bool spread) : m_home(server(1).createDatabase()) {
    for (unsigned number = 1; number <= servers; ++number)
        m_names.push_back(server(number).createDatabase());
    if (spread) this->spread(servers);
}

ShardedPostgres::~ShardedPostgres() {
    try {
        server(1).dropDatabase(m_home);
        for (unsigned number = 1; number <= size(); ++number)
            server(number).dropDatabase(m_names[number - 1]);
    } catch (const std::exception&) {
        // They go with the servers.
    }
}

std::string ShardedPostgres::connectionString() const {
    return server(1).connectionString(m_home);
}

std::string ShardedPostgres::conninfo() const {
    return server(1).conninfo(m_home);
}

std::string ShardedPostgres::connectionString(unsigned number) const {
    return server(number).connectionString(m_names.at(number - 1));
}

std::string ShardedPostgres::conninfo(unsigned number) const {
    return server(number).conninfo(m_names.at(number - 1));
}

std::string ShardedPostgres::file(unsigned servers) const {
    std::string text;
    for (unsigned number = 1; number <= servers; ++number)
        text += nameOf(number) + ' ' + connectionString(number) + '\n';
    return text;
}

void ShardedPostgres::spread(unsigned servers, const std::string& split) const {
    QORShard shard({.home = connectionString(), .servers = parseShardFile(file(servers), "servers"), .split = split});
    const QORShardReport report = shard.run();
    std::string faults;
    for (const std::string& fault : report.faults)
        faults += fault + '\n';
    if (!faults.empty()) throw std::runtime_error(faults);
}

}  // namespace QOR::test
