/// \file
/// ASFaults: what is wrong with the database now, for logs and health.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

class AException;
struct SqliteComplaint;

/// What can be wrong, each until something of its kind succeeds.
enum class ASFault {
    Full,             ///< there is no space for records
    Locked,           ///< another program has kept the write lock
    Synchronisation,  ///< what was written may not have reached the disk; no records are taken
    Writing,          ///< another failure to write
    Reading,          ///< the file cannot be read
    Corrupt,          ///< what is in the file makes no sense
    Missing,          ///< the file is gone, or another one has its name
};

/// The faults of a database; instance() has those of the process's own. The first failure of a kind is logged at level
/// 0, those after it are counted; what changes and ends is logged again. Thread-safe; nobody waits for a log line or
/// the database here.
class QOR_API ASFaults {
public:
    static ASFaults& instance();

    /// One that lasts.
    struct State {
        ASFault fault;
        const char* name;    ///< "full", "locked", ...
        std::string reason;  ///< of the last failure
        std::uint64_t count = 0;
    };

    void report(ASFault fault, const std::string& reason) noexcept;
    /// What a failure of the database tells; nothing where it is the statement that failed.
    /// \param reading it happened to a connection that never writes
    void report(const AException& failure, const SqliteComplaint& complaint, bool reading) noexcept;
    /// A transaction that wrote was committed and reached the disk. That the file is there, or makes sense in other
    /// places than those that were touched, it does not prove.
    void wrote() noexcept;
    /// The engine has looked at the whole file and found nothing wrong in it.
    void sound() noexcept;
    /// A statement was run.
    void read() noexcept;
    /// The file is there, and is the one that it was.
    void found() noexcept;
    /// Another database is in use: its predecessor's faults are no longer of interest. \param database how people know
    /// it where there are several, empty for the only one
    void forget(const std::string& database = {}) noexcept;

    /// In the order of ASFault; empty when all is well.
    std::vector<State> current() const;
    /// The reasons, one behind the other; empty when all is well.
    std::string text() const;

private:
    struct Entry {
        std::string reason;
        std::uint64_t count = 0;  ///< 0: it does not last
        std::chrono::steady_clock::time_point logged{};
    };
    static constexpr std::size_t kinds = 7;

    void end(ASFault first, ASFault last) noexcept;
    bool any() const noexcept { return m_any.load(std::memory_order_relaxed); }

    mutable std::mutex m_mutex;
    std::array<Entry, kinds> m_entries;  // guarded by m_mutex
    std::string m_database;              // guarded by m_mutex
    std::atomic<bool> m_any{false};
};

}  // namespace QOR
