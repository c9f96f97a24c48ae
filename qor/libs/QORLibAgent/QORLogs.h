/// \file
/// The operation log and the event log: agents that answer queries with sequences that know their size and read
/// records when they are touched.
///
/// Records come newest first, those of one second by arrival, latest first. A client without full access (the client
/// context of the calling thread) finds what one with full access finds, less the records that it may not see
/// (QORRowAccess): records, sizes and positions alike.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORExport.h"
#include "QORCommon/QORGuid.h"
#include "QORCommon/QORReferenceCounter.h"
#include "QORLibAgent/QORInfo.h"
#include "QORLibAgent/QORLogOrder.h"

namespace QOR {

class QORLocalAccess;

/// One record of the operation log.
struct QOR_API QORRequestProgressData {
    std::string id;
    std::string parentId;
    std::string op;
    int status = 0;
    std::int64_t time = 0;  ///< seconds since the epoch
    QOREID eid;             ///< the environment that it belongs to; invalid for none
    std::set<QOREID> eids;  ///< the environments that it touches
    QORInfo message;
};

/// One record of the event log.
struct QOR_API QOREvent {
    std::int64_t time = 0;  ///< seconds since the epoch
    QOREID eid;             ///< the environment that it belongs to; invalid for none
    std::string source;
    std::string category;
    QORInfo info;
};

/// Of which environments records are wanted.
class QOREnvSelection {
public:
    static QOREnvSelection all() { return {Kind::All, QOREID()}; }
    /// No environment, so no record.
    static QOREnvSelection none() { return {Kind::None, QOREID()}; }
    static QOREnvSelection one(const QOREID& eid) { return {Kind::One, eid}; }
    /// As the agents' contract has it: the invalid identifier stands for all environments.
    QOREnvSelection(const QOREID& eid) : QOREnvSelection(eid.isValid() ? Kind::One : Kind::All, eid) {}

    bool isAll() const noexcept { return m_kind == Kind::All; }
    bool isNone() const noexcept { return m_kind == Kind::None; }
    const QOREID& eid() const noexcept { return m_eid; }

private:
    enum class Kind { All, One, None };
    QOREnvSelection(Kind kind, const QOREID& eid) : m_kind(kind), m_eid(eid) {}

    Kind m_kind;
    QOREID m_eid;
};

/// What a log agent found, a sequence of records. It sees the log as it was when it was filled, for as long as it
/// lives, and keeps a connection to the database for that time: drop it when the request ends. Movable; used by the
/// thread that filled it. Empty until it is filled.
template <class Record>
class QORLogResult {
public:
    /// Where records come from.
    class Source {
    public:
        virtual ~Source() = default;
        /// The records from a position on, at least one of those that exist and at most `most`.
        virtual std::vector<Record> read(std::size_t from, std::size_t most) = 0;
        /// How many there are, as far as is known.
        virtual std::size_t size() const noexcept = 0;
    };

    QORLogResult() = default;
    explicit QORLogResult(std::unique_ptr<Source> source) : m_source(std::move(source)) {}

    /// Known without reading records, from the log's counters. Should those be found not to agree with the records, it
    /// is told anew, once at() or reaches() has returned.
    std::size_t size() const noexcept { return m_source ? m_source->size() : 0; }
    bool empty() const noexcept { return size() == 0; }
    /// Whether there is a record at a position, which is read: as a rule, whether the position is below size().
    /// \throws as at()
    bool reaches(std::size_t index) {
        if (isRead(index)) return true;
        if (index >= size()) return false;
        readPage(index);
        return isRead(index);
    }
    /// The record at a position that is reached. Neighbours are read along with it: going through records in order
    /// costs little more than reading them at once. The reference is valid until the next call.
    /// \throws AException when records cannot be read, QORException when there is none
    const Record& at(std::size_t index) {
        if (!reaches(index))
            throw QORException(errFailure, "the log has no record at position " + std::to_string(index));
        return m_page[index - m_first];
    }

private:
    static constexpr std::size_t firstPage = 32;
    static constexpr std::size_t largestPage = 512;

    bool isRead(std::size_t index) const noexcept { return index >= m_first && index - m_first < m_page.size(); }

    void readPage(std::size_t index) {
        const bool goesOn = !m_page.empty() && index == m_first + m_page.size();
        m_most = goesOn ? (m_most * 2 < largestPage ? m_most * 2 : largestPage) : firstPage;
        m_page = m_source->read(index, m_most);
        m_first = index;
    }

