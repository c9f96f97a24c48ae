/// \file
/// Records with identifiers that came to one server while another one has an earlier record under the same identifier:
/// how those others are found and removed, also by somebody else later.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORServers/QORServers.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// The tables whose records have identifiers.
enum class IdentifiedTable { Operations, Backups };
std::string_view nameOf(IdentifiedTable table);

/// Records of a table by their identifiers, with the numbers of their arrivals.
class ArrivedIds {
public:
    void add(std::string_view id, std::int64_t number);
    bool empty() const noexcept { return m_text.empty(); }
    /// `[["id",number],...]`
    std::string text() const { return m_text.empty() ? "[]" : m_text + ']'; }

private:
    std::string m_text;
};

// A record that comes again to the server that has it keeps its number, and with it its place among those of its
// second. So it came last with the greatest of its number and those under which the server has noted it; a note from
// elsewhere removes it only if that is smaller. A note may go when nobody has a note or a record that is between.

/// Keeps with records that are stored, in the same transaction, that others must have no earlier ones of these
/// identifiers. \returns what it is kept under \param ids as ArrivedIds gives them
std::int64_t noteArrivals(ASSession& session, IdentifiedTable table, std::string_view ids);

/// Gives these records the numbers of `ids` where theirs are smaller: from then on no earlier note can remove them.
void renumber(ASSession& session, IdentifiedTable table, std::string_view ids);

/// What there is of a record elsewhere.
struct FoundRecord {
    std::int64_t number = 0;  ///< with which it came there last
    bool isThere = false;     ///< else there is a note alone
};
using FoundRecords = std::map<std::pair<IdentifiedTable, std::string>, FoundRecord>;
/// Which of these records there are here, or are noted here. \param here the server that it should be
/// \returns whether it is; if not, environments have moved, and what is not found here may be elsewhere
bool findRecords(ASSession& session, const QORServer& here, std::string_view operations, std::string_view backups,
                 FoundRecords& found);
/// Alone: nobody else stores or removes records there until the caller's transaction ends.
enum class QORServerUse { Shared, Alone };
/// Whether the server has what the placement says. It keeps that until the caller's transaction ends.
bool holds(ASSession& session, const QORServer& here, QORServerUse use = QORServerUse::Shared);

/// A note of arrivals.
struct ArrivalNote {
    std::int64_t id;
    std::string server;  ///< whom it is for
    std::string table;
    std::string ids;

    bool isFor(const QORServer& server) const;
};
/// The first of what a server has noted and nobody has taken away yet: as many as are seen to within the time that
/// a writer waits without noticing. \param last the last one that is of interest
std::vector<ArrivalNote> readNotes(const QORServer& from, std::int64_t last);
std::int64_t lastNote(const QORServer& from);

/// Removes records at a server that came last before those of the notes that are for it. That may be done again at any
/// time: what comes later has a greater number. \returns whether the server has what the placement says; if not, the
/// records may have moved, and nothing is done \throws AException
bool removeEarlier(const QORServer& at, const std::vector<ArrivalNote>& notes);

/// Takes away notes that have been seen to. Whoever did that does not know what others have noted of the same records:
/// so these have the numbers of their last arrival from now on. \throws AException
void takeAway(const QORServer& from, const std::vector<ArrivalNote>& notes);

/// What a process still has to clear up on servers, with the next transaction that writes there. Thread-safe.
class ServerLeftovers {
public:
    static ServerLeftovers& instance();

    /// Notes of arrivals that have been seen to on all other servers.
    void addNote(std::string_view server, std::int64_t id);
    /// A key of this process's own choice under which a batch of this content is stored, which no other batch of its
    /// has now. Until release(), or until removed() after addKey().
    std::string takeKey(const std::string& digest);
    void release(const std::string& key);
    /// The batch is stored: the server need not know its key any more.
    void addKey(std::string_view server, const std::string& key);

    struct Share {
        std::vector<std::int64_t> notes;
        std::vector<std::string> keys;
        bool empty() const noexcept { return notes.empty() && keys.empty(); }
    };
    /// What there is for a server; it stays until it is told to be removed.
    Share of(std::string_view server);
    /// Removes it there, in the caller's transaction.
    static void remove(ASSession& session, const Share& share);
    /// That transaction is committed.
    void removed(std::string_view server, const Share& share);
    /// Removes what there is for a server, in a transaction of its own. \throws AException
    void flush(const QORServer& server);

private:
    void ofThisHome();

    std::mutex m_mutex;
    std::uint64_t m_home = 0;                             // guarded by m_mutex; the generation that the rest belongs to
    std::map<std::string, Share, std::less<>> m_shares;   // guarded by m_mutex; by server
    std::map<std::string, unsigned, std::less<>> m_keys;  // guarded by m_mutex; in use, and by how many servers still
};

}  // namespace QOR
