/// \file
/// The sequence of changed records: which records came or were changed, in the order in which that was committed, for
/// whoever follows them from a position on.
///
/// The database numbers each change of an environment, an operation, an event or a backup, whatever program makes it
/// (QORDBSchema/QORSchemaSequence.cpp): a number is never seen before a smaller one. Who remembers up to which number
/// he has read misses nothing, and gets a record again when it is changed again. Records that lie with several servers
/// have a sequence in each of them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"
#include "QORLibAgent/QORSecurity.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// By their numbers in the database.
enum class QORChangeKind : std::int64_t { Environment, Operation, Event, Backup };
inline constexpr std::size_t changeKindCount = 4;

/// Notes changes that statements without triggers have made, within the same transaction. Where triggers cannot be
/// skipped nothing has to be noted. Used by the thread of the transaction. \throws AException from finish()
class QOR_API QORRecordNotes {
public:
    /// \param seq the record's number of arrival; of an operation, an event or a backup
    void add(QORChangeKind kind, std::int64_t seq) { m_numbers[static_cast<std::size_t>(kind)].push_back(seq); }
    void addEnvironment(const std::string& eid) { m_environments.insert(eid); }

    /// Writes what was noted, each record once; nothing is noted any more. The last thing of its transaction that has
    /// to do with records.
    void finish(ASSession& session);

private:
    std::array<std::vector<std::int64_t>, changeKindCount> m_numbers;
    std::set<std::string> m_environments;
};

/// Up to which change somebody has read, by the name of the server that keeps the records; "" for the process's own
/// database. Of a server that is not named nothing has been read.
using QORChangePosition = std::map<std::string, std::int64_t, std::less<>>;

/// A record that came or was changed, as it is to be found: it may have been changed again since, or be gone.
struct QORRecordChange {
    QORChangeKind kind;
    std::string id;           ///< the environment's identifier, the event's number, else the record's own identifier
    QOREID owner;             ///< whose it is; invalid for none
    std::string server{};     ///< where it was told of, as in a position
    std::int64_t number = 0;  ///< of the change, there
    /// Changes there that cannot be told any more, from the position that was read from up to this one.
    std::uint64_t missing = 0;
};

/// What comes next.
struct QORRecordChanges {
    std::vector<QORRecordChange> records;
    /// Changes that cannot be told any more: their records were removed, or the database tells of later changes only.
    std::uint64_t missing = 0;
    bool reset = false;  ///< the position was beyond the end, as when a database was put back to an earlier state
    bool atEnd = false;  ///< there was nothing behind this when it was read
};

/// Reads the sequence. Used by one thread at a time. \throws AException, and QORException errDeadline, from every
/// method that reads; a failure of a server names it, and the position stays
class QOR_API QORChangeReader {
public:
    /// \param behind changes up to here have been read; empty: from the beginning
    explicit QORChangeReader(std::set<QORChangeKind> kinds, QORChangePosition behind = {})
        : m_kinds(std::move(kinds)), m_behind(std::move(behind)) {}

    /// Behind everything that there is.
    static QORChangePosition end();
    /// The same of whichever databases answer, for whoever can do with less. \param away becomes the names of the
    /// others
    static QORChangePosition knownEnd(std::vector<std::string>& away);
    const QORChangePosition& position() const noexcept { return m_behind; }

    /// Reads on, and stands behind that then. Takes bounded time, so that it may find nothing though there is more. Of
    /// servers that are none of the database's any more the position says nothing then: another one may come under the
    /// name, whose numbers begin anew. Where the role may not read any more which servers there are, and the position
    /// names some, that is an error: they may be there.
    /// \param access whose records are told; others are passed over
    /// \param most of records, at least 1
    QORRecordChanges read(const QORRowAccess& access, std::size_t most);

private:
    const std::set<QORChangeKind> m_kinds;
    QORChangePosition m_behind;
};

/// Forgets entries of the sequence that nobody needs: from its beginning on, those of which no record is left, and
/// whatever there is beyond a million. \throws AException
QOR_API void trimRecordChanges(ASSession& session);

/// Whether the database has the sequence: one of another program, or of an older version that is only read, has none.
/// \throws AException
QOR_API bool keepsRecordChanges(ASSession& session);

/// Selects the number of the last change; no row before the first.
inline constexpr const char* lastRecordChangeSql = "SELECT n FROM qor_record_number";
/// The number of the last change, 0 before the first. \throws AException
QOR_API std::int64_t lastRecordChange(ASSession& session);

}  // namespace QOR