    std::unique_ptr<Source> m_source;
    std::vector<Record> m_page;
    std::size_t m_first = 0;
    std::size_t m_most = firstPage;
};

using QOROpLogResult = QORLogResult<QORRequestProgressData>;
using QOREventLogResult = QORLogResult<QOREvent>;

/// Asks the operation log.
class QOR_API QOROpLogAgent {
public:
    /// \param owner of the log; the invalid identifier stands for this host, whose log is the only one
    explicit QOROpLogAgent(const QOREID& owner = QOREID());

    /// Fills the result with the operations of the selected environments - their own, and those that touch them -
    /// whose time lies between `from` and `to`, both included.
    /// \param access for whom \param idFilter,opFilter "" for any \param state,flags 0 for any; other values of these
    /// four are refused \param most records; those beyond are left out
    /// \returns 0; non-zero, with getErrorMessage() telling why, and the result empty
    int getOps(QOROpLogResult& result, const QOREnvSelection& envs, const QORPtr<QORLocalAccess>& access,
               const std::string& idFilter, const std::string& opFilter, int state, int flags, int most, int from,
               int to);

private:
    QOREID m_owner;
};

/// Asks the event log.
class QOR_API QOREventLogAgent {
public:
    explicit QOREventLogAgent(const QOREID& owner = QOREID());

    /// Fills the result with the events of the selected environments in a category whose time lies between `from` and
    /// `to`, both included. \param first,most the records wanted of those found, by position \param category exactly
    /// \param flags 0; other values, and the empty category, are refused
    /// \returns as getOps()
    int getEvents(QOREventLogResult& result, const QOREnvSelection& envs, int first, int most,
                  const QORPtr<QORLocalAccess>& access, const std::string& category, int flags, int from, int to);

private:
    QOREID m_owner;
};

/// Which records of a log are gone through, and from which end.
struct QORLogSpanOfTime {
    QOREnvSelection envs = QOREnvSelection::all();
    std::optional<std::string> category{};  ///< of events, exactly; nothing: any, and none
    std::int64_t from = 0;                  ///< seconds since the epoch, both included
    std::int64_t to = 0;
    QORLogOrder order = QORLogOrder::NewestFirst;
};

/// A record, and where it stands in its log.
template <class Record>
struct QORLogFound {
    QORLogMark mark;
    Record record;
};

class QORLogQuery;

/// Goes through a log in the order of time, records of one second in that of arrival, a piece at a time. No position is
/// ever looked for, so that a piece costs the same wherever it begins. Sees the log as it was when this was made, and
/// only what the calling thread's client may see; keeps a connection to the database, or to each, meanwhile. One
/// thread. \tparam Record QORRequestProgressData or QOREvent \throws AException, QORException from every method
template <class Record>
class QOR_API QORLogWalk {
public:
    explicit QORLogWalk(const QORLogSpanOfTime& span);
    ~QORLogWalk();
    QORLogWalk(const QORLogWalk&) = delete;
    QORLogWalk& operator=(const QORLogWalk&) = delete;

    /// The first records, or those behind a mark, which need not be a record's; fewer than `most` at the end.
    std::vector<QORLogFound<Record>> read(const QORLogMark* behind, std::size_t most);
    /// Those of these records that there are, whatever span is gone through, but for those that the client may not see.
    std::vector<QORLogFound<Record>> find(const std::vector<std::int64_t>& numbers);
    /// How many records there are, from the counters where there are such; else they are counted.
    std::uint64_t count();
    /// A number that is another one once records were added or removed; events of no category, and anything where as
    /// many come as go, may escape it.
    std::uint64_t tally();
    /// The newest record and the oldest one; nothing of an empty log.
    std::vector<QORLogMark> ends();

private:
    std::vector<QORLogFound<Record>> readIn(QORLogOrder order, const QORLogMark* behind, std::size_t most);

    QORLogOrder m_order;
    bool m_counted;
    std::unique_ptr<QORLogQuery> m_query;  ///< null where nothing can be found
};

extern template class QORLogWalk<QORRequestProgressData>;
extern template class QORLogWalk<QOREvent>;

/// Why the calling thread's last call to a log agent failed; "" when it did not.
QOR_API const char* getErrorMessage() noexcept;

}  // namespace QOR
