/// \file
/// QORForwarder: sends what an agent stores on to another agent.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QORLibAgent/QORRecordChanges.h"
#include "forward/ForwardConnection.h"

namespace QOR {

class QORChangeWatch;

struct QORForwardOptions {
    QORForwardTarget target{};
    /// The longest pause between two attempts that nobody has asked for.
    std::chrono::milliseconds longestPause = std::chrono::seconds(60);
    /// Bytes that the database may use before records go that were not sent.
    std::uint64_t keep = std::uint64_t{1} << 30;
};

/// How it goes.
struct QORForwardState {
    std::string target{};
    std::uint64_t behind = 0;  ///< changes that have not been taken yet
    /// Databases that could not be asked how many they are when that was looked at last, by the names of their servers,
    /// "" for the process's own: of these it is what was known before.
    std::vector<std::string> away{};
    std::int64_t seconds = 0;   ///< since everything had been; 0 while everything has been
    std::uint64_t taken = 0;    ///< records, since the start
    std::uint64_t refused = 0;  ///< records that the other agent does not want, as long as they are remembered
    /// Of those, since the start, how many are not remembered any more, and so not offered again: there were too many.
    std::uint64_t forgotten = 0;
    std::uint64_t missing = 0;   ///< changes that were removed here before they could be sent, since the start
    std::uint64_t failures = 0;  ///< attempts that have failed, since the start
    std::optional<std::int64_t> lastSuccess{};  ///< seconds since the epoch; nothing since the start
    std::optional<std::int64_t> lastFailure{};  ///< likewise
    std::string failure{};                      ///< why it does not go on now; empty where it does
    std::string lastError{};                    ///< the last failure's reason
};

/// Records of all kinds leave in the order of their changes, as they are by then; a record that is changed leaves
/// again. How far that has gone is kept in the process's own database, for each target, and moves when the target has
/// stored what it was sent: so everything arrives, perhaps more than once, which the target notices. What the target
/// refuses is noted and passed over, and offered again at the next start and once an hour. Removals are not sent.
///
/// Where nobody answers, or nothing is taken, the same is tried again, after pauses that grow. Thread-safe.
class QORForwarder {
public:
    /// Reads how far it went before; the process's database must be open for writing. \throws AException; QORException
    /// for a file of the token or of certificates that cannot be read
    explicit QORForwarder(QORForwardOptions options);
    ~QORForwarder();
    QORForwarder(const QORForwarder&) = delete;
    QORForwarder& operator=(const QORForwarder&) = delete;

    /// Begins. \param changes tells when there is something new, and outlives what follows up to stop()
    void start(QORChangeWatch& changes);
    /// Ends a request that is under way. The destructor does it too.
    void stop();

    /// As it was when it was looked at last: before each attempt, and by look().
    QORForwardState state() const;
    /// Finds out how far behind it is now. Any thread. \throws nothing for databases that are away
    void look();

private:
    class Run;
    std::unique_ptr<Run> m_run;
};

}  // namespace QOR
