/// \file
/// QORCollectorSchedule: runs collectors beside the requests, each at its times.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "QORLibAgent/QORIdentities.h"
#include "ingest/QORCollectors.h"

namespace QOR {

/// A collector that is to run by itself.
struct QORCollectorWish {
    std::string name;                           ///< "all": every collector that no other wish names
    std::optional<std::chrono::seconds> every;  ///< between the beginnings of two runs; nothing: as the collector likes
};

/// \param text NAME or NAME=DURATION ("dpkg=5m"), at least a second \throws QORException errBadRequest that says what
/// is wrong; whether there is such a collector is not asked
QORCollectorWish readCollectorWish(const std::string& text);
/// \throws QORException errBadRequest for a name that none of QORCollectorRegistry has, with those that may have been
/// meant, or that two wishes have
void checkCollectorWishes(std::span<const QORCollectorWish> wishes);

/// How a collector does. Runs are counted since the start.
struct QORCollectorState {
    std::string name{};
    std::string source{};
    std::optional<std::chrono::seconds> every{};  ///< nothing: it runs when somebody asks for it
    std::optional<QORCollectOutcome> outcome{};  ///< of the last run, or Hung while one hangs; nothing before the first
    std::string text{};                          ///< why it failed or hangs
    std::int64_t time = 0;                       ///< when that was known, in seconds since the epoch
    double seconds = 0;                          ///< that the last run took
    std::uint64_t records = 0;                   ///< that it brought, those aside that were there already
    std::uint64_t allRecords = 0;                ///< that all runs brought
    std::array<std::uint64_t, collectOutcomeCount> runs{};  ///< by outcome; one that hung counts again when it ends
};

/// Each collector that is to run by itself runs at once, and then at its times. Every run has a thread of its own, so
/// that neither requests nor other collectors wait for one that reads from a dead mount: it hangs, nothing more is
/// taken from it, and it is left alone until it returns. The collectors are those that the registry has when the object
/// is made. QORRdbms must be open for as long as it lives. Thread-safe.
class QORCollectorSchedule {
public:
    /// \param root the folder that stands for "/"
    explicit QORCollectorSchedule(std::filesystem::path root);
    /// Waits for those that run, for as long as it takes: stop() tells whether it will.
    ~QORCollectorSchedule();
    QORCollectorSchedule(const QORCollectorSchedule&) = delete;
    QORCollectorSchedule& operator=(const QORCollectorSchedule&) = delete;

    /// From now on these run by themselves, and no others. \pre checkCollectorWishes()
    void keep(std::span<const QORCollectorWish> wishes);

    /// Runs all of them now, one after the other, and waits. One that runs already is waited for and run again; one
    /// that hangs is passed over, which the result says. After stop() the rest is left out, and who runs is waited for
    /// no longer than it did. \param scope as QORIngestOptions::scope; null: everything
    /// \throws what storing the records throws; QORException errDeadline when the calling thread's request ends
    QORCollectResult collectNow(const QORIngestOptions& ingest, const std::shared_ptr<const QORWriteScope>& scope);

    std::vector<QORCollectorState> states() const;

    /// Asks those that run to end, and begins no more. Those that have not ended in that time hang. Called by one
    /// thread at a time. \returns whether all have ended
    bool stop(std::chrono::milliseconds patience);

private:
    class Work;
    std::unique_ptr<Work> m_work;
};

}  // namespace QOR
