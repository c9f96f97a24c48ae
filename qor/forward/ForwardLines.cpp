#include "forward/ForwardLines.h"

#include <map>
#include <set>
#include <utility>

#include "QORServers/QORServers.h"
#include "ingest/RecordLines.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

QORRecordKind recordKindOf(QORChangeKind kind) {
    switch (kind) {
        case QORChangeKind::Environment:
            return QORRecordKind::Environment;
        case QORChangeKind::Operation:
            return QORRecordKind::Operation;
        case QORChangeKind::Event:
            return QORRecordKind::Event;
        case QORChangeKind::Backup:
            break;
    }
    return QORRecordKind::Backup;
}

/// What is asked of one database.
using Wanted = std::map<QORChangeKind, std::vector<std::string>>;
using Found = std::map<QORChangeKind, RecordLines>;

Found readFrom(QORRdbms& database, const Wanted& wanted, const QORGUIDBase& stream) {
    Found found;
    QORRdbmsTran tran(database, ASAccess::Read);
    for (const auto& [kind, ids] : wanted)
        found[kind] = readRecordLines(*tran, recordKindOf(kind), ids, &stream);
    return found;
}

/// Those whose change has not been sent.
std::vector<std::string> unsent(ASSession& session, const std::set<std::string>& eids, std::int64_t sent) {
    std::vector<std::string> found;
    const std::string array = recordList({eids.begin(), eids.end()});
    ASStatement& select = session.prepare(
        "SELECT DISTINCT eid FROM qor_record_change WHERE kind = 0 AND n > CAST(? AS bigint) AND eid IN " +
        recordListSql(session.engine(), "uuid"));
    select.bind(1, sent).bind(2, std::string_view(array)).execute();
    while (select.fetch())
        found.emplace_back(select.text(1));
    select.close();
    return found;
}

/// Of environments that have not been sent, those that the lines need, with what these need themselves.
RecordLines unsentEnvironments(const std::vector<ForwardLine>& lines, std::int64_t sent) {
    RecordLines all;
    std::set<std::string> known;
    std::set<std::string> asked;
    for (const ForwardLine& line : lines)
        asked.insert(line.needs.begin(), line.needs.end());
    QORRdbmsTran tran(ASAccess::Read);
    while (!asked.empty()) {
        known.insert(asked.begin(), asked.end());
        const std::vector<std::string> eids = unsent(*tran, asked, sent);
        asked.clear();
        if (eids.empty()) break;
        for (auto& [eid, made] : readRecordLines(*tran, QORRecordKind::Environment, eids, nullptr)) {
            for (const std::string& parent : made.needs) {
                if (!known.contains(parent)) asked.insert(parent);
            }
            all.emplace(eid, std::move(made));
        }
    }
    return all;
}

}  // namespace

void putEnvironmentsAhead(std::vector<ForwardLine>& lines, std::int64_t sent) {
    RecordLines environments = unsentEnvironments(lines, sent);
    if (environments.empty()) return;
    std::set<std::string> ahead;
    std::vector<ForwardLine> ordered;
    for (const auto& [first, ignored] : environments) {
        std::vector<std::string> way;  // from it up to the first that is there already
        std::string at = first;
        for (auto found = environments.find(at); found != environments.end() && ahead.insert(at).second;
             found = environments.find(at)) {
            way.push_back(at);
            if (found->second.needs.empty()) break;
            at = found->second.needs.front();
        }
        for (auto eid = way.rbegin(); eid != way.rend(); ++eid)
            ordered.push_back({{.kind = QORChangeKind::Environment, .id = *eid, .owner = {}},
                               std::move(environments[*eid].text),
                               {}});
    }
    for (ForwardLine& line : lines) {
        const bool done = line.record.kind == QORChangeKind::Environment && ahead.contains(line.record.id);
        if (!done) ordered.push_back(std::move(line));
    }
    lines = std::move(ordered);
}

std::vector<ForwardLine> readForwardLines(const std::vector<QORRecordChange>& changes, const QORGUIDBase& stream) {
    std::map<std::string, Wanted> wanted;
    for (const QORRecordChange& one : changes)
        wanted[one.server][one.kind].push_back(one.id);
    std::map<std::string, Found> found;
    for (const auto& [server, of] : wanted) {
        if (server.empty()) {
            found[server] = readFrom(QORRdbms::instance(), of, stream);
            continue;
        }
        const auto placement = QORServers::instance().placement();
        for (const QORServer& one : placement->servers()) {
            if (one.name != server) continue;
            QORServers::instance().run(
                one, [&, &of = of](QORRdbms& database) { found[one.name] = readFrom(database, of, stream); });
        }
    }
    std::vector<ForwardLine> lines;
    for (const QORRecordChange& one : changes) {
        RecordLines& of = found[one.server][one.kind];
        const auto line = of.find(one.id);
        if (line == of.end()) continue;
        lines.push_back({one, std::move(line->second.text), std::move(line->second.needs)});
        of.erase(line);
    }
    return lines;
}

}  // namespace QOR
