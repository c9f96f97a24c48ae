/// \file
/// QORPlacement: which server of several keeps an environment's records.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"

namespace QOR {

/// A database that keeps the records of some environments: those whose hash leaves this remainder.
struct QORServer {
    std::string name;
    int number = 0;          ///< from 1 on, never given out twice
    std::string connection;  ///< ODBC's string
    std::uint64_t modulus = 1;
    std::uint64_t remainder = 0;

    friend bool operator==(const QORServer&, const QORServer&) = default;
};

/// A division of all environments among servers, at one time. A value; without servers everything is in the process's
/// own database.
class QOR_API QORPlacement {
public:
    QORPlacement() = default;
    /// \param epoch grows with each change of the division
    /// \throws QORException 1 unless each environment has exactly one server
    QORPlacement(std::int64_t epoch, std::vector<QORServer> servers);

    /// That of a database which may have servers, but does not let its role read which.
    static QORPlacement hidden() {
        QORPlacement placement;
        placement.m_hidden = true;
        return placement;
    }

    bool none() const noexcept { return m_servers.empty(); }
    /// There are none to be known of, which is not to say that there are none.
    bool isHidden() const noexcept { return m_hidden; }
    std::int64_t epoch() const noexcept { return m_epoch; }
    /// By their numbers.
    const std::vector<QORServer>& servers() const noexcept { return m_servers; }
    /// Null when there is none of the name.
    const QORServer* find(std::string_view name) const noexcept;
    /// Whose the environment's records are; the invalid identifier stands for records without one. Not of a placement
    /// without servers.
    const QORServer& of(const QOREID& eid) const { return m_servers[m_byRemainder[hash(eid) % m_byRemainder.size()]]; }

    /// What the engine divides by when a table is partitioned by the hash of a uuid.
    static std::uint64_t hash(const QOREID& eid) noexcept;
    /// The engine's seed for that, and what it adds to the hash of a table's only column.
    static constexpr std::uint64_t seedOfPartitions = 0x7A5B22367996DCFD;
    static constexpr std::uint64_t combining = 0x49a0f4dd15e5a8e3;

private:
    std::int64_t m_epoch = 0;
    bool m_hidden = false;
    std::vector<QORServer> m_servers;
    std::vector<std::uint32_t> m_byRemainder;  ///< of the largest modulus: indexes of servers
};

}  // namespace QOR
