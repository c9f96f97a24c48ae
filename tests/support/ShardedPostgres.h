/// \file
/// A database whose records lie with several servers of a test program's own.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/PostgresServer.h"
#include "support/TestDatabase.h"

namespace QOR::test {

/// Servers "s1", "s2", ... are started once for a program; an object has a database of its own on each of them, and
/// home beside that of the first. It is set up as the product does it; a program does so once for objects that follow
/// one another, and each has copies of what was made then, under the same names. Servers that were stopped by one test
/// are those of the next one: see to it that they go on.
class ShardedPostgres : public TestPlace {
public:
    /// \param spread false: the databases are there and empty, for who sets them up
    explicit ShardedPostgres(unsigned servers = 3, bool spread = true);
    ~ShardedPostgres() override;
    ShardedPostgres(const ShardedPostgres&) = delete;
    ShardedPostgres& operator=(const ShardedPostgres&) = delete;

    /// Of home.
    std::string connectionString() const override;
    std::string conninfo() const override;
    unsigned size() const;

    /// Of the database of a server, counted from 1.
    std::string connectionString(unsigned number) const;
    std::string conninfo(unsigned number) const;
    static std::string nameOf(unsigned number) { return "s" + std::to_string(number); }
    /// What the product reads to know the servers: the first so many.
    std::string file(unsigned servers) const;
    /// The server itself, to crash, suspend and start; the first one has home too.
    static PostgresServer& server(unsigned number);

    /// Makes or completes the set-up, as `qorctl database shard` does with the first so many. \param split the server
    /// that gives to a new one; empty: the largest \throws what that throws; std::runtime_error with its faults
    void spread(unsigned servers, const std::string& split = {}) const;

private:
    class Places;

    std::shared_ptr<Places> m_places;
};

}  // namespace QOR::test
