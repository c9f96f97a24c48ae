#include "QORLibAgent/QOREnvTable.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "QORCommon/QORText.h"
#include "QORLibAgent/QORBinder.h"
#include "QORLibAgent/QORHostTables.h"
#include "rdbmspp/engine/ASDialect.h"

namespace QOR {
namespace {

constexpr std::string_view columns = "e.eid, e.parent_eid, e.title, e.state, e.transition, e.config, e.virtual_config";

QOREID toEid(std::string_view text) {
    QOREID eid;
    eid.fromString(text);
    return eid;
}

QORPtr<const QOREnvConfig> readConfig(const ASStatement& row, unsigned column) {
    if (row.isNull(column)) return nullptr;
    QORInfo document;
    if (document.deserializeFromString(row.text(column)) != 0) return nullptr;
    return makeQORPtr<QOREnvConfig>(QOREnvConfigData::fromDocument(document));
}

std::optional<std::string> readOptionalText(const ASStatement& row, unsigned column) {
    if (row.isNull(column)) return std::nullopt;
    return std::string(row.text(column));
}

QOREnvChange readEnv(const ASStatement& row) {
    const QOREnv::Status status{static_cast<int>(row.integer(4)), static_cast<int>(row.integer(5))};
    const QOREID eid = toEid(row.text(1));
    return {eid, makeQORPtr<QOREnv>(eid, row.isNull(2) ? QOREID() : toEid(row.text(2)), readOptionalText(row, 3),
                                    status, readConfig(row, 6), readConfig(row, 7))};
}

std::optional<std::int64_t> numberOf(ASSession& session) {
    ASStatement& select = session.prepare("SELECT n FROM qor_change");
    select.execute();
    std::optional<std::int64_t> number;
    if (select.fetch()) number = select.integer(1);
    select.close();
    return number;
}

/// \returns nothing where it is not known which environments, or where they are too many
std::optional<std::vector<QOREID>> changedSince(ASSession& session, std::int64_t since, std::size_t worthwhile) {
    // Old entries go, the older the sooner. Where there is one from before, none that came after it has gone.
    ASStatement& select = session.prepare(
        "SELECT n, environments FROM qor_environment_change WHERE n >= coalesce((SELECT max(n) FROM "
        "qor_environment_change WHERE n <= CAST(? AS bigint)), 0) ORDER BY n");
    select.bind(1, since).execute();
    std::optional<std::vector<QOREID>> changed;
    while (select.fetch()) {
        if (!changed) {
            if (select.integer(1) > since) break;
            changed.emplace();
            continue;
        }
        std::string_view eids = select.text(2);
        bool known = !select.isNull(2);
        while (known && !eids.empty()) {
            const std::string_view one = eids.substr(0, eids.find(' '));
            eids.remove_prefix(std::min(one.size() + 1, eids.size()));
            known = changed->emplace_back().fromString(one) && changed->size() <= worthwhile;
        }
        if (known) continue;
        changed.reset();
        break;
    }
    select.close();
    return changed;
}

std::vector<QOREnvChange> readChanged(ASSession& session, const std::vector<QOREID>& eids) {
    std::vector<QOREnvChange> changes;
    if (eids.empty()) return changes;
    std::string json;
    for (const QOREID& eid : eids)
        json += (json.empty() ? "[\"" : ",\"") + eid.toString() + '"';
    const ASDialect& dialect = ASDialect::of(session.engine());
    ASStatement& select = session.prepare("SELECT " + std::string(columns) + ", j.value FROM " + dialect.eachText +
                                          " LEFT JOIN qor_environment e ON e.eid = " + dialect.guid("j.value"));
    select.bind(1, json + ']').execute();
    while (select.fetch())
        changes.push_back(select.isNull(1) ? QOREnvChange{toEid(select.text(8)), nullptr} : readEnv(select));
    select.close();
    return changes;
}

std::vector<QOREnvChange> readAll(ASSession& session) {
    std::vector<QOREnvChange> all;
    if (!hasColumns(session, "qor_environment", "'eid', 'config', 'virtual_config'", 3)) return all;
    ASStatement& select = session.prepare("SELECT " + std::string(columns) + " FROM qor_environment e");
    select.execute();
    while (select.fetch())
        all.push_back(readEnv(select));
    select.close();
    return all;
}

}  // namespace

QOREnvState readEnvironments(ASSession& session, std::optional<std::int64_t> since, std::size_t worthwhile) {
    QOREnvState state;
    if (since || hasColumns(session, "qor_change", "'n'", 1)) state.number = numberOf(session);
    if (since && state.number == since) return state;
    if (since && state.number > since) {
        if (const auto changed = changedSince(session, *since, worthwhile)) {
            state.changes = readChanged(session, *changed);
            return state;
        }
    }
    state.whole = true;
    state.changes = readAll(session);
    return state;
}

// The triggers of the table do the same.
void noteChangedEnvironments(ASSession& session, const std::vector<std::string>& eids) {
    if (eids.empty()) return;
    std::string text;
    for (const std::string& eid : eids)
        text.append(text.empty() ? "" : " ").append(eid);
    session.prepare("UPDATE qor_change SET n = n + 1").execute(ASTriggers::Skip);
    session.prepare("INSERT INTO qor_environment_change (n, environments) SELECT n, ? FROM qor_change")
        .bind(1, text)
        .execute(ASTriggers::Skip);
    session
        .prepare(
            "DELETE FROM qor_environment_change WHERE (SELECT n FROM qor_change) % 256 = 0 AND n < (SELECT n FROM "
            "qor_environment_change ORDER BY n DESC LIMIT 1 OFFSET 1000)")
        .execute(ASTriggers::Skip);
}

}  // namespace QOR
