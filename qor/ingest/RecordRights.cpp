#include "ingest/RecordRights.h"

#include <algorithm>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "ingest/RecordTables.h"

namespace QOR {
namespace {

/// Texts or environments as one parameter.
class JsonList {
public:
    void add(std::string_view text) {
        m_text += m_text.empty() ? '[' : ',';
        appendJsonString(text, m_text);
    }
    bool empty() const noexcept { return m_text.empty(); }
    std::string text() const { return m_text + ']'; }

private:
    std::string m_text;
};

/// The rows of one parameter, which is a JsonList.
std::string listOf(ASEngine engine, bool eids) {
    if (engine == ASEngine::SQLite) return "(SELECT value FROM json_each(?))";
    return std::string("(SELECT ") + (eids ? "CAST(value AS uuid) AS value" : "value") +
           " FROM json_array_elements_text(CAST(? AS json)))";
}

QOREID eidIn(const ASStatement& select, unsigned column) {
    QOREID eid;
    if (!select.isNull(column)) eid.fromString(select.text(column));
    return eid;
}

/// \param row is called for each row of the statement, which takes the list as its only parameter
template <class Row>
void forRows(ASSession& session, const std::string& sql, const JsonList& list, Row row) {
    if (list.empty()) return;
    const std::string text = list.text();
    ASStatement& select = session.prepare(sql);
    select.bind(1, std::string_view(text)).execute();
    while (select.fetch())
        row(select);
    select.close();
}

/// An environment among others of an operation or a backup, in the order in which they are told.
std::vector<QOREID> environmentsOf(const QORRecord& record) {
    if (const auto* environment = std::get_if<QOREnvironmentRecord>(&record))
        return {environment->eid, environment->parentEid};
    if (const auto* event = std::get_if<QOREventRecord>(&record)) return {event->eid};
    if (const auto* backup = std::get_if<QORBackupRecord>(&record)) return {backup->eid};
    const auto& operation = std::get<QOROperationRecord>(record);
    std::vector<QOREID> all{operation.eid};
    all.insert(all.end(), operation.eids.begin(), operation.eids.end());
    return all;
}

std::string nameOf(const QORRecord& record) {
    std::string kind = "the " + std::string(recordKindName(kindOf(record)));
    if (const auto* environment = std::get_if<QOREnvironmentRecord>(&record))
        return kind + " " + environment->eid.toString();
    if (const auto* operation = std::get_if<QOROperationRecord>(&record)) return kind + " " + quoteText(operation->id);
    if (const auto* backup = std::get_if<QORBackupRecord>(&record)) return kind + " " + quoteText(backup->id);
    return kind;
}

}  // namespace

void StoredOwners::read(ASSession& session, std::span<const QORRecord> batch, bool locks) {
    JsonList operations;
    JsonList backups;
    JsonList eids;
    for (const QORRecord& record : batch) {
        if (const auto* environment = std::get_if<QOREnvironmentRecord>(&record)) eids.add(environment->eid.toString());
        if (const auto* operation = std::get_if<QOROperationRecord>(&record)) operations.add(operation->id);
        if (const auto* backup = std::get_if<QORBackupRecord>(&record)) backups.add(backup->id);
    }
    const std::string ids = listOf(session.engine(), false);
    const std::string last = locks && session.engine() != ASEngine::SQLite ? " FOR UPDATE" : "";
    const auto note = [&](IdentifiedTable table) {
        return [this, table](const ASStatement& row) {
            records[{table, std::string(row.text(1))}].push_back(eidIn(row, 2));
        };
    };
    forRows(session, "SELECT id, eid FROM qor_operation WHERE id IN " + ids + last, operations,
            note(IdentifiedTable::Operations));
    forRows(session,
            "SELECT o.id, t.eid FROM qor_operation o JOIN qor_operation_environment t ON t.operation = o.seq "
            "WHERE o.id IN " +
                ids,
            operations, note(IdentifiedTable::Operations));
    forRows(session, "SELECT id, eid FROM qor_backup WHERE id IN " + ids + last, backups,
            note(IdentifiedTable::Backups));
    forRows(session,
            "SELECT l.value, CASE WHEN EXISTS (SELECT 1 FROM qor_environment WHERE eid = l.value) THEN 1 ELSE 0 END, "
            "CASE WHEN EXISTS (SELECT 1 FROM qor_environment WHERE parent_eid = l.value) THEN 1 ELSE 0 END, "
            "CASE WHEN EXISTS (SELECT 1 FROM qor_operation WHERE eid = l.value) OR EXISTS (SELECT 1 FROM "
            "qor_event WHERE eid = l.value) OR EXISTS (SELECT 1 FROM qor_backup WHERE eid = l.value) THEN 1 ELSE 0 END "
            "FROM " +
                listOf(session.engine(), true) + " l",
            eids, [this](const ASStatement& row) {
                Ties& of = ties[eidIn(row, 1)];
                of.known = of.known || row.integer(2) != 0;
                of.children = of.children || row.integer(3) != 0;
                of.records = of.records || row.integer(4) != 0;
            });
}

std::uint64_t StoredOwners::newOnes(std::span<const QORRecord> batch) const {
    std::set<std::pair<IdentifiedTable, std::string>> added;
    std::set<QOREID> environments;
    for (const QORRecord& record : batch) {
        if (const auto* environment = std::get_if<QOREnvironmentRecord>(&record)) {
            const auto found = ties.find(environment->eid);
            if (found == ties.end() || !found->second.known) environments.insert(environment->eid);
        }
        if (const auto* operation = std::get_if<QOROperationRecord>(&record))
            added.emplace(IdentifiedTable::Operations, operation->id);
        if (const auto* backup = std::get_if<QORBackupRecord>(&record))
            added.emplace(IdentifiedTable::Backups, backup->id);
    }
    std::erase_if(added, [this](const auto& id) { return records.contains(id); });
    return added.size() + environments.size();
}

void RecordRights::check(ASSession& home, std::span<const QORRecord> records, std::span<const std::uint64_t> lines,
                         const StoredOwners& owners) {
    std::set<QOREID> asked;
    for (const QORRecord& record : records) {
        for (const QOREID& eid : environmentsOf(record))
            asked.insert(eid);
    }
    for (const auto& [id, eids] : owners.records)
        asked.insert(eids.begin(), eids.end());
    learnParents(home, std::move(asked));
    learnWriters(home, records);
    for (std::size_t at = 0; at < records.size(); ++at) {
        const std::string objection = objectionTo(records[at], owners);
        if (objection.empty()) continue;
        throw QORException(
            errForbidden,
            "line " + std::to_string(lines[at]) + ": " + nameOf(records[at]) + " " + objection + "; nothing is stored",
            QOR_SOURCE_PATH);
    }
}

void RecordRights::learnParents(ASSession& home, std::set<QOREID> wanted) {
    const std::string sql = "SELECT eid, parent_eid FROM qor_environment WHERE eid IN " + listOf(home.engine(), true);
    while (!wanted.empty()) {
        JsonList eids;
        for (const QOREID& eid : wanted) {
            if (eid.isValid() && m_parents.try_emplace(eid).second) eids.add(eid.toString());
        }
        wanted.clear();
        forRows(home, sql, eids, [&](const ASStatement& row) {
            const QOREID parent = eidIn(row, 2);
            m_parents[eidIn(row, 1)] = parent;
            wanted.insert(parent);
        });
    }
}

void RecordRights::learnWriters(ASSession& home, std::span<const QORRecord> records) {
    JsonList eids;
    for (const QORRecord& record : records) {
        const auto* environment = std::get_if<QOREnvironmentRecord>(&record);
        if (environment != nullptr && !m_parents[environment->eid]) eids.add(environment->eid.toString());
    }
    forRows(
        home,
        "SELECT name, eid FROM qor_identity_environment WHERE writes <> 0 AND eid IN " + listOf(home.engine(), true),
        eids, [this](const ASStatement& row) {
            if (row.text(1) != m_scope.name) m_othersOwn.insert(eidIn(row, 2));
        });
}

bool RecordRights::isBelow(const QOREID& eid) const {
    std::set<QOREID> seen;
    QOREID at = eid;
    while (at.isValid() && seen.insert(at).second) {
        if (m_scope.subtrees.contains(at)) return true;
        const auto parent = m_parents.find(at);
        if (parent == m_parents.end() || !parent->second) return false;
        at = *parent->second;
    }
    return false;
}

std::string RecordRights::objectionTo(const QORRecord& record, const StoredOwners& owners) {
    if (const auto* environment = std::get_if<QOREnvironmentRecord>(&record)) {
        std::string objection = objectionTo(*environment, owners);
        if (objection.empty()) m_parents[environment->eid] = environment->parentEid;
        return objection;
    }
    for (const QOREID& eid : environmentsOf(record)) {
        if (!eid.isValid()) return "is about no environment, which needs full access";
        if (!isWritable(eid)) return "is about the environment " + eid.toString() + ", which is not among the sender's";
    }
    if (const auto* operation = std::get_if<QOROperationRecord>(&record))
        return objectionToReplaced(IdentifiedTable::Operations, operation->id, owners);
    if (const auto* backup = std::get_if<QORBackupRecord>(&record))
        return objectionToReplaced(IdentifiedTable::Backups, backup->id, owners);
    return {};
}

std::string RecordRights::objectionToReplaced(IdentifiedTable table, const std::string& id,
                                              const StoredOwners& owners) const {
    const auto stored = owners.records.find({table, id});
    if (stored == owners.records.end()) return {};
    const bool own = std::all_of(stored->second.begin(), stored->second.end(),
                                 [this](const QOREID& eid) { return isWritable(eid); });
    return own ? std::string() : "takes the place of one about an environment that is not among the sender's";
}

std::string RecordRights::objectionTo(const QOREnvironmentRecord& record, const StoredOwners& owners) {
    const std::optional<QOREID>& before = m_parents[record.eid];
    if (!before) return objectionToNew(record, owners);
    if (!isWritable(record.eid)) return "is not among the sender's";
    if (*before == record.parentEid) return {};
    const QOREID& parent = record.parentEid;
    const bool mayGo = isBelow(record.eid) && (!before->isValid() || isBelow(*before));
    const bool mayCome = parent.isValid() ? isBelow(parent) : m_scope.subtrees.contains(record.eid);
    if (mayGo && mayCome) return {};
    return (before->isValid() ? "is below " + before->toString() : "is below no other") + " and may not be moved " +
           (parent.isValid() ? "below " + parent.toString() : "from there") + " by the sender";
}

std::string RecordRights::objectionToNew(const QOREnvironmentRecord& record, const StoredOwners& owners) const {
    const bool isRoot = m_scope.subtrees.contains(record.eid);
    const bool listed = isRoot || m_scope.single.contains(record.eid);
    if (record.parentEid.isValid() ? !isBelow(record.parentEid) : !listed)
        return "is new, and what the sender may add is below the environments that are the sender's with all below";
    if (m_othersOwn.contains(record.eid) && !listed) return "is new, and others are to write about it";
    const auto found = owners.ties.find(record.eid);
    if (found == owners.ties.end()) return {};
    if (found->second.children && !isRoot) return "is new, and others are below it already";
    if (found->second.records && !listed) return "is new, and there are records about it already";
    return {};
}

}  // namespace QOR
