#include "QORLibAgent/QORRecordState.h"

#include <string>
#include <vector>

#include "rdbmspp/pool/ASNumbers.h"

namespace QOR {
namespace {

const char* tableOf(QORChangeKind kind) {
    switch (kind) {
        case QORChangeKind::Environment:
            return "qor_environment";
        case QORChangeKind::Operation:
            return "qor_operation";
        case QORChangeKind::Event:
            return "qor_event";
        case QORChangeKind::Backup:
            break;
    }
    return "qor_backup";
}

/// "('...','...')"; of nobody a list that nothing is in.
std::string ownersOf(const QORRowAccess& access) {
    std::string list;
    for (const QOREID& eid : access.owners())
        list.append(list.empty() ? "('" : ",'").append(eid.toString()).append("'");
    return list.empty() ? "(NULL)" : list + ')';
}

/// The counters count each operation once for all and once for its environment, and the events of a category; an event
/// need not have one.
std::string countOf(QORChangeKind kind, const QORRowAccess& access) {
    const bool full = access.isFull();
    if (kind == QORChangeKind::Operation)
        return "SELECT coalesce(sum(n), 0) FROM qor_operation_count WHERE level = 24 AND scope " +
               (full ? std::string("= ''") : "IN " + ownersOf(access));
    if (kind == QORChangeKind::Event && full)
        return "SELECT (SELECT coalesce(sum(n), 0) FROM qor_event_count WHERE level = 24 AND scope >= '/' AND scope < "
               "'0') + (SELECT count(*) FROM qor_event WHERE category IS NULL) + (SELECT count(*) FROM qor_event "
               "WHERE category = '')";
    return "SELECT count(*) FROM " + std::string(tableOf(kind)) + (full ? "" : " WHERE eid IN " + ownersOf(access));
}

std::int64_t numberOf(ASStatement& select) {
    select.execute();
    const std::int64_t number = select.fetch() && !select.isNull(1) ? select.integer(1) : 0;
    select.close();
    return number;
}

/// Whether entries behind a change have been forgotten.
bool isForgotten(ASSession& session, std::int64_t change) {
    return numberOf(session.prepare("SELECT min(n) FROM qor_record_change")) > change + 1;
}

/// Whether the sequence tells of records that the client sees.
bool tellsOfAny(ASSession& session, QORChangeKind kind, const QORRowAccess& access, std::int64_t behind) {
    std::string sql = "SELECT count(*) FROM (SELECT 1 FROM qor_record_change c";
    std::string owner = "c.eid";
    if (kind != QORChangeKind::Environment && !access.isFull()) {
        sql += " JOIN " + std::string(tableOf(kind)) +
               " r ON r.seq >= CASE WHEN c.n > CAST(? AS bigint) THEN c.first ELSE c.first + CAST(? AS bigint) + 1 - "
               "c.n END AND r.seq <= c.last";
        owner = "r.eid";
    }
    sql +=
        " WHERE c.n >= coalesce((SELECT max(n) FROM qor_record_change WHERE n <= CAST(? AS bigint)), 0) AND "
        "c.n + c.last - c.first > CAST(? AS bigint) AND c.kind = " +
        std::to_string(static_cast<std::int64_t>(kind));
    if (!access.isFull()) sql += " AND " + owner + " IN " + ownersOf(access);
    ASStatement& select = session.prepare(sql + " LIMIT 1) t");
    const unsigned parameters = owner == "r.eid" ? 4 : 2;
    for (unsigned parameter = 1; parameter <= parameters; ++parameter)
        select.bind(parameter, behind);
    return numberOf(select) > 0;
}

}  // namespace

// In one question, since a server takes no longer for the second than for being asked.
QORRecordState recordState(ASSession& session, QORChangeKind kind, const QORRowAccess& access) {
    const std::vector<std::int64_t> numbers =
        readNumbers(session, "SELECT (" + std::string(lastRecordChangeSql) + "), (" + countOf(kind, access) + ")", 2);
    return numbers.empty() ? QORRecordState() : QORRecordState{numbers[0], numbers[1]};
}

bool hasChangedSince(ASSession& session, QORChangeKind kind, const QORRowAccess& access, const QORRecordState& since) {
    const QORRecordState now = recordState(session, kind, access);
    if (now.records != since.records || now.change < since.change) return true;
    if (now.change == since.change) return false;
    return isForgotten(session, since.change) || tellsOfAny(session, kind, access, since.change);
}

}  // namespace QOR
