// The sources of operator "pager" that read the logs. The filter only supplies constants; the host's log agents find
// the records, in their own order.

#include <limits>
#include <utility>

#include "QORCommon/QORRequestControl.h"
#include "QORFunctionality/QORAccess.h"
#include "QORPager/Operators/Pager/QORFilterConstants.h"
#include "QORPager/Operators/Pager/QORPage.h"
#include "QORPager/Operators/Pager/QORPagerErrors.h"
#include "QORPager/Operators/Pager/QORRowSet.h"
#include "QORPager/Operators/QORPagerOperator.h"
#include "QORPager/QORArg.h"

namespace QOR {

namespace {

constexpr int everyRecord = std::numeric_limits<std::int32_t>::max();

/// A log could not be read.
class LogRefusal : public QORException {
public:
    explicit LogRefusal(const char* reason) : QORException(errFailure, reason) {}
};

/// The environment of a row of a log: all that is known of it is the identifier in the record.
QORPtr<const QOREnv> bareEnv(const QOREID& eid) {
    return makeQORPtr<const QOREnv>(eid);
}

ArgCSP parseOpLogSqlRow(const QORRequestProgressData& record) {
    auto row = std::make_shared<QORProgressArg>(bareEnv(record.eid));
    row->origin = QORLogDBEntryOrigin::fromInfo(record.message);
    row->record = record;
    return row;
}

ArgCSP parseEventsLogSqlRow(const QOREvent& event) {
    auto row = std::make_shared<QOREventArg>(bareEnv(event.eid));
    row->origin = QORLogDBEntryOrigin::fromInfo(event.info);
    row->event = event;
    return row;
}

/// Reads the record at a position, if there is one.
template <class Record>
bool reaches(QORLogResult<Record>& records, std::int64_t index) {
    try {
        return records.reaches(static_cast<std::size_t>(index));
    } catch (const std::exception& exception) {
        QORRequestControl::checkCurrent();
        throw LogRefusal(exception.what());
    }
}

/// The page of the records. Its first one is read, for that may show that there are fewer than was thought.
template <class Record>
QORPage pageOf(QORLogResult<Record>& records, int size, int offset) {
    const QORPage page = QORPage::of(size, offset, static_cast<std::int64_t>(records.size()));
    if (page.begin >= page.end || reaches(records, page.begin)) return page;
    return QORPage::of(size, offset, static_cast<std::int64_t>(records.size()));
}

/// Writes the page of the records. \returns how many that are; negative past the last record
template <class Record>
std::int64_t writePage(QORLogResult<Record>& records, ArgCSP (*makeRow)(const Record&), int size, int offset,
                       QORRowSet& rowSet) {
    QORPage page = pageOf(records, size, offset);
    for (std::int64_t index = page.begin; index < page.end; ++index) {
        if (!reaches(records, index)) {
            page.end = index;
            break;
        }
        rowSet.writeRow(makeRow(records.at(static_cast<std::size_t>(index))));
    }
    return page.count();
}

}  // namespace

/// Adds the number of records found to `total`. \returns the number of rows written
std::int64_t QORPagerOperatorPrototype::fetchOplog(const QORLogSpan& span, QORRowSet& rowSet, std::int64_t& total) {
    QOROpLogAgent agent;
    QOROpLogResult records;
    if (agent.getOps(records, span.envs, m_request.access, "", "", 0, 0, everyRecord, span.from, span.to) != 0) {
        QORRequestControl::checkCurrent();
        throw LogRefusal(getErrorMessage());
    }
    const std::int64_t written =
        writePage(records, parseOpLogSqlRow, m_request.limitSize, m_request.limitOffset, rowSet);
    total += static_cast<std::int64_t>(records.size());
    return written;
}

std::int64_t QORPagerOperatorPrototype::fetchEvents(const QORLogSpan& span, std::string_view category,
                                                    QORRowSet& rowSet, std::int64_t& total) {
    QOREventLogAgent agent;
    QOREventLogResult records;
    if (agent.getEvents(records, span.envs, 0, everyRecord, m_request.access, std::string(category), 0, span.from,
                        span.to) != 0) {
        QORRequestControl::checkCurrent();
        throw LogRefusal(getErrorMessage());
    }
    const std::int64_t written =
        writePage(records, parseEventsLogSqlRow, m_request.limitSize, m_request.limitOffset, rowSet);
    total += static_cast<std::int64_t>(records.size());
    return written;
}

void QORPagerOperatorPrototype::selectOpLogs(QORMessageIterator& response) {
    if (m_request.envFieldSelected || m_request.envFieldInWhere) {
        addError(&response, PagerErrors, pagerEvaluatingError, "joins with env_info table are forbidden");
        return;
    }
    const QORLogSpan span = constants().span(sourceOf(TCursorType::OpLog));
    QORRowSet rowSet(response, m_request.selectFields);
    try {
        m_request.access = getLocalAccess();
        std::int64_t total = 0;
        const std::int64_t written = fetchOplog(span, rowSet, total);
        if (m_request.statisticsWanted) rowSet.writeStatistics(written, total);
    } catch (const LogRefusal& refusal) {
        addError(&response, PagerErrors, errFailure, refusal.what());
    }
}

void QORPagerOperatorPrototype::selectEventLogs(QORMessageIterator& response) {
    const QORSource& log = sourceOf(TCursorType::EventLog);
    const QORLogSpan span = constants().span(log);
    QORRowSet rowSet(response, m_request.selectFields);
    try {
        m_request.access = getLocalAccess();
        std::int64_t written = 0;
        std::int64_t total = 0;
        for (const QORSourceCategory& category : log.categories) {
            if (m_request.where.find(category.filterText) == std::string::npos) continue;
            written += fetchEvents(span, category.name, rowSet, total);
        }
        if (m_request.statisticsWanted) rowSet.writeStatistics(written, total);
    } catch (const LogRefusal& refusal) {
        addError(&response, PagerErrors, errFailure, refusal.what());
    }
}

}  // namespace QOR
