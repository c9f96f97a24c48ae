/// \file
/// The parts of the benchmark of PostgreSQL and the logs that they read.
#pragma once

#include <cstddef>

#include "support/Figures.h"
#include "support/PostgresServer.h"

namespace QOR::bench {

using test::PostgresConnection;
using test::PostgresDatabase;
using test::PostgresServer;

/// A database of the host's own with operations, made by the engine itself.
class Log {
public:
    explicit Log(std::size_t size);
    std::size_t size() const noexcept { return m_size; }
    const PostgresDatabase& database() const noexcept { return m_database; }
    /// Makes it the process's database.
    void open() const;

private:
    PostgresDatabase m_database;
    std::size_t m_size;
};

void measurePages(Figures& figures, const Log& log);
void measureTotals(Figures& figures, const Log& small, const Log& large);
void measureStream(Figures& figures, const Log& log);
void measureIngest(Figures& figures);
void measureWriters(Figures& figures);

}  // namespace QOR::bench
