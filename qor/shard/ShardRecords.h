/// \file
/// Takes the records of some environments from one database to another.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "QORDBSchema/QORSchemaTables.h"
#include "shard/ShardDatabase.h"
#include "shard/ShardWatch.h"

namespace QOR {

/// Whose records: those of environments whose hash leaves the remainder.
struct ShardShare {
    std::int64_t modulus = 1;
    std::int64_t remainder = 0;

    /// The condition on a column that says so.
    std::string holds(const std::string& column) const;
};

/// Both databases are of this version. What it copies takes the place of what has come there of the same records
/// before, so that everything here may be done again. Used by one thread. Everything throws QORException and
/// AException.
class ShardRecords {
public:
    /// \param took told now and then how many records were copied since the last time; it may throw to end the copying
    ShardRecords(ShardDatabase& target, ShardShare share, std::function<void(std::uint64_t)> took);

    /// Copies everything behind what is there already, as the session's transaction sees it.
    void copyAll(ASSession& source);
    /// Follows changes of the source, likewise. \returns how many records more the target has now
    std::int64_t follow(ASSession& source, const ShardChanges& changes);
    /// What is known of their documents.
    void copyDocuments(ASSession& source);
    /// How far requests have been stored: the first time of all, later of those that have been stored since.
    void copyRequests(ASSession& source);
    /// What the source has noted of its records and others have not been told yet: without it they could remove some of
    /// what the target has.
    void copyNotes(ASSession& source);
    std::uint64_t count(ASSession& source) const;

    /// Removes them from the source, but for the newest, and those that others are just changing: these are left. Who
    /// reads does not notice before the transaction ends, nor does who stores other records. \returns how many
    std::uint64_t removeMost(ASSession& source);
    /// Of the records with these numbers, those that are the share's are to be removed at the end as well.
    void leave(const ShardChanges& changes);
    /// Removes what has been left. \returns how many
    std::uint64_t removeLeft(ASSession& source);
    /// How many the target has.
    std::uint64_t countThere();

private:
    struct Batch;
    using Numbers = std::set<std::int64_t>;
    std::uint64_t removeFree(ASSession& source, const std::string& name) const;
    std::int64_t countThere(const std::string& name, const std::string& list);
    void copyTable(ASSession& source, const std::string& name, const std::string& condition, const std::string& gone);
    void takeTouched(ASSession& source, Batch& batch) const;
    void put(const std::string& name, const Batch& batch, const std::string& gone);
    const QORSchemaTable& table(const std::string& name) const;

    ShardDatabase& m_target;
    ShardShare m_share;
    std::function<void(std::uint64_t)> m_took;
    std::vector<QORSchemaTable> m_tables;
    std::map<std::string, Numbers> m_left;  ///< by tables
    std::string m_requestsFrom;  ///< the oldest transaction whose requests may not have been copied; empty: none were
};

}  // namespace QOR
