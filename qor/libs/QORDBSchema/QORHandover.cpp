#include "QORDBSchema/QORHandover.h"

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORDBSchema/QORSchemaRows.h"
#include "QORServers/QORServers.h"

namespace QOR {
namespace {

/// Everything that readers of records go through at home, where there is any, in the order in which they do: a view,
/// then its tables, each with its partitions.
std::string readTablesOf(ASSession& home) {
    std::string list;
    for (const QORSchemaRow& row : readRows(
             home,
             "SELECT format('%I.%I', n.nspname, c.relname) FROM pg_class c JOIN pg_namespace n ON "
             "n.oid = c.relnamespace WHERE c.relkind IN ('v', 'p') AND (n.nspname IN ('qor_all', 'qor_all_long') OR "
             "n.nspname LIKE 'qor\\_at\\_%') ORDER BY c.relkind DESC, 1",
             1))
        list += (list.empty() ? "" : ", ") + row.front();
    return list;
}

}  // namespace

std::optional<QORHandover> readHandover(ASSession& home) {
    if (readCell(home, "SELECT CASE WHEN has_table_privilege(to_regclass('qor_handover'), 'SELECT') THEN 1 END") != "1")
        return std::nullopt;
    const auto rows =
        readRows(home, "SELECT source, name, number, connection, schema, modulus, remainder FROM qor_handover", 7);
    if (rows.empty()) return std::nullopt;
    const QORSchemaRow& row = rows.front();
    return QORHandover{row[0], {row[1], std::stoi(row[2]), row[3], row[4], std::stoll(row[5]), std::stoll(row[6])}};
}

void noteHandover(ASSession& home, const QORHandover& handover) {
    home.execute("DELETE FROM qor_handover");
    const QORSpreadServer& to = handover.to;
    home.prepare(
            "INSERT INTO qor_handover (source, name, number, connection, schema, modulus, remainder) "
            "VALUES (CAST(? AS text), CAST(? AS text), ?, CAST(? AS text), CAST(? AS text), ?, ?)")
        .bind(1, std::string_view(handover.source))
        .bind(2, std::string_view(to.name))
        .bind(3, std::int64_t{to.number})
        .bind(4, std::string_view(to.connection))
        .bind(5, std::string_view(to.schema))
        .bind(6, to.modulus)
        .bind(7, to.remainder)
        .execute();
}

bool hasLeft(ASSession& source, const QORHandover& handover) {
    return readCell(source, "SELECT modulus FROM qor_held") == std::to_string(handover.to.modulus);
}

void completeHandover(ASSession& home, const QORHandover& handover) {
    home.execute(
        "INSERT INTO qor_server (name, number, connection, schema, modulus, remainder) "
        "SELECT name, number, connection, schema, modulus, remainder FROM qor_handover");
    home.prepare("UPDATE qor_server SET modulus = ? WHERE name = ?")
        .bind(1, handover.to.modulus)
        .bind(2, std::string_view(handover.source))
        .execute();
    remakeSpread(home);
    home.execute("DELETE FROM qor_handover");
    home.execute("UPDATE qor_placement SET epoch = epoch + 1");
}

bool takeSpread(ASSession& home) {
    return readCell(home, "SELECT pg_try_advisory_xact_lock(hashtextextended('qor shard ' || current_schema(), 0))") ==
           "1";
}

// Shorter than what an engine lets pass before it looks for circles of waiting: nobody else is given up for its sake.
void lockSpread(ASSession& home) {
    home.execute("SET LOCAL lock_timeout = '200ms'");
    if (const std::string tables = readTablesOf(home); !tables.empty())
        home.execute("LOCK TABLE " + tables + " IN ACCESS EXCLUSIVE MODE");
}

QORHandoverState findHandover() {
    QORServers& servers = QORServers::instance();
    if (!servers.look().handsOver) return QORHandoverState::None;
    std::optional<QORHandover> handover;
    {
        QORRdbmsTran home(ASAccess::Read);
        handover = readHandover(*home);
    }
    if (!handover) return QORHandoverState::None;
    const auto placement = servers.placement();
    const QORServer* const source = placement->find(handover->source);
    if (source == nullptr) return QORHandoverState::None;
    bool left = false;
    servers.run(*source, [&](QORRdbms& database) {
        QORRdbmsTran tran(database, ASAccess::ReadOne);
        left = hasLeft(*tran, *handover);
    });
    return left ? QORHandoverState::Between : QORHandoverState::None;
}

bool settleHandover() {
    if (findHandover() == QORHandoverState::None) return true;
    try {
        QORRdbmsTran home(ASAccess::Write);
        if (!takeSpread(*home)) return false;
        const auto handover = readHandover(*home);
        if (!handover) return true;
        lockSpread(*home);
        completeHandover(*home, *handover);
        home.commit();
        logMessage(2, "QORDBSchema", QOR_SOURCE_PATH, __func__,
                   "server \"%s\" has given environments to \"%s\" while somebody ended: home says so now",
                   handover->source.c_str(), handover->to.name.c_str());
    } catch (const AException& error) {
        if (error.failure() != ASFailure::Locked && error.failure() != ASFailure::Undone) throw;
        return false;
    }
    QORServers::instance().refresh();
    return true;
}

}  // namespace QOR
