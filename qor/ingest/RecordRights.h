/// \file
/// Whether somebody without full access may store records: about the environments of his scope, and in place of such
/// records alone.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "QORLibAgent/QORIdentities.h"
#include "ingest/QORRecords.h"
#include "ingest/ServerRemovals.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// Whose records there are that a batch would replace, and what is tied to environments that it would bring. A value.
struct StoredOwners {
    struct Ties {
        bool known = false;     ///< it is there
        bool children = false;  ///< environments say that they are below it
        bool records = false;   ///< there are records of it
    };
    /// By table and identifier: the environments that a record belongs to and touches; invalid for none.
    std::map<std::pair<IdentifiedTable, std::string>, std::vector<QOREID>> records;
    std::map<QOREID, Ties> ties;

    /// Adds what this database tells. \param locks the rows stay what they are until the transaction ends
    /// \throws AException
    void read(ASSession& session, std::span<const QORRecord> batch, bool locks);
    /// How many of the batch's identifiers are new, one that comes twice counted once.
    std::uint64_t newOnes(std::span<const QORRecord> batch) const;
};

/// Judges records in the order in which they are stored, each by the tree of parents that those before it leave behind.
///
/// A record is judged by the environment that it belongs to, those that it touches, and those of the record that it
/// replaces. An environment may be replaced where it may be written about. Its parent may change, or a new one
/// be told, where all that would come along, and where it goes from and to, is below what may be written about with all
/// below it: otherwise moving it would give rights to others, or take them. One that another identity is to write about
/// is added by nobody else, for the same reason: it would be below the sender's before its own first word. One thread
/// at a time.
class RecordRights {
public:
    explicit RecordRights(const QORWriteScope& scope) : m_scope(scope) {}

    /// \param home a session of the database that keeps the environments \param owners of these records, as they are
    /// stored \param lines of the records
    /// \throws QORException errForbidden that names line, record and environment; AException
    void check(ASSession& home, std::span<const QORRecord> records, std::span<const std::uint64_t> lines,
               const StoredOwners& owners);

private:
    void learnParents(ASSession& home, std::set<QOREID> wanted);
    void learnWriters(ASSession& home, std::span<const QORRecord> records);
    bool isBelow(const QOREID& eid) const;
    bool isWritable(const QOREID& eid) const { return m_scope.single.contains(eid) || isBelow(eid); }
    std::string objectionTo(const QORRecord& record, const StoredOwners& owners);
    std::string objectionTo(const QOREnvironmentRecord& record, const StoredOwners& owners);
    std::string objectionToNew(const QOREnvironmentRecord& record, const StoredOwners& owners) const;
    std::string objectionToReplaced(IdentifiedTable table, const std::string& id, const StoredOwners& owners) const;

    QORWriteScope m_scope;
    /// Nothing for an environment that there is not, an invalid one for none.
    std::map<QOREID, std::optional<QOREID>> m_parents;
    std::set<QOREID> m_othersOwn;  ///< of those that are new: what other identities may write about
};

}  // namespace QOR
