#include "support/ShardedPostgres.h"

#include <stdexcept>
#include <utility>

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

/// Databases on each of the servers, and home. They go with the object, or if they are kept, with the servers.
class ShardedPostgres::Places {
public:
    explicit Places(unsigned servers) : home(server(1).createDatabase()) {
        for (unsigned number = 1; number <= servers; ++number)
            names.push_back(server(number).createDatabase());
    }
    ~Places() {
        if (!m_kept.empty()) return;
        try {
            drop();
        } catch (const std::exception&) {
            // They go with the servers.
        }
    }
    Places(const Places&) = delete;
    Places& operator=(const Places&) = delete;

    void drop() const {
        server(1).dropDatabase(home);
        for (unsigned number = 1; number <= names.size(); ++number)
            server(number).dropDatabase(names[number - 1]);
    }
    /// What they hold now is what takeBack() will bring.
    void keep() {
        m_keptHome = server(1).createDatabase(home);
        for (unsigned number = 1; number <= names.size(); ++number)
            m_kept.push_back(server(number).createDatabase(names[number - 1]));
    }
    void takeBack() const {
        server(1).copyDatabase(m_keptHome, home);
        for (unsigned number = 1; number <= names.size(); ++number)
            server(number).copyDatabase(m_kept[number - 1], names[number - 1]);
    }

    std::string home;
    std::vector<std::string> names;

private:
    std::string m_keptHome;
    std::vector<std::string> m_kept;
};

ShardedPostgres::ShardedPostgres(unsigned servers, bool spread) {
    if (!spread) {
        m_places = std::make_shared<Places>(servers);
        return;
    }
    // Those that no other object has. They outlive it, and the servers outlive them.
    server(servers);
    static std::vector<std::shared_ptr<Places>> all;
    for (auto& places : all) {
        if (places.use_count() != 1 || places->names.size() != servers) continue;
        m_places = std::exchange(places, all.back());
        all.pop_back();
        m_places->takeBack();
        all.push_back(m_places);
        return;
    }
    m_places = std::make_shared<Places>(servers);
    this->spread(servers);
    m_places->keep();
    all.push_back(m_places);
}

ShardedPostgres::~ShardedPostgres() = default;

unsigned ShardedPostgres::size() const {
    return static_cast<unsigned>(m_places->names.size());
}

std::string ShardedPostgres::connectionString() const {
    return server(1).connectionString(m_places->home);
}

std::string ShardedPostgres::conninfo() const {
    return server(1).conninfo(m_places->home);
}

std::string ShardedPostgres::connectionString(unsigned number) const {
    return server(number).connectionString(m_places->names.at(number - 1));
}

std::string ShardedPostgres::conninfo(unsigned number) const {
    return server(number).conninfo(m_places->names.at(number - 1));
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
