/// \file
/// QORIngest: brings records into the host's database, in durable batches.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "ingest/QORRecords.h"

namespace QOR {

class ASSession;
struct QORWriteScope;

struct QORIngestOptions {
    std::size_t batchRecords = 1000;              ///< records in one transaction, at least 1
    std::size_t batchBytes = 8 * 1024 * 1024;     ///< of lines in one transaction, which bounds the memory it takes
    std::size_t maxLineBytes = 16 * 1024 * 1024;  ///< a longer line is refused
    std::size_t refusedKept = 1000;               ///< refused lines that the result names; all are counted
    std::uint64_t refusedInARow = 100'000;        ///< after so many the rest is not read: these are no records
    /// About which environments the sender may store records, who outlives the run; null: about all. Of a request in
    /// which one record is about another nothing is stored \throws QORException errForbidden that names it
    const QORWriteScope* scope = nullptr;
    /// The identity that brings the records, which each of them is stored with; nothing for who needs none.
    std::optional<std::string> reporter{};
};

/// What became of the records of one kind.
struct QORIngestCounts {
    std::uint64_t added = 0;
    std::uint64_t replaced = 0;   ///< took the place of the record with the same identifier
    std::uint64_t unchanged = 0;  ///< was there already: events with identifiers, and by store() with keepEqual others
};

void addCounts(QORIngestCounts& to, const QORIngestCounts& more);

struct QORRefusedLine {
    std::uint64_t line = 0;
    std::string reason;
};

/// Why the reading ended early: a batch that the database did not take, or lines that are no records. What went before
/// is stored; it, and everything after it, is not.
struct QORIngestFailure {
    std::uint64_t firstLine = 0;
    std::uint64_t lastLine = 0;  ///< of the batch; later lines have not been read
    std::string reason;          ///< the database's text, or ours
};

/// What has been done so far: counts hold only what is durable.
struct QORIngestResult {
    std::uint64_t lastLine = 0;  ///< number of the last line read
    std::array<QORIngestCounts, recordKindCount> counts;
    std::uint64_t refused = 0;
    std::vector<QORRefusedLine> refusedLines;  ///< the first QORIngestOptions::refusedKept
    bool stopped = false;                      ///< by the stop token, before the end
    std::optional<QORIngestFailure> failure;

    const QORIngestCounts& of(QORRecordKind kind) const { return counts[static_cast<std::size_t>(kind)]; }
    QORIngestCounts total() const;
    /// Records that are stored: added, replaced or unchanged.
    std::uint64_t accepted() const;
    /// Adds what another run did; of two failures the first stays.
    void merge(const QORIngestResult& other);
};

/// The code of the exception for a key that belongs to a request with another content.
inline constexpr int errOtherContent = 422;
/// The code of the exception for a key whose request is being worked on.
inline constexpr int errSameRequest = 409;

/// A request that may be sent again: under the same key it is stored once.
struct QORIngestRequest {
    /// \param key 1 to 255 visible characters of ASCII, chosen by the client
    /// \param owner whose keys are not others'; empty for those of full access
    /// \param lines what it brings, the first of which has this number
    /// \throws QORException 400 for another key
    QORIngestRequest(std::string_view key, std::string_view lines, std::uint64_t firstLine,
                     std::string_view owner = {});

    std::string key;
    std::string digest;
};

/// Called after each batch.
using QORIngestProgress = std::function<void(const QORIngestResult&)>;

/// What else is stored with records, in the given transaction, which may have to be run again.
using QORStoredBeside = std::function<void(ASSession& session)>;

/// Writes through QORRdbms, whose database must be open for writing. An object is used by one thread at a time;
/// several objects may write at once, the database makes them take turns.
///
/// A bad line is counted, named and passed over. Blank lines are passed over. A batch is one transaction: it is stored
/// whole and durably, or not at all; the first batch that the database refuses (locked, full) ends the run, and so do
/// refusedInARow bad lines without a good one between them. Only
/// what is in the way of every record throws: nothing here does, but for running out of memory and keys of
/// requests.
class QORIngest {
public:
    explicit QORIngest(QORIngestOptions options = {});

    /// Reads lines of NDJSON to the end of the stream. When a stop is requested, what has been read is still stored.
    QORIngestResult importLines(std::istream& lines, const QORIngestProgress& progress = {},
                                const std::stop_token& stop = {});
    /// The same for a text. \param firstLine the number of its first line in messages
    /// \param request null for one that is not sent again. One that was broken off goes on where it was, and one that
    /// was done is not done again: the result is that of all attempts together \throws QORException 422 when its key
    /// belongs to another content, 409 when somebody works on it
    QORIngestResult importBatch(std::string_view lines, std::uint64_t firstLine = 1,
                                const QORIngestRequest* request = nullptr);
    /// Stores records that were made rather than read; the numbers of "lines" are their positions from 1.
    /// \param keepEqual operations that are stored already with the same status and message are left alone
    /// \param beside called in the transaction of the last batch; where several servers keep the records, in one behind
    /// it
    QORIngestResult store(std::span<const QORRecord> records, bool keepEqual, const std::stop_token& stop = {},
                          const QORStoredBeside& beside = {});

private:
    class Run;
    QORIngestOptions m_options;
};

}  // namespace QOR
