#include "forward/ForwardPosition.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "QORCommon/QORTime.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

QORChangePosition ForwardPosition::read() const {
    QORChangePosition position;
    QORRdbmsTran tran(ASAccess::ReadOne);
    ASStatement& select = tran->prepare("SELECT server, n FROM qor_forward_position WHERE target = ?");
    select.bind(1, std::string_view(m_target)).execute();
    while (select.fetch())
        position[std::string(select.text(1))] = select.integer(2);
    select.close();
    return position;
}

void ForwardPosition::note(std::uint64_t keep, std::optional<std::int64_t> behind) const {
    QORRdbms::instance().write([&](ASSession& session) {
        ASStatement& insert = session.prepare(
            "INSERT INTO qor_forward_target (target, keep, seen, behind) VALUES (?, ?, ?, ?) "
            "ON CONFLICT (target) DO UPDATE SET keep = excluded.keep, seen = excluded.seen, behind = excluded.behind");
        insert.bind(1, std::string_view(m_target))
            .bind(2, static_cast<std::int64_t>(std::min<std::uint64_t>(keep, std::numeric_limits<std::int64_t>::max())))
            .bind(3, currentTime());
        behind ? insert.bind(4, *behind) : insert.bindNull(4);
        insert.execute(ASTriggers::Skip);
    });
}

std::optional<std::int64_t> ForwardPosition::behind() const {
    QORRdbmsTran tran(ASAccess::ReadOne);
    ASStatement& select = tran->prepare("SELECT behind FROM qor_forward_target WHERE target = ?");
    select.bind(1, std::string_view(m_target)).execute();
    std::optional<std::int64_t> behind;
    if (select.fetch() && !select.isNull(1)) behind = select.integer(1);
    select.close();
    return behind;
}

QORGUIDBase ForwardPosition::stream() {
    QORGUIDBase stream;
    QORRdbms::instance().write([&](ASSession& session) {
        session
            .prepare("INSERT INTO qor_forward_stream (id) SELECT " + ASDialect::of(session.engine()).guid("?") +
                     " WHERE NOT EXISTS (SELECT 1 FROM qor_forward_stream)")
            .bind(1, std::string_view(QORGUIDBase::random().toString()))
            .execute();
        ASStatement& select = session.prepare("SELECT id FROM qor_forward_stream ORDER BY id LIMIT 1");
        select.execute();
        if (select.fetch()) stream.fromString(select.text(1));
        select.close();
    });
    return stream;
}

std::uint64_t ForwardPosition::store(const QORChangePosition& position, const std::vector<std::string>& gone,
                                     const std::vector<ForwardRefused>& refused) const {
    std::uint64_t forgotten = 0;
    QORRdbms::instance().write([&](ASSession& session) {
        for (const std::string& server : gone)
            forget(session, server);
        for (const auto& [server, number] : position) {
            session
                .prepare(
                    "INSERT INTO qor_forward_position (target, server, n) VALUES (?, ?, ?) "
                    "ON CONFLICT (target, server) DO UPDATE SET n = excluded.n")
                .bind(1, std::string_view(m_target))
                .bind(2, std::string_view(server))
                .bind(3, number)
                .execute(ASTriggers::Skip);
        }
        forgotten = note(session, refused);
    });
    return forgotten;
}

void ForwardPosition::forget(ASSession& session, const std::string& server) const {
    for (const char* const table : {"qor_forward_position", "qor_forward_refused"}) {
        session.prepare("DELETE FROM " + std::string(table) + " WHERE target = ? AND server = ?")
            .bind(1, std::string_view(m_target))
            .bind(2, std::string_view(server))
            .execute(ASTriggers::Skip);
    }
}

std::uint64_t ForwardPosition::note(ASSession& session, const std::vector<ForwardRefused>& refused) const {
    if (refused.empty()) return 0;
    for (const ForwardRefused& one : refused) {
        session
            .prepare(
                "INSERT INTO qor_forward_refused (target, server, kind, id, reason, time) VALUES (?, ?, ?, ?, ?, ?) "
                "ON CONFLICT (target, server, kind, id) DO UPDATE SET reason = excluded.reason, time = excluded.time")
            .bind(1, std::string_view(m_target))
            .bind(2, std::string_view(one.record.server))
            .bind(3, static_cast<std::int64_t>(one.record.kind))
            .bind(4, std::string_view(one.record.id))
            .bind(5, std::string_view(one.reason))
            .bind(6, currentTime())
            .execute(ASTriggers::Skip);
    }
    session
        .prepare(
            "DELETE FROM qor_forward_refused WHERE target = ? AND (server, kind, id) IN (SELECT server, kind, id FROM "
            "qor_forward_refused WHERE target = ? ORDER BY time DESC, kind, id LIMIT 1000 OFFSET CAST(? AS bigint))")
        .bind(1, std::string_view(m_target))
        .bind(2, std::string_view(m_target))
        .bind(3, static_cast<std::int64_t>(mostRefused))
        .execute(ASTriggers::Skip);
    return static_cast<std::uint64_t>(session.changes());
}

std::uint64_t ForwardPosition::countRefused() const {
    QORRdbmsTran tran(ASAccess::ReadOne);
    ASStatement& select = tran->prepare("SELECT count(*) FROM qor_forward_refused WHERE target = ?");
    select.bind(1, std::string_view(m_target)).execute();
    const std::uint64_t count = select.fetch() ? static_cast<std::uint64_t>(select.integer(1)) : 0;
    select.close();
    return count;
}

std::vector<ForwardRefused> ForwardPosition::refused(std::size_t most) const {
    std::vector<ForwardRefused> refused;
    QORRdbmsTran tran(ASAccess::ReadOne);
    ASStatement& select = tran->prepare(
        "SELECT server, kind, id, reason FROM qor_forward_refused WHERE target = ? ORDER BY time, kind, id LIMIT "
        "CAST(? AS bigint)");
    select.bind(1, std::string_view(m_target)).bind(2, static_cast<std::int64_t>(most)).execute();
    while (select.fetch())
        refused.push_back({{.kind = static_cast<QORChangeKind>(select.integer(2)),
                            .id = std::string(select.text(3)),
                            .owner = {},
                            .server = std::string(select.text(1))},
                           std::string(select.text(4))});
    select.close();
    return refused;
}

std::uint64_t ForwardPosition::settle(const std::vector<ForwardRefused>& sent,
                                      const std::vector<ForwardRefused>& again) const {
    std::uint64_t forgotten = 0;
    QORRdbms::instance().write([&](ASSession& session) {
        for (const ForwardRefused& one : sent) {
            session.prepare("DELETE FROM qor_forward_refused WHERE target = ? AND server = ? AND kind = ? AND id = ?")
                .bind(1, std::string_view(m_target))
                .bind(2, std::string_view(one.record.server))
                .bind(3, static_cast<std::int64_t>(one.record.kind))
                .bind(4, std::string_view(one.record.id))
                .execute(ASTriggers::Skip);
        }
        forgotten = note(session, again);
    });
    return forgotten;
}

}  // namespace QOR
