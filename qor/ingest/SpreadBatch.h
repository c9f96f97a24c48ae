/// \file
/// SpreadBatch: a batch of records that several servers keep, each its part of it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORServers/QORServers.h"
#include "ingest/RecordBatch.h"
#include "ingest/RequestLedger.h"
#include "ingest/ServerRemovals.h"

namespace QOR {

/// Environments are kept at home, other records by the server of their environment. A part is one transaction there;
/// the batch is stored when all are. One that failed in between may be stored again, as a whole: of what was stored
/// before nothing is doubled. Used once, by one thread; refers to the records.
class SpreadBatch {
public:
    /// \param placement has servers \param lines of the records, rising \param keepEqual as storeTogether()
    SpreadBatch(std::shared_ptr<const QORPlacement> placement, std::span<const QORRecord> records,
                std::span<const std::uint64_t> lines, bool keepEqual);
    ~SpreadBatch();
    SpreadBatch(const SpreadBatch&) = delete;
    SpreadBatch& operator=(const SpreadBatch&) = delete;

    /// What home has to do before: stores environments, gives out numbers, notes which servers will have operations
    /// that touch environments of others. In the caller's transaction there, which is committed before storeParts().
    void storeAtHome(ASSession& home);
    /// Stores the parts at the servers and sees to it that no other has an earlier record. \param ledger of the request
    /// that the batch belongs to, null for none \param doneLine up to where that has been acknowledged
    /// \throws AException of a server, which names it; what other servers have stored stays
    void storeParts(const RequestLedger* ledger, std::uint64_t doneLine);
    /// What became of the records, when all is stored. Of a part that was stored by an earlier attempt at the request
    /// it is what became of it then.
    const RecordBatchCounts& counts() const noexcept { return m_counts; }

    /// Clears up at the servers what they need not know any more of the batches of this process. What cannot be reached
    /// is logged, and cleared up some other time. \param all also what does no harm there
    static void clearUp(bool all);

private:
    /// Of one server.
    struct Part {
        QORServer server;
        std::vector<ArrivedRecord> records;
        RecordBatchCounts counts;
        std::vector<std::int64_t> notes;  ///< for the other servers, that they must have no earlier records
        bool moved = false;               ///< the server does not have these environments, or no longer
        bool renumbered = false;          ///< its records have the batch's numbers, also where they were there before
    };
    /// What a server was asked about records of others.
    struct Look;
    /// Where a record with an identifier is stored.
    struct Place {
        const ArrivedRecord* record;
        const Part* part;
    };
    using Places = std::map<std::pair<IdentifiedTable, std::string_view>, Place>;

    void takeRepeated(ArrivedRecord& before, const ArrivedRecord& now);
    void noteTouched(ASSession& home) const;
    std::vector<Part> split(const std::vector<ArrivedRecord>& records) const;
    void nameBatch(const std::vector<Part>& parts);
    /// \returns the parts as they were stored
    std::vector<Part> storeAll(std::vector<ArrivedRecord> left, const RequestLedger* ledger, bool renumbering);
    void storePart(Part& part, const RequestLedger* ledger) const;
    void storeUnless(ASSession& session, Part& part, const RequestLedger& ledger) const;
    static void keepEarlierNumbers(ASSession& session, Part& part, std::uint64_t storedLine);
    void awaitOtherPlacement(const QORServer& server);
    void removeElsewhere(const std::vector<Part>& stored);
    void compare(Look& look, const Places& places);
    void keepFromNotes(const Part& part);
    bool isAnyAway() const;

    std::shared_ptr<const QORPlacement> m_placement;
    bool m_keepEqual;
    std::vector<ArrivedRecord> m_environments;
    std::vector<ArrivedRecord> m_records;  ///< the others, of each identifier one
    RecordBatchCounts m_counts;
    std::uint64_t m_lastLine = 0;
    std::uint64_t m_doneLine = 0;
    std::optional<RequestLedger> m_ownLedger;  ///< of a batch that belongs to no request with a key, where it needs one
    std::string m_ownKey;
};

}  // namespace QOR
