/// \file
/// Looking after the host's database: finding and mending what is wrong in it, removing what is old, giving space back.
/// Each call is a part of the work, in transactions of its own, so that clients are served beside it and whoever asks
/// may stop in between. Where servers keep the records, it is done at each of them, and what is said of one names it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace QOR {

/// Something that is wrong, in words.
struct QORCheckFinding {
    std::string text;
    bool mended = false;
};

/// What can be looked at, in the order in which it should be.
const std::vector<std::string>& checkParts();

/// Looks at one part of the database. A server that cannot be reached is a finding. \param mend also mend what can be
/// mended
/// \throws QORException 400 for a part that there is not, or a database that is not the host's; AException
std::vector<QORCheckFinding> checkDatabase(std::string_view part, bool mend);

struct QORPruneStep {
    std::uint64_t done = 0;  ///< records removed, or bytes given back
    bool more = false;       ///< there is more to do: ask again
    /// Told with the last step: records that are as old, and wait for being sent on.
    std::uint64_t waiting = 0;
};

/// Records that have not been sent to where an agent sends them (see qor_forward_target) stay, and with them those of
/// their log that came later, until the database uses more bytes than that agent was told; then the oldest go all the
/// same, which the log says. An address to which nobody has sent for so long is not waited for any more.
inline constexpr std::chrono::days waitingForSenders(30);

/// What can be pruned: "operations", "events", "backups"; "space": what records have left is given back to the file
/// system; "compact": the file is written anew, so that all space can be given back, now and later.
const std::vector<std::string>& pruneKinds();

/// Removes some of the records that are older, by their time, the oldest first, or gives some space back. Of several
/// servers one after the other is done; one that cannot be reached is an AException when nothing is left to do
/// elsewhere. \param before seconds since the epoch; of no meaning for space \throws QORException 400 for a kind that
/// there is not, or a database that is not the host's; AException
/// \param unsent also what waits for being sent on
QORPruneStep pruneDatabase(std::string_view kind, std::int64_t before, bool unsent = false);

/// What the logs may hold; backups are records of things that exist elsewhere, and stay.
struct QORRetentionOptions {
    std::optional<std::int64_t> seconds;   ///< the age of the oldest record
    std::optional<std::uint64_t> records;  ///< of each of the two logs
    std::optional<std::uint64_t> bytes;    ///< that the whole database uses

    bool any() const noexcept { return seconds || records || bytes; }
    bool operator==(const QORRetentionOptions& other) const = default;
};

/// Removes the oldest operations and events until the logs hold no more than they may, and gives their space back.
/// \throws AException
void pruneLogs(const QORRetentionOptions& options, const std::stop_token& stop);

/// Prunes the logs at once and then every minute, for as long as it lives; where they may hold everything, it only
/// looks after the sequence of changed records, every hour. Does nothing to a database that is only read. What fails is
/// logged, and tried again.
class QORRetention {
public:
    explicit QORRetention(const QORRetentionOptions& options);
    ~QORRetention();
    QORRetention(const QORRetention&) = delete;
    QORRetention& operator=(const QORRetention&) = delete;

    /// The logs may hold so much from now on. What is being removed for what held before ends first, without being
    /// waited for. Any thread.
    void keep(const QORRetentionOptions& options);

private:
    class Work;

    std::unique_ptr<Work> m_work;
    std::jthread m_thread;
};

/// Bytes in the file that hold nothing and cannot be given back: other records will use them. Of a database that was
/// made before version 5 of the schema, until it is compacted.
std::uint64_t strandedBytes();

}  // namespace QOR
